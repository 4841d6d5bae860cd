// TIFF test files written with libtiff, pages of any sample layout.
// Test-only.
#ifndef TESSERA_LIB_CODEC_TIFF_TESTING_TIFF_FIXTURES_H_
#define TESSERA_LIB_CODEC_TIFF_TESTING_TIFF_FIXTURES_H_

#include <tiffio.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tessera {
namespace codec {
namespace testing {

struct TiffPage {
  int width = 0;
  int height = 0;
  // Samples per pixel and bits; pixel(x, y, sample) gives the value, an
  // integer for integer samples (16-bit words in host order, signed ones as
  // their two's complement), any value for floating-point ones.
  int samples = 3;
  int bits = 8;
  int sample_format = SAMPLEFORMAT_UINT;
  int photometric = PHOTOMETRIC_RGB;
  bool tiled = false;
  bool planar = false;   // separate planes
  bool reduced = false;  // a reduced-resolution copy of the page before
  int orientation = 0;   // 0: no tag
  int rows_per_strip = 7;  // 0: the whole image in one strip
  int compression = COMPRESSION_LZW;  // JPEG takes RGB rows and stores YCbCr
  std::function<double(int x, int y, int s)> pixel;
  std::vector<uint16_t> colormap;  // 3 * 2^bits entries for palette images
  std::string icc;                 // embedded when not empty
  std::string make;                // Make tag when not empty
  std::string software;            // Software tag when not empty
  // Anything else, set on the directory before its pixels are written (or,
  // without a pixel function, data written there by hand).
  std::function<void(TIFF*)> more_tags;
};

// The pages written with libtiff into one file, returned as bytes (empty on
// failure); `mode` is libtiff's ("wb": big-endian). With extra samples
// beyond the colour ones, the first is unassociated alpha.
std::string WriteTiff(const std::vector<TiffPage>& pages, const char* mode = "w");

// The file `write` makes with libtiff, returned as bytes (empty on failure);
// for layouts the page writer does not know.
std::string WriteTiffWith(const std::function<void(TIFF*)>& write, const char* mode = "w");

// A pixel function of one value per sample.
std::function<double(int, int, int)> Solid(std::vector<double> value);

}  // namespace testing
}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_TIFF_TESTING_TIFF_FIXTURES_H_
