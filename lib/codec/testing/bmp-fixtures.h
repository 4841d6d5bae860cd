// BMP files for tests, laid out byte by byte: every header form, bit depth,
// compression (RLE, bit fields) and row order the decoder reads.
#ifndef TESSERA_LIB_CODEC_TESTING_BMP_FIXTURES_H_
#define TESSERA_LIB_CODEC_TESTING_BMP_FIXTURES_H_

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tessera {
namespace codec {
namespace testing {

struct BmpLayout {
  int width = 5;
  int height = 6;
  int bits = 24;
  uint32_t compression = 0;
  uint32_t info_size = 40;
  bool top_down = false;
  std::vector<uint32_t> masks;      // after a 40-byte header, or inside a larger one
  std::vector<uint32_t> palette;    // 0x00RRGGBB
  std::string pixels;               // rows in file order, padded
};

// The file: file header, info header (the 12-byte core form when info_size
// is 12), masks, palette and the pixels as they are.
std::string EncodeBmp(const BmpLayout& layout);

// Rows of `layout` from a per-pixel function of the displayed position; the
// function returns the packed sample (index or bit-field value).
void FillBmpPixels(BmpLayout* layout, const std::function<uint32_t(int x, int y)>& sample);

}  // namespace testing
}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_TESTING_BMP_FIXTURES_H_
