// lib/image: pictures in memory and what is done to every picture whatever
// it came from — this bitmap, its pixel memory, the area-average resampler
// and its streaming and pipelined reducers, quarter turns and mirrors, EXIF
// orientation, the size limits, and the JPEG/PNG encoders. Nothing here
// decodes a file format (lib/codec does) or converts colour (lib/color).
// Namespace tessera::image; depends on lib/utility, lib/file and lib/log only.
//
// An owned 32-bit BGRA pixel buffer: the picture format that thumbnail
// providers hand out and that every step after them works on.
//
// Pixels are 4 bytes, in the order blue, green, red, alpha; rows run top to
// bottom, tightly packed (stride = width * 4); the buffer runs on for
// kPixelSlack bytes after the last row, which writers may scribble on.
// Move-only: a copy has to be asked for with Clone(), so none happens by
// accident.
#ifndef TESSERA_LIB_IMAGE_BITMAP_H_
#define TESSERA_LIB_IMAGE_BITMAP_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "lib/image/pixel-memory.h"
#include "lib/utility/status.h"

namespace tessera {
namespace image {

class Bitmap {
 public:
  static constexpr int kBytesPerPixel = 4;

  Bitmap() = default;
  Bitmap(Bitmap&& other) noexcept;
  Bitmap& operator=(Bitmap&& other) noexcept;
  Bitmap(const Bitmap&) = delete;
  Bitmap& operator=(const Bitmap&) = delete;
  ~Bitmap() = default;

  // Allocates a width x height bitmap (contents unspecified). Fails with
  // InvalidArgument for non-positive sizes or sizes over the pixel limits of
  // limits.h, and with Internal when memory is short; *out is then untouched.
  static Status Create(int width, int height, Bitmap* out);

  // A deep copy.
  Status Clone(Bitmap* out) const;

  bool empty() const { return pixels_ == nullptr; }
  int width() const { return width_; }
  int height() const { return height_; }
  int bits_per_pixel() const { return 32; }
  size_t stride() const { return static_cast<size_t>(width_) * kBytesPerPixel; }
  size_t byte_size() const { return stride() * static_cast<size_t>(height_); }

  uint8_t* data() { return pixels_.get(); }
  const uint8_t* data() const { return pixels_.get(); }
  uint8_t* row(int y) { return pixels_.get() + stride() * static_cast<size_t>(y); }
  const uint8_t* row(int y) const { return pixels_.get() + stride() * static_cast<size_t>(y); }

 private:
  int width_ = 0;
  int height_ = 0;
  PixelMemory pixels_;
};

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_BITMAP_H_
