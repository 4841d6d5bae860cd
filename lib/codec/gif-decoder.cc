// GIF: the first image, composited on the logical screen (white where it
// does not cover the screen or is transparent). Non-interlaced images are
// streamed row by row; interlaced ones need their index plane, one byte per
// pixel, because their rows arrive out of order.
#include <gif_lib.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "lib/codec/decoders.h"
#include "lib/codec/reducing-sink.h"
#include "lib/image/limits.h"

namespace tessera {
namespace codec {
namespace {

// Before its first image a GIF holds a few extensions (graphic control,
// loop count, comments, XMP, a profile). Tens of thousands of them are a
// file made to keep readers busy: it is refused once past these bounds,
// which take milliseconds to reach.
constexpr int kMaxExtensionsBeforeImage = 1 << 16;
// Data sub-blocks of those extensions in all (up to 255 bytes each).
constexpr int kMaxExtensionBlocks = 1 << 18;

// giflib reads every record type, extension code and sub-block length with
// a call of its own, so a file of tiny blocks costs a call per byte or two.
// The input is read ahead in large chunks instead; a cancelled source reads
// nothing more (memory sources included), so giflib fails at its next read.
class BufferedInput {
 public:
  explicit BufferedInput(ByteSource* source) : source_(source), buffer_(kChunkBytes) {}

  // Copies up to n bytes to out; fewer only at the end of the data, on a
  // read error or once the source is cancelled.
  int Read(uint8_t* out, int n) {
    int done = 0;
    while (done < n) {
      if (next_ == end_) {
        if (source_->cancelled()) break;
        const int64_t got = source_->ReadAt(offset_, buffer_.data(), buffer_.size());
        if (got <= 0) break;
        offset_ += static_cast<uint64_t>(got);
        next_ = 0;
        end_ = static_cast<size_t>(got);
      }
      const size_t take = std::min(static_cast<size_t>(n - done), end_ - next_);
      std::memcpy(out + done, buffer_.data() + next_, take);
      next_ += take;
      done += static_cast<int>(take);
    }
    return done;
  }

 private:
  static constexpr size_t kChunkBytes = size_t{64} << 10;

  ByteSource* source_;
  std::vector<uint8_t> buffer_;
  uint64_t offset_ = 0;  // of the first byte after the buffered ones
  size_t next_ = 0;
  size_t end_ = 0;
};

int ReadFunc(GifFileType* gif, GifByteType* buf, int size) {
  if (size <= 0) return 0;
  return static_cast<BufferedInput*>(gif->UserData)->Read(buf, size);
}

struct GifCloser {
  void operator()(GifFileType* gif) const {
    int error = 0;
    DGifCloseFile(gif, &error);
  }
};
using GifPtr = std::unique_ptr<GifFileType, GifCloser>;

// Skips the sub-blocks of an extension, counting them against *blocks_left;
// reads the transparent index from a graphic control extension.
Status ReadExtension(GifFileType* gif, int* blocks_left, int* transparent) {
  int code = 0;
  GifByteType* block = nullptr;
  if (DGifGetExtension(gif, &code, &block) == GIF_ERROR) return Status::InvalidArgument("broken GIF extension");
  if (code == GRAPHICS_EXT_FUNC_CODE && block != nullptr && block[0] >= 4) {
    *transparent = (block[1] & 0x01) ? block[4] : -1;
  }
  while (block != nullptr) {
    if (--*blocks_left < 0) return Status::InvalidArgument("GIF with too many extension blocks");
    if (DGifGetExtensionNext(gif, &block) == GIF_ERROR) return Status::InvalidArgument("broken GIF extension");
  }
  return Status::OK();
}

class GifDecoder : public ReducingDecoder {
 public:
  Status Decode(ByteSource* source, uint32_t cx, image::Bitmap* out) override {
    if (TakeKept(cx, out)) return Status::OK();
    BufferedInput input(source);
    int error = 0;
    GifPtr gif(DGifOpen(&input, ReadFunc, &error));
    if (!gif) return source->cancelled() ? DecodeCancelledError() : Status::InvalidArgument("not a readable GIF");

    int transparent = -1;
    int blocks_left = kMaxExtensionBlocks;
    for (int extensions = 0;; ++extensions) {
      if (source->cancelled()) return DecodeCancelledError();
      GifRecordType type;
      if (DGifGetRecordType(gif.get(), &type) == GIF_ERROR) {
        return Status::InvalidArgument("GIF without an image");
      }
      if (type == EXTENSION_RECORD_TYPE) {
        if (extensions >= kMaxExtensionsBeforeImage) {
          return Status::InvalidArgument("GIF with too many extensions before its image");
        }
        Status status = ReadExtension(gif.get(), &blocks_left, &transparent);
        if (!status.ok()) return status;
      } else if (type == IMAGE_DESC_RECORD_TYPE) {
        if (DGifGetImageDesc(gif.get()) == GIF_ERROR) return Status::InvalidArgument("broken GIF image");
        return DecodeFirstImage(gif.get(), source, transparent, cx, AnticipatedRequests(), out);
      } else {
        return Status::InvalidArgument("GIF without an image");
      }
    }
  }

