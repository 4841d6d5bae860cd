// lib/codec: our own image decoders — the byte source they read
// (byte-source.h), the choice of a decoder by content and this interface,
// one decoder per format (JPEG, PNG, TIFF, GIF, BMP, WebP, HEIF, camera RAW),
// the reducing sink they share, and the loadable modules of the decoders
// that need a large library (decoder-modules.h, raw/raw-module.h). Namespace
// tessera::codec; depends on lib/image and lib/color below it.
//
// The decoders behind the thumbnail provider. A decoder is chosen by
// content (magic bytes), never by file name, except that a file no
// signature matches may go to the RAW decoder when its name is a camera
// RAW one (headerless RAW files have no signature; LibRaw knows them by
// their size). A decoder produces what the provider hands out: an upright,
// opaque (alpha flattened over white), 8-bit sRGB BGRA bitmap whose longer
// side is at most cx and which is never enlarged.
//
// Decoders shrink on load where the format allows and check the declared
// size against limits.h before allocating. Every failure is a Status, never a
// crash; *out is untouched on failure.
#ifndef TESSERA_LIB_CODEC_IMAGE_DECODER_H_
#define TESSERA_LIB_CODEC_IMAGE_DECODER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lib/codec/byte-source.h"
#include "lib/image/bitmap.h"
#include "lib/utility/status.h"

namespace tessera {
namespace codec {

enum class ImageFormat {
  kUnknown,
  kJpeg,
  kPng,
  kTiff,  // also most camera RAW files; the RAW decoder is tried first for them
  kGif,
  kBmp,
  kWebp,
  kHeif,
  kRaw,   // camera RAW containers that are not TIFF-shaped (CRW, RAF, MRW, ORF, RW2, X3F)
};

// Identifies the format from the first bytes of a file (16 are enough).
ImageFormat SniffImageFormat(const uint8_t* head, size_t size);

class ImageDecoder {
 public:
  virtual ~ImageDecoder() = default;
  virtual Status Decode(ByteSource* source, uint32_t cx, image::Bitmap* out) = 0;
  // Names the content of the sources this decoder will see, for the
  // process-wide cache of results made ahead of their request (see
  // SetAnticipatedRequests). Equal keys must mean equal bytes; empty (the
  // default) disables the cache.
  virtual void SetContentKey(const std::string& /*key*/) {}
  // The cx values of every request the caller expects to make for this
  // content. A decoder that has to read the whole image for one of them may
  // reduce it to the others on the way and keep those results (under the
  // content key, so never without one) for their own requests, which then
  // read nothing; it may also decode at a scale that serves all of them.
  // Either way a result depends only on the content, cx and these values:
  // what a fresh decoder told the same requests returns. The default
  // ignores them.
  virtual void SetAnticipatedRequests(std::vector<uint32_t> /*cx_values*/) {}
  // Tells the decoder that the caller makes each result for a request of cx
  // smaller still, to a shorter side of cx / divisor (ShorterSideTo in
  // area-resample.h). The decoder may then return that size directly, which
  // the caller takes as it is: the same thumbnail without a picture of up to
  // nine times its area in between. 0, the default, tells nothing.
  virtual void SetCallerEdgeDivisor(uint32_t /*divisor*/) {}
};

// The decoder for a format, or nullptr when none is built in.
std::unique_ptr<ImageDecoder> CreateImageDecoder(ImageFormat format);

// The status with which every decoder refuses a declared size over the limits
// of limits.h, so that callers can tell "too large" from other refusals
// (it is an InvalidArgument status).
Status ImageTooLargeError(uint64_t width, uint64_t height);
bool IsImageTooLarge(const Status& status);

// Lowers the limits that the decoders of this copy of lib/codec apply (a
// module loaded beside the tool has a copy of its own): a picture of more
// than `max_pixels` is refused as too large, and a decode plans for at most
// `max_bytes` of buffers. Never above limits.h, which the tool keeps. For
// fuzzing, where every input has to cost little. Thread-safe; a decode
// already running may see either limit.
void SetDecodeBudget(uint64_t max_pixels, uint64_t max_bytes);

// The status with which a decoder gives up once its source is cancelled
// (ByteSource::cancelled()): a Timeout status, as the job has run out of time.
Status DecodeCancelledError();

}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_IMAGE_DECODER_H_
