// Small test images made on the fly with the codecs themselves, so tests need
// no binary fixtures. Test-only; the encoders return an empty string when the
// codec refuses the input.
#ifndef TESSERA_LIB_CODEC_TESTING_IMAGE_FIXTURES_H_
#define TESSERA_LIB_CODEC_TESTING_IMAGE_FIXTURES_H_

#include <cstdint>
#include <string>
#include <vector>

namespace tessera {
namespace codec {
namespace testing {

// 8-bit RGB, rows top to bottom.
struct RgbImage {
  RgbImage(int w, int h, uint8_t r = 255, uint8_t g = 255, uint8_t b = 255);
  void Fill(int x0, int y0, int x1, int y1, uint8_t r, uint8_t g, uint8_t b);
  int width;
  int height;
  std::vector<uint8_t> rgb;
};

struct JpegOptions {
  int quality = 95;
  bool full_chroma = true;  // 4:4:4 instead of 4:2:0
  bool progressive = false;
  int exif_orientation = 0;  // 0: no EXIF segment
  std::string icc;           // embedded when not empty
};

std::string EncodeJpeg(const RgbImage& image, const JpegOptions& options = JpegOptions());

// A uniform CMYK JPEG. `ink` is C, M, Y, K with 0 = no ink. With
// adobe_inverted the samples are stored inverted behind an Adobe segment, as
// Adobe applications write them; otherwise as-is and without that segment.
std::string EncodeCmykJpeg(int width, int height, const uint8_t ink[4], bool adobe_inverted);

// A gray progressive JPEG of side x side, all mid grey, made of one DC
// scan and `scans` - 1 identical AC scans of nothing but end-of-band runs:
// a few bytes for each scan whatever the size, each a pass over every block
// for the decoder (the repeats are bogus progression, which decoders warn
// about and read).
std::string ManyScanJpeg(uint32_t side, int scans);

// A PNG from samples in PNG layout (big-endian for 16 bits).
struct PngImage {
  uint32_t width = 0;
  uint32_t height = 0;
  uint8_t color_type = 6;  // 0 gray, 2 RGB, 3 palette, 4 gray+alpha, 6 RGBA
  uint8_t bit_depth = 8;
  bool interlaced = false;
  std::vector<uint8_t> samples;
  std::vector<uint8_t> palette_rgb;  // color type 3
  std::vector<uint8_t> trns;         // palette alphas for color type 3
  std::string icc;
  size_t idat_size = 0;  // > 0: image data split into IDAT chunks this large
};
std::string EncodePng(const PngImage& image);

// A syntactically valid PNG whose IHDR declares width x height, followed by a
// tiny IDAT and IEND: a "decompression bomb" header.
std::string PngDeclaring(uint32_t width, uint32_t height);

}  // namespace testing
}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_TESTING_IMAGE_FIXTURES_H_
