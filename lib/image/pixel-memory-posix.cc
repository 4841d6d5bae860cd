#include "lib/image/pixel-memory.h"

#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <mutex>

namespace tessera {
namespace image {

namespace {

constexpr size_t kHugePage = size_t{2} << 20;
// Below this the heap serves the block: a huge page would mostly be waste.
constexpr size_t kHugePageThreshold = size_t{4} << 20;

}  // namespace

void PixelMemoryFree::operator()(uint8_t* pixels) const {
  if (pixels == nullptr) return;
  if (mapped_bytes != 0) {
    munmap(pixels, mapped_bytes);
  } else {
    std::free(pixels);
  }
}

PixelMemory AllocatePixels(size_t bytes) {
  if (bytes > SIZE_MAX - kPixelSlack - 2 * kHugePage) return PixelMemory();
  const size_t wanted = bytes + kPixelSlack;
  if (wanted < kHugePageThreshold) {
    return PixelMemory(static_cast<uint8_t*>(std::malloc(wanted)), PixelMemoryFree{});
  }
  // Map a huge page more than needed and give back the ends, so that the
  // block starts on a huge-page boundary.
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t size = (wanted + page - 1) / page * page;
  void* mapped = mmap(nullptr, size + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) return PixelMemory();
  const uintptr_t start = reinterpret_cast<uintptr_t>(mapped);
  const uintptr_t aligned = (start + kHugePage - 1) / kHugePage * kHugePage;
  if (aligned > start) munmap(mapped, aligned - start);
  const uintptr_t end = start + size + kHugePage;
  if (end > aligned + size) munmap(reinterpret_cast<void*>(aligned + size), end - (aligned + size));
  void* block = reinterpret_cast<void*>(aligned);
  // Only whole huge pages: a partly used one would add to the peak memory.
  // Advice only: without transparent huge pages this is ordinary memory.
  madvise(block, size / kHugePage * kHugePage, MADV_HUGEPAGE);
  return PixelMemory(static_cast<uint8_t*>(block), PixelMemoryFree{size});
}

// Pictures of tens of megabytes come and go once per size. glibc raises its
// mmap threshold each time such a block is freed, after which the next ones
// are carved from the heap (a 12 MP progressive JPEG peaked at 128 instead
// of 88 MiB). A fixed threshold keeps every large block in a mapping.
void PreferMappedLargeBlocks() {
#ifdef __GLIBC__
  static std::once_flag once;
  std::call_once(once, [] { mallopt(M_MMAP_THRESHOLD, 256 * 1024); });
#endif
}

}  // namespace image
}  // namespace tessera
