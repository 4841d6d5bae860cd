// The common back end of the streaming decoders (TIFF, PNG, GIF, BMP): takes
// source rows top to bottom, flattens them over white and reduces them to
// the thumbnail size on the fly, then makes the result upright. Internal to
// lib/image.
#ifndef TESSERA_LIB_IMAGE_REDUCING_SINK_H_
#define TESSERA_LIB_IMAGE_REDUCING_SINK_H_

#include <cstddef>
#include <cstdint>

#include "lib/image/area-resample.h"
#include "lib/image/bitmap.h"
#include "lib/utility/status.h"

namespace tessera {
namespace image {

class ReducingSink {
 public:
  // Prepares a reduction of a width x height source to the largest size
  // whose longer side is at most cx (never enlarged). Refuses sizes over the
  // limits with ImageTooLargeError before allocating. Not thread-safe.
  Status Init(uint64_t width, uint64_t height, uint32_t cx);

  int width() const { return width_; }
  int height() const { return height_; }

  // Pushes one row of width() BGRA pixels with straight alpha. The row is
  // modified (flattened over white) in place.
  void PushStraightRow(uint8_t* bgra);
  // The same for premultiplied alpha.
  void PushPremultipliedRow(uint8_t* bgra);

  // Hands over the reduced bitmap turned upright by the EXIF orientation
  // (1 when none). On failure *out is untouched.
  Status Finish(int orientation, Bitmap* out);

 private:
  int width_ = 0;
  int height_ = 0;
  AreaReducer reducer_;
};

// A budget check for buffers a decoder is about to allocate: true when the
// sum stays within kMaxDecodeBytes.
bool WithinDecodeBudget(uint64_t bytes);

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_REDUCING_SINK_H_
