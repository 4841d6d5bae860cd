// BMP: the Windows headers (BITMAPINFOHEADER and its V2-V5 extensions) and
// the OS/2 ones, 1/2/4/8-bit palette, 16/24/32-bit with or without bit
// fields, RLE4/RLE8, bottom-up and top-down, and JPEG or PNG streams stored
// in a BMP wrapper. Every offset and count from the file is checked before it
// is used.
//
// Rows are pushed to the reducer in file order; a bottom-up image is then
// flipped as a whole, which gives the same result as reducing it top to
// bottom because the area average is symmetric. Memory is one file row and
// one pixel row plus the output.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "lib/codec/decoders.h"
#include "lib/codec/reducing-sink.h"
#include "lib/color/color-profile.h"
#include "lib/image/limits.h"

namespace tessera {
namespace codec {
namespace {

constexpr uint32_t kFileHeaderSize = 14;
constexpr int kFlipVertical = 4;  // EXIF orientation that mirrors top and bottom
constexpr uint32_t kMaxIccSize = 4u << 20;

// Compression values of the Windows headers.
enum Compression : uint32_t {
  kRgb = 0,
  kRle8 = 1,
  kRle4 = 2,
  kBitFields = 3,
  kJpeg = 4,
  kPng = 5,
  kAlphaBitFields = 6,
};

constexpr uint32_t kProfileEmbedded = 0x4D424544;  // 'MBED'

uint16_t Le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }
uint32_t Le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// One channel of a bit-field pixel: mask position and a table to 8 bits.
class Channel {
 public:
  // An empty mask gives `fallback` for every pixel.
  void Init(uint32_t mask, uint8_t fallback) {
    mask_ = mask;
    fallback_ = fallback;
    shift_ = 0;
    if (mask == 0) return;
    while (((mask >> shift_) & 1u) == 0) ++shift_;
    uint32_t span = mask >> shift_;
    max_ = span;  // the span's bits as an integer, e.g. 0x1F for five bits
    if (max_ <= 0xFFFF) {
      table_.resize(static_cast<size_t>(max_) + 1);
      for (uint32_t v = 0; v <= max_; ++v) table_[v] = Scale(v);
    }
  }

  bool present() const { return mask_ != 0; }

  uint8_t Get(uint32_t pixel) const {
    if (mask_ == 0) return fallback_;
    const uint32_t v = (pixel & mask_) >> shift_;
    return table_.empty() ? Scale(v) : table_[v];
  }

 private:
  uint8_t Scale(uint32_t v) const {
    return static_cast<uint8_t>((uint64_t{v} * 255 + max_ / 2) / max_);
  }

  uint32_t mask_ = 0;
  uint32_t shift_ = 0;
  uint32_t max_ = 1;
  uint8_t fallback_ = 0;
  std::vector<uint8_t> table_;
};

// Everything the headers say, validated.
struct Header {
  uint32_t data_offset = 0;
  uint32_t info_size = 0;
  int64_t width = 0;
  int64_t height = 0;
  bool top_down = false;
  int bits = 0;
  uint32_t compression = kRgb;
  uint32_t data_size = 0;
  uint32_t masks[4] = {0, 0, 0, 0};  // red, green, blue, alpha
  bool has_masks = false;
  std::vector<uint8_t> palette;  // BGRA, up to 256 entries
  std::vector<uint8_t> icc;
};

// A forward reader over the pixel data with a small buffer, for RLE.
class StreamReader {
 public:
  StreamReader(ByteSource* source, uint64_t offset) : source_(source), position_(offset) {}

  // False at the end of the data, on a read error or once the source is
  // cancelled.
  bool Next(uint8_t* byte) {
    if (next_ == end_) {
      if (source_->cancelled()) return false;
      const int64_t got = source_->ReadAt(position_, buffer_, sizeof(buffer_));
      if (got <= 0) return false;
      position_ += static_cast<uint64_t>(got);
      next_ = 0;
      end_ = static_cast<size_t>(got);
    }
    *byte = buffer_[next_++];
    return true;
  }

