#include "lib/image/pixel-memory.h"

#include <cstdlib>

namespace tessera {
namespace image {

void PixelMemoryFree::operator()(uint8_t* pixels) const { std::free(pixels); }

PixelMemory AllocatePixels(size_t bytes) {
  if (bytes > SIZE_MAX - kPixelSlack) return PixelMemory();
  return PixelMemory(static_cast<uint8_t*>(std::malloc(bytes + kPixelSlack)), PixelMemoryFree{});
}

// The Windows heap returns large blocks to the system when they are freed.
void PreferMappedLargeBlocks() {}

}  // namespace image
}  // namespace tessera
