// WebP: still images decoded straight at the thumbnail size (libwebp scales
// while decoding); animations give their first frame composited on the
// canvas. ICC and EXIF chunks are honoured.
#include <webp/decode.h>
#include <webp/demux.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "lib/codec/decoders.h"
#include "lib/codec/reducing-sink.h"
#include "lib/color/color-profile.h"
#include "lib/image/area-resample.h"
#include "lib/image/exif-orientation.h"
#include "lib/image/limits.h"
#include "lib/image/transform.h"

namespace tessera {
namespace codec {
namespace {

// WebP has to be in memory whole; the format itself stops at 4 GiB.
constexpr size_t kMaxWebpFileBytes = size_t{256} << 20;
// A still image is fed to the decoder this much at a time, and a cancelled
// decode stops between slices.
constexpr size_t kSliceBytes = size_t{64} << 10;

struct DemuxDeleter {
  void operator()(WebPDemuxer* demux) const { WebPDemuxDelete(demux); }
};
struct AnimDecoderDeleter {
  void operator()(WebPAnimDecoder* decoder) const { WebPAnimDecoderDelete(decoder); }
};
struct DecBufferFreer {
  void operator()(WebPDecBuffer* buffer) const { WebPFreeDecBuffer(buffer); }
};
struct IDecoderDeleter {
  void operator()(WebPIDecoder* decoder) const { WebPIDelete(decoder); }
};

// First frame of an animation on its canvas, at full size.
Status DecodeFirstFrame(const WebPData& data, int canvas_width, int canvas_height, image::Bitmap* out) {
  WebPAnimDecoderOptions options;
  if (!WebPAnimDecoderOptionsInit(&options)) return Status::Internal("libwebp version");
  options.color_mode = MODE_BGRA;
  options.use_threads = 0;
  std::unique_ptr<WebPAnimDecoder, AnimDecoderDeleter> decoder(WebPAnimDecoderNew(&data, &options));
  if (!decoder) return Status::InvalidArgument("broken animated WebP");
  uint8_t* pixels = nullptr;
  int timestamp = 0;
  if (!WebPAnimDecoderGetNext(decoder.get(), &pixels, &timestamp) || pixels == nullptr) {
    return Status::InvalidArgument("animated WebP without a frame");
  }
  image::Bitmap bitmap;
  Status status = image::Bitmap::Create(canvas_width, canvas_height, &bitmap);
  if (!status.ok()) return status;
  std::memcpy(bitmap.data(), pixels, bitmap.byte_size());
  *out = std::move(bitmap);
  return Status::OK();
}

// A still image, scaled while decoding to fit cx.
Status DecodeStill(ByteSource* source, const WebPData& data, int width, int height, uint32_t cx, image::Bitmap* out) {
  int dst_width = 0;
  int dst_height = 0;
  image::FitWithin(width, height, cx, &dst_width, &dst_height);
  image::Bitmap bitmap;
  Status status = image::Bitmap::Create(dst_width, dst_height, &bitmap);
  if (!status.ok()) return status;
  WebPDecoderConfig config;
  if (!WebPInitDecoderConfig(&config)) return Status::Internal("libwebp version");
  std::unique_ptr<WebPDecBuffer, DecBufferFreer> buffer_guard(&config.output);
  if (dst_width != width || dst_height != height) {
    config.options.use_scaling = 1;
    config.options.scaled_width = dst_width;
    config.options.scaled_height = dst_height;
  }
  config.output.colorspace = MODE_BGRA;
  config.output.is_external_memory = 1;
  config.output.u.RGBA.rgba = bitmap.data();
  config.output.u.RGBA.stride = static_cast<int>(bitmap.stride());
  config.output.u.RGBA.size = bitmap.byte_size();
  // Decoded incrementally from the bytes in memory, which libwebp does not
  // copy; the result is that of a decode in one call.
  std::unique_ptr<WebPIDecoder, IDecoderDeleter> decoder(WebPIDecode(nullptr, 0, &config));
  if (!decoder) return Status::Internal("libwebp incremental decoder");
  VP8StatusCode result = VP8_STATUS_SUSPENDED;
  for (size_t fed = 0; result == VP8_STATUS_SUSPENDED && fed < data.size;) {
    if (source->cancelled()) return DecodeCancelledError();
    fed = std::min(data.size, fed + kSliceBytes);
    result = WebPIUpdate(decoder.get(), data.bytes, fed);
  }
  if (result != VP8_STATUS_OK) return Status::InvalidArgument("broken WebP");
  *out = std::move(bitmap);
  return Status::OK();
}

class WebpDecoder : public ImageDecoder {
 public:
  Status Decode(ByteSource* source, uint32_t cx, image::Bitmap* out) override {
    std::string bytes;
    Status status = source->ReadAll(kMaxWebpFileBytes, &bytes);
    if (!status.ok()) return status;
    // An animation's first frame is decoded in one call; only a still
    // image's decode polls the cancellation as it goes.
    if (source->cancelled()) return DecodeCancelledError();
    const WebPData data = {reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()};
    std::unique_ptr<WebPDemuxer, DemuxDeleter> demux(WebPDemux(&data));
    if (!demux) return Status::InvalidArgument("not a readable WebP");
    const uint32_t flags = WebPDemuxGetI(demux.get(), WEBP_FF_FORMAT_FLAGS);
    const uint32_t canvas_width = WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_WIDTH);
    const uint32_t canvas_height = WebPDemuxGetI(demux.get(), WEBP_FF_CANVAS_HEIGHT);
    if (!image::WithinPixelLimits(canvas_width, canvas_height)) return ImageTooLargeError(canvas_width, canvas_height);

