// Reads the pixel size of a JPEG (from its frame header) or PNG (from IHDR)
// file without decoding it, for tests that check written thumbnails.
#ifndef TESSERA_LIB_THUMBNAIL_TESTING_IMAGE_SIZE_H_
#define TESSERA_LIB_THUMBNAIL_TESTING_IMAGE_SIZE_H_

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace tessera {
namespace thumbnail {
namespace testing {

struct ImageSize {
  int width = 0;
  int height = 0;
  bool is_jpeg = false;
  bool is_png = false;
  bool ok() const { return width > 0 && height > 0; }
};

// A zero size when the file is neither a readable JPEG nor a PNG.
inline ImageSize ReadImageSize(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  ImageSize size;
  auto be16 = [&data](size_t at) { return (data[at] << 8) | data[at + 1]; };
  static const uint8_t kPng[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  if (data.size() >= 24 && std::equal(kPng, kPng + 8, data.begin())) {
    size.is_png = true;
    size.width = (be16(16) << 16) | be16(18);
    size.height = (be16(20) << 16) | be16(22);
    return size;
  }
  if (data.size() < 4 || data[0] != 0xFF || data[1] != 0xD8) return size;
  size_t at = 2;
  while (at + 4 <= data.size()) {
    if (data[at] != 0xFF) return size;
    const uint8_t marker = data[at + 1];
    const size_t length = be16(at + 2);
    // SOF0..SOF15 except DHT (C4), JPG (C8) and DAC (CC).
    if (marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 && marker != 0xC8 && marker != 0xCC) {
      if (at + 9 > data.size()) return size;
      size.is_jpeg = true;
      size.height = be16(at + 5);
      size.width = be16(at + 7);
      return size;
    }
    at += 2 + length;
  }
  return size;
}

}  // namespace testing
}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_TESTING_IMAGE_SIZE_H_
