#include "lib/thumbnail/thumbnail-size.h"

namespace tessera {
namespace thumbnail {
namespace {

struct SizeEntry {
  const char* name;
  uint32_t pixels;
};

constexpr SizeEntry kSizeTable[] = {
    {"small", 120},
    {"small-medium", 240},
    {"medium", 320},
    {"large", 1280},
};
constexpr uint32_t kSizeCount = sizeof(kSizeTable) / sizeof(kSizeTable[0]);

}  // namespace

std::string SizeName(ThumbnailSize size) { return size < kSizeCount ? kSizeTable[size].name : ""; }

uint32_t PixelSize(ThumbnailSize size) { return size < kSizeCount ? kSizeTable[size].pixels : 0; }

ThumbnailSize SizeFromName(const std::string& name) {
  // "small" and unknown names alike fall through to 0.
  for (ThumbnailSize size = 1; size < kSizeCount; ++size) {
    if (name == kSizeTable[size].name) return size;
  }
  return 0;
}

const std::vector<ThumbnailSize>& AllSizes() {
  static const std::vector<ThumbnailSize> sizes = {0, 1, 2, 3};
  return sizes;
}

const std::unordered_set<uint32_t>& kSupportedOptions() {
  static const std::unordered_set<uint32_t> options;
  return options;
}

}  // namespace thumbnail
}  // namespace tessera
