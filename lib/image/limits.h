// Size limits for decoded images. Every decoder checks the declared size
// against them before it allocates anything.
#ifndef TESSERA_LIB_IMAGE_LIMITS_H_
#define TESSERA_LIB_IMAGE_LIMITS_H_

#include <cstdint>

namespace tessera {
namespace image {

// No side may exceed 2^17 pixels, and no image 2^30 pixels in all.
constexpr uint64_t kMaxSide = uint64_t{1} << 17;
constexpr uint64_t kMaxPixels = uint64_t{1} << 30;

// Peak memory a single decode may plan for (buffers it allocates itself).
constexpr uint64_t kMaxDecodeBytes = uint64_t{768} << 20;

// True when width x height is a size the decoders accept.
constexpr bool WithinPixelLimits(uint64_t width, uint64_t height) {
  return width > 0 && height > 0 && width <= kMaxSide && height <= kMaxSide &&
         width * height <= kMaxPixels;
}

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_LIMITS_H_