 private:
  ByteSource* source_;
  uint64_t position_;
  uint8_t buffer_[1 << 16];
  size_t next_ = 0;
  size_t end_ = 0;
};

// A window onto part of another source, for JPEG and PNG streams in a BMP.
class WindowSource : public ByteSource {
 public:
  // Shares the base's cancellation, so the inner decoder stops with it.
  WindowSource(ByteSource* base, uint64_t offset, uint64_t size)
      : base_(base), offset_(offset), size_(size) {
    set_cancellation(base->cancellation());
  }
  uint64_t size() const override { return size_; }
  int64_t ReadAt(uint64_t offset, void* buf, size_t n) override {
    if (offset >= size_) return 0;
    const uint64_t left = size_ - offset;
    return base_->ReadAt(offset_ + offset, buf, static_cast<size_t>(std::min<uint64_t>(n, left)));
  }
  // The same window on a duplicate of the base, which it owns.
  std::unique_ptr<ByteSource> Duplicate() const override {
    std::unique_ptr<ByteSource> base = base_->Duplicate();
    if (!base) return nullptr;
    std::unique_ptr<WindowSource> copy(new (std::nothrow) WindowSource(base.get(), offset_, size_));
    if (!copy) return nullptr;
    copy->owned_base_ = std::move(base);
    return copy;
  }