 private:
  // Every size reads the same rows: the sink fans them out to all.
  static Status DecodeFirstImage(GifFileType* gif, ByteSource* source, int transparent, uint32_t cx,
                                 const FanOutRequest& fan_out, image::Bitmap* out) {
    const GifImageDesc& desc = gif->Image;
    if (desc.Width <= 0 || desc.Height <= 0) return Status::InvalidArgument("empty GIF image");
    // A screen of zero size (some encoders) takes the image's own size.
    const int screen_width = gif->SWidth > 0 ? gif->SWidth : desc.Left + desc.Width;
    const int screen_height = gif->SHeight > 0 ? gif->SHeight : desc.Top + desc.Height;
    ReducingSink sink;
    Status status = sink.Init(screen_width, screen_height, cx);
    if (!status.ok()) return status;
    if (!image::WithinPixelLimits(desc.Width, desc.Height)) return ImageTooLargeError(desc.Width, desc.Height);

    // Without any colour map, indices are taken as grey levels.
    const ColorMapObject* map = desc.ColorMap != nullptr ? desc.ColorMap : gif->SColorMap;
    const bool has_map = map != nullptr && map->Colors != nullptr;
    uint8_t palette[256][4];
    for (int i = 0; i < 256; ++i) {
      uint8_t* p = palette[i];
      if (i == transparent || (has_map && i >= map->ColorCount)) {
        p[0] = p[1] = p[2] = 255;  // transparent, or an index past the map: white
      } else if (!has_map) {
        p[0] = p[1] = p[2] = static_cast<uint8_t>(i);
      } else {
        p[0] = map->Colors[i].Blue;
        p[1] = map->Colors[i].Green;
        p[2] = map->Colors[i].Red;
      }
      p[3] = 255;
    }

    // Part of the image that lies on the screen (empty, at the screen's
    // edge, for an image placed beyond it): the screen's rows are pushed,
    // never more.
    const int x0 = std::min(screen_width, std::max(0, desc.Left));
    const int x1 = std::max(x0, std::min(screen_width, desc.Left + desc.Width));
    const int y0 = std::min(screen_height, std::max(0, desc.Top));
    const int y1 = std::max(y0, std::min(screen_height, desc.Top + desc.Height));

    // An interlaced image is held whole, but only its rows on the screen: a
    // frame far larger than its screen costs no more than the screen.
    const int held_rows = desc.Interlace ? std::max(0, y1 - y0) : 0;
    const uint64_t index_plane = uint64_t(desc.Width) * uint64_t(held_rows);
    const uint64_t planned = index_plane + uint64_t(screen_width) * 4 + uint64_t(desc.Width);
    if (!WithinDecodeBudget(planned)) return Status::InvalidArgument("GIF image too large to decode");
    sink.FanOut(fan_out, planned);
    std::vector<uint8_t> canvas_row(static_cast<size_t>(screen_width) * 4);
    std::vector<GifPixelType> indices(static_cast<size_t>(index_plane));
    std::vector<GifPixelType> line(static_cast<size_t>(desc.Width));

    auto push_white = [&]() {
      std::fill(canvas_row.begin(), canvas_row.end(), uint8_t{255});
      sink.PushStraightRow(canvas_row.data());
    };
    auto push_image_row = [&](const GifPixelType* line) {
      std::fill(canvas_row.begin(), canvas_row.end(), uint8_t{255});
      for (int x = x0; x < x1; ++x) {
        std::memcpy(&canvas_row[static_cast<size_t>(x) * 4], palette[line[x - desc.Left]], 4);
      }
      sink.PushStraightRow(canvas_row.data());
    };

    // Every loop below polls the cancellation: rows can come from buffered
    // data, or from none at all (white margins of a large screen).
    for (int y = 0; y < y0; ++y) {
      if (source->cancelled()) return DecodeCancelledError();
      push_white();
    }
    int pushed = y0;
    if (desc.Interlace) {
      // Unread rows stay white.
      std::fill(indices.begin(), indices.end(), static_cast<GifPixelType>(transparent >= 0 ? transparent : 0));
      static const int kStart[4] = {0, 4, 2, 1};
      static const int kStep[4] = {8, 8, 4, 2};
      bool ok = true;
      const int first_held = y0 - desc.Top;  // image row of indices' first row
      for (int pass = 0; pass < 4 && ok; ++pass) {
        for (int r = kStart[pass]; r < desc.Height && ok; r += kStep[pass]) {
          if (source->cancelled()) return DecodeCancelledError();
          const bool held = r >= first_held && r < first_held + held_rows;
          GifPixelType* target =
              held ? &indices[static_cast<size_t>(r - first_held) * desc.Width] : line.data();
          ok = DGifGetLine(gif, target, desc.Width) != GIF_ERROR;
        }
      }
      for (int y = y0; y < y1; ++y) {
        if (source->cancelled()) return DecodeCancelledError();
        push_image_row(&indices[static_cast<size_t>(y - y0) * desc.Width]);
      }
      pushed = y1;
    } else {
      // Rows above the screen are read and dropped.
      for (int r = 0; r < desc.Height; ++r) {
        if (source->cancelled()) return DecodeCancelledError();
        if (DGifGetLine(gif, line.data(), desc.Width) == GIF_ERROR) {
          if (pushed == 0 && r == 0) return Status::InvalidArgument("GIF data unreadable");
          break;  // a truncated file keeps what was read
        }
        const int y = desc.Top + r;
        if (y < y0) continue;
        if (y >= y1) break;
        push_image_row(line.data());
        ++pushed;
      }
    }
    for (int y = pushed; y < screen_height; ++y) {
      if (source->cancelled()) return DecodeCancelledError();
      push_white();
    }
    return sink.Finish(1, out);
  }
};

}  // namespace

std::unique_ptr<ImageDecoder> CreateGifDecoder() { return std::make_unique<GifDecoder>(); }

}  // namespace codec
}  // namespace tessera
