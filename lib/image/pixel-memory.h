// Memory for bitmap pixels. Internal to lib/image; Bitmap is the interface.
//
// Every block extends kPixelSlack bytes past what was asked for, so that
// vectorised writers that round a row up to their register width (the video
// frame converter does) may run past the last pixel without leaving the
// block. Large blocks are asked for in huge pages where the system has them:
// first touch of a 37 MiB bitmap otherwise costs ten thousand page faults.
#ifndef TESSERA_LIB_IMAGE_PIXEL_MEMORY_H_
#define TESSERA_LIB_IMAGE_PIXEL_MEMORY_H_

#include <cstddef>
#include <cstdint>
#include <memory>

namespace tessera {
namespace image {

constexpr size_t kPixelSlack = 256;

struct PixelMemoryFree {
  size_t mapped_bytes = 0;  // 0 for blocks from the ordinary heap
  void operator()(uint8_t* pixels) const;
};

using PixelMemory = std::unique_ptr<uint8_t[], PixelMemoryFree>;

// A block of bytes + kPixelSlack bytes with unspecified contents, or null
// when memory is short.
PixelMemory AllocatePixels(size_t bytes);

// Asks the C library to give every large block (a decoder's buffers, a
// picture) a mapping of its own, returned to the system when freed, rather
// than carving such blocks from the heap, where freed memory stays resident
// and adds up across the sizes of a run. Once per process; thread-safe.
void PreferMappedLargeBlocks();

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_PIXEL_MEMORY_H_