 private:
  ByteSource* base_;
  uint64_t offset_;
  uint64_t size_;
  std::unique_ptr<ByteSource> owned_base_;  // set in duplicates only
};

bool ReadExact(ByteSource* source, uint64_t offset, void* buf, size_t n) {
  return source->ReadAt(offset, buf, n) == static_cast<int64_t>(n);
}

Status ReadHeader(ByteSource* source, Header* h) {
  uint8_t head[kFileHeaderSize + 124];
  const int64_t got = source->ReadAt(0, head, sizeof(head));
  if (got < static_cast<int64_t>(kFileHeaderSize + 12) || head[0] != 'B' || head[1] != 'M') {
    return Status::InvalidArgument("not a BMP file");
  }
  h->data_offset = Le32(head + 10);
  h->info_size = Le32(head + 14);
  const uint8_t* info = head + kFileHeaderSize;
  const bool os2_core = h->info_size == 12;
  const bool os2_v2 = h->info_size == 16 || h->info_size == 64;
  switch (h->info_size) {
    case 12: case 16: case 40: case 52: case 56: case 64: case 108: case 124:
      break;
    default:
      return Status::NotSupported("unknown BMP header size " + std::to_string(h->info_size));
  }
  if (got < static_cast<int64_t>(kFileHeaderSize + h->info_size)) {
    return Status::InvalidArgument("truncated BMP header");
  }

  int64_t height = 0;
  if (os2_core) {
    h->width = Le16(info + 4);
    height = Le16(info + 6);
    h->bits = Le16(info + 10);
  } else {
    h->width = static_cast<int32_t>(Le32(info + 4));
    height = static_cast<int32_t>(Le32(info + 8));
    h->bits = Le16(info + 14);
    if (h->info_size >= 20) h->compression = Le32(info + 16);
    if (h->info_size >= 24) h->data_size = Le32(info + 20);
  }
  h->top_down = height < 0;
  h->height = height < 0 ? -height : height;
  if (h->width <= 0 || h->height <= 0) return Status::InvalidArgument("BMP without pixels");
  if (!image::WithinPixelLimits(static_cast<uint64_t>(h->width), static_cast<uint64_t>(h->height))) {
    return ImageTooLargeError(static_cast<uint64_t>(h->width), static_cast<uint64_t>(h->height));
  }
  // OS/2 reuses 3 and 4 for Huffman and RLE24, which nothing writes any more.
  if (os2_v2 && (h->compression == 3 || h->compression == 4)) {
    return Status::NotSupported("OS/2 BMP compression");
  }

  switch (h->compression) {
    case kRgb:
      if (h->bits != 1 && h->bits != 2 && h->bits != 4 && h->bits != 8 && h->bits != 16 &&
          h->bits != 24 && h->bits != 32) {
        return Status::NotSupported("BMP bit depth " + std::to_string(h->bits));
      }
      break;
    case kRle8:
      if (h->bits != 8) return Status::InvalidArgument("RLE8 BMP not 8-bit");
      break;
    case kRle4:
      if (h->bits != 4) return Status::InvalidArgument("RLE4 BMP not 4-bit");
      break;
    case kBitFields:
    case kAlphaBitFields:
      if (h->bits != 16 && h->bits != 32) return Status::InvalidArgument("bit fields BMP not 16/32-bit");
      h->has_masks = true;
      break;
    case kJpeg:
    case kPng:
      return Status::OK();
    default:
      return Status::NotSupported("BMP compression " + std::to_string(h->compression));
  }

  uint64_t table_offset = kFileHeaderSize + h->info_size;
  if (h->has_masks) {
    if (h->info_size >= 52) {
      for (int i = 0; i < 3; ++i) h->masks[i] = Le32(info + 40 + 4 * i);
      if (h->info_size >= 56) h->masks[3] = Le32(info + 52);
    } else {
      // Masks follow a 40-byte header.
      const int count = h->compression == kAlphaBitFields ? 4 : 3;
      uint8_t masks[16];
      if (!ReadExact(source, table_offset, masks, count * 4)) {
        return Status::InvalidArgument("truncated BMP bit fields");
      }
      for (int i = 0; i < count; ++i) h->masks[i] = Le32(masks + 4 * i);
      table_offset += count * 4;
    }
    if (h->bits == 16) {
      for (uint32_t& mask : h->masks) mask &= 0xFFFF;
    }
    if ((h->masks[0] | h->masks[1] | h->masks[2]) == 0) {
      return Status::InvalidArgument("BMP bit fields without colour");
    }
  } else if (h->bits == 16) {
    h->masks[0] = 0x7C00;
    h->masks[1] = 0x03E0;
    h->masks[2] = 0x001F;
  } else if (h->bits == 32) {
    h->masks[0] = 0xFF0000;
    h->masks[1] = 0x00FF00;
    h->masks[2] = 0x0000FF;
    // Without bit fields the fourth byte is padding, whatever a V3+ header
    // declares: writers leave it zero in opaque images.
  }

  if (h->bits <= 8) {
    const uint32_t entry = os2_core ? 3 : 4;
    uint32_t count = 1u << h->bits;
    if (!os2_core && h->info_size >= 36) {
      const uint32_t used = Le32(info + 32);
      if (used != 0 && used < count) count = used;
    }
    // The palette cannot overlap the pixel data.
    if (h->data_offset > table_offset) {
      count = static_cast<uint32_t>(std::min<uint64_t>(count, (h->data_offset - table_offset) / entry));
    }
    std::vector<uint8_t> raw(static_cast<size_t>(count) * entry);
    const int64_t read = count == 0 ? 0 : source->ReadAt(table_offset, raw.data(), raw.size());
    count = read < 0 ? 0 : static_cast<uint32_t>(read / entry);
    if (count == 0) return Status::InvalidArgument("BMP without a palette");
    // Entries past the table are black.
    h->palette.assign(256 * 4, 0);
    for (uint32_t i = 0; i < 256; ++i) h->palette[i * 4 + 3] = 255;
    for (uint32_t i = 0; i < count; ++i) std::memcpy(&h->palette[i * 4], &raw[i * entry], 3);
  }

  // An embedded profile (V5 header), at an offset from the header's start.
  if (h->info_size >= 124 && Le32(info + 56) == kProfileEmbedded) {
    const uint32_t offset = Le32(info + 112);
    const uint32_t size = Le32(info + 116);
    if (size > 0 && size <= kMaxIccSize) {
      h->icc.resize(size);
      if (!ReadExact(source, uint64_t{kFileHeaderSize} + offset, h->icc.data(), size)) h->icc.clear();
    }
  }
  return Status::OK();
}

class BmpDecoder : public ReducingDecoder {
 public:
  Status Decode(ByteSource* source, uint32_t cx, image::Bitmap* out) override {
    if (TakeKept(cx, out)) return Status::OK();
    Header h;
    Status status = ReadHeader(source, &h);
    if (!status.ok()) return status;
    if (h.compression == kJpeg || h.compression == kPng) return DecodeEmbedded(source, h, cx, out);
    if (h.data_offset >= source->size()) return Status::InvalidArgument("BMP without pixel data");

    ReducingSink sink;
    status = sink.Init(static_cast<uint64_t>(h.width), static_cast<uint64_t>(h.height), cx);
    if (!status.ok()) return status;
    const uint64_t stride = (static_cast<uint64_t>(h.width) * h.bits + 31) / 32 * 4;
    const uint64_t row_bytes = static_cast<uint64_t>(h.width) * 4;
    if (!WithinDecodeBudget(stride + row_bytes)) return Status::InvalidArgument("BMP rows too large");
    // Every size reads the same rows (embedded streams aside, above).
    sink.FanOut(AnticipatedRequests(), stride + row_bytes);

    if (!h.icc.empty()) {
      sink.SetColorTransform(color::ColorTransform::SharedFromIcc(h.icc.data(), h.icc.size(), color::PixelLayout::kBgra8));
    }
    auto push = [&](uint8_t* row) { sink.PushStraightRow(row); };

    std::vector<uint8_t> row(static_cast<size_t>(row_bytes));
    const bool rle = h.compression == kRle8 || h.compression == kRle4;
    const int64_t rows_read = rle ? DecodeRle(source, h, row.data(), push)
                                  : DecodeRows(source, h, stride, row.data(), push);
    // The row loops stop early once the source is cancelled, which would
    // look like a truncated file.
    if (source->cancelled()) return DecodeCancelledError();
    if (rows_read == 0) return Status::InvalidArgument("BMP pixel data unreadable");
    // Rows the file does not have (truncated, or ended early) stay white.
    for (int64_t y = rows_read; y < h.height; ++y) {
      if (source->cancelled()) return DecodeCancelledError();
      std::fill(row.begin(), row.end(), uint8_t{255});
      sink.PushStraightRow(row.data());
    }
    return sink.Finish(h.top_down ? 1 : kFlipVertical, out);
  }

