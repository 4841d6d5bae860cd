#include "lib/image/bitmap.h"

#include <cstring>
#include <new>

#include "lib/image/limits.h"

namespace tessera {
namespace image {

Bitmap::Bitmap(Bitmap&& other) noexcept
    : width_(other.width_), height_(other.height_), pixels_(std::move(other.pixels_)) {
  other.width_ = other.height_ = 0;
}

Bitmap& Bitmap::operator=(Bitmap&& other) noexcept {
  if (this != &other) {
    width_ = other.width_;
    height_ = other.height_;
    pixels_ = std::move(other.pixels_);
    other.width_ = other.height_ = 0;
  }
  return *this;
}

Status Bitmap::Create(int width, int height, Bitmap* out) {
  if (width <= 0 || height <= 0 ||
      !WithinPixelLimits(static_cast<uint64_t>(width), static_cast<uint64_t>(height))) {
    return Status::InvalidArgument("bitmap size " + std::to_string(width) + "x" +
                                   std::to_string(height) + " is out of range");
  }
  const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) * kBytesPerPixel;
  PixelMemory pixels = AllocatePixels(bytes);
  if (!pixels) return Status::Internal("out of memory for a " + std::to_string(bytes) + "-byte bitmap");
  out->width_ = width;
  out->height_ = height;
  out->pixels_ = std::move(pixels);
  return Status::OK();
}

Status Bitmap::Clone(Bitmap* out) const {
  if (empty()) {
    *out = Bitmap();
    return Status::OK();
  }
  Bitmap copy;
  Status status = Create(width_, height_, &copy);
  if (!status.ok()) return status;
  std::memcpy(copy.data(), data(), byte_size());
  *out = std::move(copy);
  return Status::OK();
}

}  // namespace image
}  // namespace tessera