    int orientation = 1;
    WebPChunkIterator chunk;
    if ((flags & EXIF_FLAG) && WebPDemuxGetChunk(demux.get(), "EXIF", 1, &chunk)) {
      orientation = image::ExifOrientation(chunk.chunk.bytes, chunk.chunk.size);
      WebPDemuxReleaseChunkIterator(&chunk);
    }
    std::shared_ptr<const color::ColorTransform> transform;
    if ((flags & ICCP_FLAG) && WebPDemuxGetChunk(demux.get(), "ICCP", 1, &chunk)) {
      transform = color::ColorTransform::SharedFromIcc(chunk.chunk.bytes, chunk.chunk.size, color::PixelLayout::kBgra8);
      WebPDemuxReleaseChunkIterator(&chunk);
    }

    image::Bitmap bitmap;
    if (flags & ANIMATION_FLAG) {
      if (!WithinDecodeBudget(uint64_t{canvas_width} * canvas_height * 4 * 2)) {
        return Status::InvalidArgument("WebP canvas too large to decode");
      }
      image::Bitmap canvas;
      status = DecodeFirstFrame(data, canvas_width, canvas_height, &canvas);
      if (!status.ok()) return status;
      color::FlattenOverWhite(canvas.data(), static_cast<size_t>(canvas.width()) * canvas.height());
      int dst_width = 0;
      int dst_height = 0;
      image::FitWithin(canvas.width(), canvas.height(), cx, &dst_width, &dst_height);
      status = image::AreaResample(canvas, dst_width, dst_height, &bitmap);
    } else {
      status = DecodeStill(source, data, canvas_width, canvas_height, cx, &bitmap);
      if (status.ok()) color::FlattenOverWhite(bitmap.data(), static_cast<size_t>(bitmap.width()) * bitmap.height());
    }
    if (!status.ok()) return status;
    // Converted once reduced, like every other decoder's output.
    if (transform && !transform->is_identity()) {
      transform->Apply(bitmap.data(), bitmap.data(), static_cast<size_t>(bitmap.width()) * bitmap.height());
    }
    if (orientation != 1) {
      status = image::ApplyExifOrientation(orientation, &bitmap);
      if (!status.ok()) return status;
    }
    *out = std::move(bitmap);
    return Status::OK();
  }
};

}  // namespace

std::unique_ptr<ImageDecoder> CreateWebpDecoder() { return std::make_unique<WebpDecoder>(); }

}  // namespace codec
}  // namespace tessera