 private:
  // Uncompressed rows. Returns the number of rows pushed.
  template <typename Push>
  static int64_t DecodeRows(ByteSource* source, const Header& h, uint64_t stride, uint8_t* row, Push push) {
    std::vector<uint8_t> line(static_cast<size_t>(stride));
    const size_t width = static_cast<size_t>(h.width);
    Channel channels[4];
    if (h.bits == 16 || h.bits == 32) {
      for (int c = 0; c < 3; ++c) channels[c].Init(h.masks[c], 0);
      channels[3].Init(h.masks[3], 255);
    }
    const bool plain32 = h.bits == 32 && h.masks[0] == 0xFF0000 && h.masks[1] == 0xFF00 &&
                         h.masks[2] == 0xFF && (h.masks[3] == 0 || h.masks[3] == 0xFF000000);
    uint64_t offset = h.data_offset;
    for (int64_t y = 0; y < h.height; ++y, offset += stride) {
      if (source->cancelled() || !ReadExact(source, offset, line.data(), line.size())) return y;
      const uint8_t* in = line.data();
      uint8_t* p = row;
      switch (h.bits) {
        case 1: case 2: case 4: case 8: {
          const int per_byte = 8 / h.bits;
          const int mask = (1 << h.bits) - 1;
          for (size_t x = 0; x < width; ++x, p += 4) {
            const int shift = 8 - h.bits * (1 + static_cast<int>(x % per_byte));
            const int index = (in[x / per_byte] >> shift) & mask;
            std::memcpy(p, &h.palette[static_cast<size_t>(index) * 4], 4);
          }
          break;
        }
        case 24:
          for (size_t x = 0; x < width; ++x, p += 4, in += 3) {
            p[0] = in[0];
            p[1] = in[1];
            p[2] = in[2];
            p[3] = 255;
          }
          break;
        case 32:
          if (plain32) {
            const bool alpha = h.masks[3] != 0;
            for (size_t x = 0; x < width; ++x, p += 4, in += 4) {
              p[0] = in[0];
              p[1] = in[1];
              p[2] = in[2];
              p[3] = alpha ? in[3] : 255;
            }
            break;
          }
          for (size_t x = 0; x < width; ++x, p += 4, in += 4) {
            const uint32_t v = Le32(in);
            p[0] = channels[2].Get(v);
            p[1] = channels[1].Get(v);
            p[2] = channels[0].Get(v);
            p[3] = channels[3].Get(v);
          }
          break;
        case 16:
          for (size_t x = 0; x < width; ++x, p += 4, in += 2) {
            const uint32_t v = Le16(in);
            p[0] = channels[2].Get(v);
            p[1] = channels[1].Get(v);
            p[2] = channels[0].Get(v);
            p[3] = channels[3].Get(v);
          }
          break;
      }
      push(row);
    }
    return h.height;
  }

