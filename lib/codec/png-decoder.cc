// PNG decoding with libspng: rows are decoded to RGBA8 one at a time and
// streamed, flattened over white, into the reducing sink, so memory follows
// the output size. Interlaced (Adam7) images need the whole picture first.
// Every size asks for the same rows, so one decode serves all the sizes the
// run anticipates.
#include <cstring>
#include <new>
#include <vector>

#include <spng.h>

#include "lib/codec/decoders.h"
#include "lib/codec/reducing-sink.h"
#include "lib/color/color-profile.h"
#include "lib/image/exif-orientation.h"
#include "lib/image/limits.h"

namespace tessera {
namespace codec {
namespace {

// Largest single chunk, and largest total of stored ancillary chunks (text,
// profiles, EXIF). IDAT data is streamed and not bounded by these.
constexpr size_t kMaxChunkBytes = size_t{64} << 20;
constexpr size_t kMaxChunkCacheBytes = size_t{64} << 20;

struct SpngFree {
  void operator()(spng_ctx* ctx) const { spng_ctx_free(ctx); }
};
using SpngPtr = std::unique_ptr<spng_ctx, SpngFree>;

struct StreamState {
  ByteSource* source;
  uint64_t offset;
};

// libspng reads the image data a few kilobytes at a time as rows need it,
// so failing the reads of a cancelled source (memory sources too) stops
// every decode within a few milliseconds.
int ReadStream(spng_ctx* /*ctx*/, void* user, void* dest, size_t length) {
  auto* state = static_cast<StreamState*>(user);
  if (state->source->cancelled()) return SPNG_IO_ERROR;
  const int64_t got = state->source->ReadAt(state->offset, dest, length);
  if (got < 0) return SPNG_IO_ERROR;
  if (static_cast<size_t>(got) != length) return SPNG_IO_EOF;
  state->offset += length;
  return 0;
}

Status SpngError(const char* what, int error) {
  if (error == SPNG_EUSER_WIDTH || error == SPNG_EUSER_HEIGHT) {
    return ImageTooLargeError(0, 0);
  }
  return Status::InvalidArgument(std::string(what) + ": " + spng_strerror(error));
}

// RGBA as decoded -> BGRA, pushed to the sink (which flattens it and
// converts the colour of the reduced result).
void PushRow(uint8_t* pixels, size_t count, ReducingSink* sink) {
  for (size_t i = 0; i < count; ++i) std::swap(pixels[4 * i], pixels[4 * i + 2]);
  sink->PushStraightRow(pixels);
}

class PngDecoder : public ReducingDecoder {
 public:
  Status Decode(ByteSource* source, uint32_t cx, image::Bitmap* out) override {
    if (TakeKept(cx, out)) return Status::OK();
    SpngPtr ctx(spng_ctx_new(0));
    if (!ctx) return Status::Internal("cannot create a PNG decoder");
    StreamState state{source, 0};
    // Damaged checksums are common in files that otherwise decode fine.
    spng_set_crc_action(ctx.get(), SPNG_CRC_USE, SPNG_CRC_USE);
    spng_set_image_limits(ctx.get(), static_cast<uint32_t>(image::kMaxSide),
                          static_cast<uint32_t>(image::kMaxSide));
    spng_set_chunk_limits(ctx.get(), kMaxChunkBytes, kMaxChunkCacheBytes);
    int error = spng_set_png_stream(ctx.get(), ReadStream, &state);
    if (error != 0) return SpngError("PNG stream", error);

    spng_ihdr ihdr;
    error = spng_get_ihdr(ctx.get(), &ihdr);
    if (error != 0) return SpngError("PNG header", error);
    if (!image::WithinPixelLimits(ihdr.width, ihdr.height)) {
      return ImageTooLargeError(ihdr.width, ihdr.height);
    }
    const int width = static_cast<int>(ihdr.width);
    const int height = static_cast<int>(ihdr.height);

    int orientation = 1;
    spng_exif exif;
    if (spng_get_exif(ctx.get(), &exif) == 0) {
      orientation = image::ExifOrientation(reinterpret_cast<const uint8_t*>(exif.data), exif.length);
    }

    ReducingSink sink;
    Status status = sink.Init(ihdr.width, ihdr.height, cx);
    if (!status.ok()) return status;
    spng_iccp iccp;
    if (spng_get_iccp(ctx.get(), &iccp) == 0) {
      sink.SetColorTransform(color::ColorTransform::SharedFromIcc(reinterpret_cast<const uint8_t*>(iccp.profile),
                                                           iccp.profile_len, color::PixelLayout::kBgra8));
    }

    const size_t row_bytes = static_cast<size_t>(width) * 4;
    if (ihdr.interlace_method != SPNG_INTERLACE_NONE) {
      status = DecodeInterlaced(ctx.get(), width, height, AnticipatedRequests(), &sink);
    } else {
      sink.FanOut(AnticipatedRequests(), row_bytes);
      status = DecodeRows(ctx.get(), row_bytes, height, &sink);
    }
    // A decode cut short by the cancellation would look truncated.
    if (source->cancelled()) return DecodeCancelledError();
    if (!status.ok()) return status;
    return sink.Finish(orientation, out);
  }

 private:
  static Status DecodeRows(spng_ctx* ctx, size_t row_bytes, int height, ReducingSink* sink) {
    std::vector<uint8_t> row;
    try {
      row.resize(row_bytes);
    } catch (const std::bad_alloc&) {
      return Status::Internal("out of memory for a PNG row");
    }
    int error = spng_decode_image(ctx, nullptr, 0, SPNG_FMT_RGBA8,
                                  SPNG_DECODE_TRNS | SPNG_DECODE_PROGRESSIVE);
    if (error != 0) return SpngError("PNG decode", error);
    for (int y = 0; y < height; ++y) {
      error = spng_decode_row(ctx, row.data(), row.size());
      if (error != 0 && error != SPNG_EOI) {
        // A truncated or damaged stream keeps what came before it; the
        // sink fills the rest with grey.
        if (y > 0) return Status::OK();
        return SpngError("PNG data", error);
      }
      PushRow(row.data(), row_bytes / 4, sink);
      if (error == SPNG_EOI) break;
    }
    return Status::OK();
  }

  static Status DecodeInterlaced(spng_ctx* ctx, int width, int height, const FanOutRequest& fan_out,
                                 ReducingSink* sink) {
    size_t size = 0;
    int error = spng_decoded_image_size(ctx, SPNG_FMT_RGBA8, &size);
    if (error != 0) return SpngError("PNG size", error);
    if (size > image::kMaxDecodeBytes) return ImageTooLargeError(width, height);
    std::unique_ptr<uint8_t[]> pixels(new (std::nothrow) uint8_t[size]);
    if (!pixels) return Status::Internal("out of memory for an interlaced PNG");
    sink->FanOut(fan_out, size);
    error = spng_decode_image(ctx, pixels.get(), size, SPNG_FMT_RGBA8, SPNG_DECODE_TRNS);
    if (error != 0) return SpngError("PNG decode", error);
    const size_t row_bytes = static_cast<size_t>(width) * 4;
    for (int y = 0; y < height; ++y) {
      uint8_t* row = pixels.get() + row_bytes * static_cast<size_t>(y);
      PushRow(row, static_cast<size_t>(width), sink);
    }
    return Status::OK();
  }
};

}  // namespace

std::unique_ptr<ImageDecoder> CreatePngDecoder() {
  return std::unique_ptr<ImageDecoder>(new PngDecoder());
}

}  // namespace codec
}  // namespace tessera
