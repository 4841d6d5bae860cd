#include "lib/codec/tiff/testing/tiff-fixtures.h"

#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

namespace tessera {
namespace codec {
namespace testing {
namespace {

// IEEE half precision, rounded to nearest (normal numbers, zero and
// infinity are all a test needs).
uint16_t ToHalf(float f) {
  uint32_t x;
  std::memcpy(&x, &f, 4);
  const uint32_t sign = (x >> 16) & 0x8000;
  const int exponent = static_cast<int>((x >> 23) & 0xFF) - 127 + 15;
  if (exponent <= 0) return static_cast<uint16_t>(sign);
  if (exponent >= 31) return static_cast<uint16_t>(sign | 0x7C00);
  const uint32_t mantissa = (x & 0x7FFFFF) + 0x1000;  // rounded
  return static_cast<uint16_t>(sign | (static_cast<uint32_t>(exponent) << 10) + (mantissa >> 13));
}

// One row of samples as libtiff expects them: host-order words and floats,
// integers of other depths packed most significant bit first.
std::vector<uint8_t> PackRow(const std::vector<double>& values, int bits, int format) {
  std::vector<uint8_t> out((values.size() * bits + 7) / 8);
  for (size_t i = 0; i < values.size(); ++i) {
    uint8_t* at = out.data() + i * bits / 8;
    if (format == SAMPLEFORMAT_IEEEFP) {
      if (bits == 16) {
        const uint16_t h = ToHalf(static_cast<float>(values[i]));
        std::memcpy(at, &h, 2);
      } else if (bits == 32) {
        const float f = static_cast<float>(values[i]);
        std::memcpy(at, &f, 4);
      } else {
        std::memcpy(at, &values[i], 8);
      }
    } else if (bits == 16) {
      const uint16_t w = static_cast<uint16_t>(static_cast<int64_t>(values[i]));
      std::memcpy(at, &w, 2);
    } else if (bits == 32) {
      const uint32_t w = static_cast<uint32_t>(static_cast<int64_t>(values[i]));
      std::memcpy(at, &w, 4);
    }
  }
  if (format == SAMPLEFORMAT_IEEEFP || bits == 16 || bits == 32) return out;
  size_t bit = 0;
  for (double value : values) {
    const int v = static_cast<int>(value);
    for (int b = bits - 1; b >= 0; --b, ++bit) {
      if ((v >> b) & 1) out[bit / 8] |= static_cast<uint8_t>(0x80 >> (bit % 8));
    }
  }
  return out;
}

int ColorSamples(int photometric) {
  switch (photometric) {
    case PHOTOMETRIC_MINISWHITE:
    case PHOTOMETRIC_MINISBLACK:
    case PHOTOMETRIC_PALETTE:
      return 1;
    case PHOTOMETRIC_SEPARATED:
      return 4;
    default:
      return 3;
  }
}

std::string ScratchPath() {
  const char* base = std::getenv("TESSERA_TEST_TMPDIR");
  std::string path = std::string(base != nullptr ? base : "/tmp") + "/tiff-fixture-XXXXXX";
  const int fd = mkstemp(&path[0]);
  if (fd < 0) return "";
  close(fd);
  return path;
}

std::string ReadAndRemove(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  unlink(path.c_str());
  return bytes;
}

void WritePage(TIFF* tif, const TiffPage& page) {
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, page.width);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, page.height);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, page.samples);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, page.bits);
  TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, page.sample_format);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, page.photometric);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, page.planar ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, page.compression);
  if (page.compression == COMPRESSION_JPEG && page.photometric == PHOTOMETRIC_YCBCR) {
    TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
  }
  if (page.reduced) TIFFSetField(tif, TIFFTAG_SUBFILETYPE, FILETYPE_REDUCEDIMAGE);
  if (page.orientation) TIFFSetField(tif, TIFFTAG_ORIENTATION, page.orientation);
  const int extra = page.samples - ColorSamples(page.photometric);
  if (extra > 0) {
    std::vector<uint16_t> kinds(static_cast<size_t>(extra), EXTRASAMPLE_UNSPECIFIED);
    kinds[0] = EXTRASAMPLE_UNASSALPHA;
    TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, extra, kinds.data());
  }
  if (page.photometric == PHOTOMETRIC_PALETTE) {
    const size_t n = size_t{1} << page.bits;
    TIFFSetField(tif, TIFFTAG_COLORMAP, page.colormap.data(), page.colormap.data() + n,
                 page.colormap.data() + 2 * n);
  }
  if (!page.icc.empty()) {
    TIFFSetField(tif, TIFFTAG_ICCPROFILE, static_cast<uint32_t>(page.icc.size()), page.icc.data());
  }
  if (!page.make.empty()) TIFFSetField(tif, TIFFTAG_MAKE, page.make.c_str());
  if (!page.software.empty()) TIFFSetField(tif, TIFFTAG_SOFTWARE, page.software.c_str());
  if (page.more_tags) page.more_tags(tif);
  if (!page.pixel) {
    TIFFWriteDirectory(tif);
    return;
  }
  // Samples of pixels [x0, x0 + count) of row y, of one sample or all
  // (s < 0), zero outside the page.
  auto row_values = [&](int x0, int count, int y, int only) {
    std::vector<double> values;
    for (int x = x0; x < x0 + count; ++x) {
      for (int s = 0; s < page.samples; ++s) {
        if (only >= 0 && s != only) continue;
        values.push_back(x < page.width && y < page.height ? page.pixel(x, y, s) : 0);
      }
    }
    return values;
  };
  const int planes = page.planar ? page.samples : 1;
  if (page.tiled) {
    const int tile = 16;
    TIFFSetField(tif, TIFFTAG_TILEWIDTH, tile);
    TIFFSetField(tif, TIFFTAG_TILELENGTH, tile);
    for (int p = 0; p < planes; ++p) {
      for (int ty = 0; ty < page.height; ty += tile) {
        for (int tx = 0; tx < page.width; tx += tile) {
          std::vector<uint8_t> buf;
          for (int y = 0; y < tile; ++y) {
            const std::vector<uint8_t> row =
                PackRow(row_values(tx, tile, ty + y, page.planar ? p : -1), page.bits, page.sample_format);
            buf.insert(buf.end(), row.begin(), row.end());
          }
          TIFFWriteTile(tif, buf.data(), tx, ty, 0, static_cast<uint16_t>(p));
        }
      }
    }
  } else {
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, page.rows_per_strip > 0 ? page.rows_per_strip : page.height);
    for (int p = 0; p < planes; ++p) {
      for (int y = 0; y < page.height; ++y) {
        std::vector<uint8_t> row =
            PackRow(row_values(0, page.width, y, page.planar ? p : -1), page.bits, page.sample_format);
        TIFFWriteScanline(tif, row.data(), y, static_cast<uint16_t>(p));
      }
    }
  }
  TIFFWriteDirectory(tif);
}

}  // namespace

std::string WriteTiffWith(const std::function<void(TIFF*)>& write, const char* mode) {
  const std::string path = ScratchPath();
  if (path.empty()) return "";
  TIFF* tif = TIFFOpen(path.c_str(), mode);
  if (tif == nullptr) return "";
  write(tif);
  TIFFClose(tif);
  return ReadAndRemove(path);
}

std::string WriteTiff(const std::vector<TiffPage>& pages, const char* mode) {
  return WriteTiffWith(
      [&pages](TIFF* tif) {
        for (const TiffPage& page : pages) WritePage(tif, page);
      },
      mode);
}

std::function<double(int, int, int)> Solid(std::vector<double> value) {
  return [value](int, int, int s) { return value[s]; };
}

}  // namespace testing
}  // namespace codec
}  // namespace tessera