  // RLE8/RLE4 with end-of-line, end-of-bitmap and delta escapes. Pixels the
  // data skips are transparent (white). Returns the number of rows pushed;
  // stops early once the source is cancelled (a delta escape moves down
  // rows without reading).
  template <typename Push>
  static int64_t DecodeRle(ByteSource* source, const Header& h, uint8_t* row, Push push) {
    const int64_t width = h.width;
    const size_t row_bytes = static_cast<size_t>(width) * 4;
    StreamReader in(source, h.data_offset);
    const bool four = h.compression == kRle4;
    int64_t y = 0;
    int64_t x = 0;
    bool any = false;
    bool cancelled = false;
    std::memset(row, 0, row_bytes);
    auto put = [&](int index) {
      if (x < width) std::memcpy(row + x * 4, &h.palette[static_cast<size_t>(index) * 4], 4);
      ++x;
    };
    auto next_row = [&]() {
      push(row);
      std::memset(row, 0, row_bytes);
      ++y;
      x = 0;
      cancelled = source->cancelled();
    };
    uint8_t a = 0;
    uint8_t b = 0;
    while (y < h.height && !cancelled && in.Next(&a) && in.Next(&b)) {
      any = true;
      if (a > 0) {  // a run of `a` pixels
        for (int i = 0; i < a && x < width; ++i) put(four ? ((i & 1) ? (b & 0xF) : (b >> 4)) : b);
        continue;
      }
      if (b == 0) {  // end of line
        next_row();
      } else if (b == 1) {  // end of bitmap
        break;
      } else if (b == 2) {  // delta: move right and down
        uint8_t dx = 0;
        uint8_t dy = 0;
        if (!in.Next(&dx) || !in.Next(&dy)) break;
        for (int i = 0; i < dy && y < h.height && !cancelled; ++i) next_row();
        // The column is kept across rows; clamp it so rows stay finite.
        x = std::min<int64_t>(x + dx, width);
      } else {  // `b` literal pixels, padded to 16 bits
        const int bytes = four ? (b + 1) / 2 : b;
        for (int i = 0; i < bytes; ++i) {
          uint8_t v = 0;
          if (!in.Next(&v)) return Flush(y, h.height, any, row, push);
          if (four) {
            put(v >> 4);
            if (2 * i + 1 < b) put(v & 0xF);
          } else {
            put(v);
          }
        }
        if (bytes & 1) {
          uint8_t pad = 0;
          if (!in.Next(&pad)) return Flush(y, h.height, any, row, push);
        }
      }
    }
    return Flush(y, h.height, any, row, push);
  }

  // Pushes a partly decoded last row; returns the number of rows pushed.
  template <typename Push>
  static int64_t Flush(int64_t y, int64_t height, bool any, uint8_t* row, Push push) {
    if (!any) return 0;
    if (y >= height) return y;
    push(row);
    return y + 1;
  }

  // The stream's own decoder, told the run's requests and this file's
  // content key: what it makes of the stream is what this decoder hands
  // out, so the results it keeps for the other sizes are found by TakeKept
  // above, and under that key it only ever sees the same stream.
  Status DecodeEmbedded(ByteSource* source, const Header& h, uint32_t cx, image::Bitmap* out) const {
    if (h.data_offset >= source->size()) return Status::InvalidArgument("BMP without image data");
    uint64_t size = source->size() - h.data_offset;
    if (h.data_size != 0) size = std::min<uint64_t>(size, h.data_size);
    WindowSource window(source, h.data_offset, size);
    uint8_t magic[8] = {0};
    window.ReadAt(0, magic, sizeof(magic));
    const ImageFormat format = SniffImageFormat(magic, sizeof(magic));
    const ImageFormat expected = h.compression == kJpeg ? ImageFormat::kJpeg : ImageFormat::kPng;
    if (format != expected) return Status::InvalidArgument("BMP with a broken embedded stream");
    std::unique_ptr<ImageDecoder> decoder = CreateImageDecoder(format);
    if (!decoder) return Status::NotSupported("BMP embedded stream");
    const FanOutRequest requests = AnticipatedRequests();
    decoder->SetContentKey(requests.key);
    decoder->SetAnticipatedRequests(requests.cx_values);
    return decoder->Decode(&window, cx, out);
  }
};

}  // namespace

std::unique_ptr<ImageDecoder> CreateBmpDecoder() { return std::make_unique<BmpDecoder>(); }

}  // namespace codec
}  // namespace tessera
