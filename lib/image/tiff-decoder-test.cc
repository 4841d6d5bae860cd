#include <stdlib.h>
#include <tiffio.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/image/decoders.h"
#include "lib/image/image-decoder.h"
#include "lib/image/testing/bitmap-probe.h"

namespace tessera {
namespace image {
namespace {

using testing::MeanColor;
using testing::Rgb;

struct Page {
  int width = 0;
  int height = 0;
  // Samples per pixel and bits; pixel(x, y, sample) gives the value.
  int samples = 3;
  int bits = 8;
  int photometric = PHOTOMETRIC_RGB;
  bool tiled = false;
  bool reduced = false;  // a reduced-resolution copy of the page before
  int orientation = 0;   // 0: no tag
  std::function<int(int x, int y, int s)> pixel;
  std::vector<uint16_t> colormap;  // 3 * 2^bits entries for palette images
};

// Writes the pages with libtiff into a scratch file and returns its bytes.
std::string WriteTiff(const std::vector<Page>& pages) {
  char path[] = "/tmp/tiff-decoder-test-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return "";
  close(fd);
  TIFF* tif = TIFFOpen(path, "w");
  for (const Page& page : pages) {
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, page.width);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, page.height);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, page.samples);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, page.bits);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, page.photometric);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
    if (page.reduced) TIFFSetField(tif, TIFFTAG_SUBFILETYPE, FILETYPE_REDUCEDIMAGE);
    if (page.orientation) TIFFSetField(tif, TIFFTAG_ORIENTATION, page.orientation);
    if (page.samples == 4 && page.photometric == PHOTOMETRIC_RGB) {
      const uint16_t extra = EXTRASAMPLE_UNASSALPHA;
      TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, &extra);
    }
    if (page.photometric == PHOTOMETRIC_PALETTE) {
      const size_t n = size_t{1} << page.bits;
      TIFFSetField(tif, TIFFTAG_COLORMAP, page.colormap.data(), page.colormap.data() + n,
                   page.colormap.data() + 2 * n);
    }
    const int bytes = page.bits / 8;
    auto put = [&](std::vector<uint8_t>* buf, size_t i, int v) {
      if (bytes == 2) {
        uint16_t w = static_cast<uint16_t>(v);
        std::memcpy(buf->data() + i * 2, &w, 2);
      } else {
        (*buf)[i] = static_cast<uint8_t>(v);
      }
    };
    if (page.tiled) {
      const int tile = 16;
      TIFFSetField(tif, TIFFTAG_TILEWIDTH, tile);
      TIFFSetField(tif, TIFFTAG_TILELENGTH, tile);
      std::vector<uint8_t> buf(static_cast<size_t>(tile) * tile * page.samples * bytes);
      for (int ty = 0; ty < page.height; ty += tile) {
        for (int tx = 0; tx < page.width; tx += tile) {
          for (int y = 0; y < tile; ++y) {
            for (int x = 0; x < tile; ++x) {
              for (int s = 0; s < page.samples; ++s) {
                const int v = (tx + x < page.width && ty + y < page.height) ? page.pixel(tx + x, ty + y, s) : 0;
                put(&buf, (static_cast<size_t>(y) * tile + x) * page.samples + s, v);
              }
            }
          }
          TIFFWriteTile(tif, buf.data(), tx, ty, 0, 0);
        }
      }
    } else {
      TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 7);
      std::vector<uint8_t> row(static_cast<size_t>(page.width) * page.samples * bytes);
      for (int y = 0; y < page.height; ++y) {
        for (int x = 0; x < page.width; ++x) {
          for (int s = 0; s < page.samples; ++s) put(&row, static_cast<size_t>(x) * page.samples + s, page.pixel(x, y, s));
        }
        TIFFWriteScanline(tif, row.data(), y, 0);
      }
    }
    TIFFWriteDirectory(tif);
  }
  TIFFClose(tif);
  std::ifstream in(path, std::ios::binary);
  std::stringstream content;
  content << in.rdbuf();
  unlink(path);
  return content.str();
}

Status Decode(const std::string& bytes, uint32_t cx, Bitmap* out) {
  auto source = ByteSource::FromMemory(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return CreateTiffDecoder()->Decode(source.get(), cx, out);
}

std::function<int(int, int, int)> Solid(std::vector<int> value) {
  return [value](int, int, int s) { return value[s]; };
}

void ExpectColor(const Rgb& c, double r, double g, double b) {
  EXPECT_NEAR(c.r, r, 4) << testing::ToString(c);
  EXPECT_NEAR(c.g, g, 4) << testing::ToString(c);
  EXPECT_NEAR(c.b, b, 4) << testing::ToString(c);
}

TEST(TiffDecoderTest, StripsAreReducedAndTurnedUpright) {
  Page page;
  page.width = 80;
  page.height = 40;
  page.orientation = ORIENTATION_RIGHTTOP;  // EXIF 6: turn clockwise
  // Left half red, right half blue as stored.
  page.pixel = [](int x, int, int s) { return x < 40 ? (s == 0 ? 255 : 0) : (s == 2 ? 255 : 0); };
  const std::string tiff = WriteTiff({page});
  ASSERT_EQ(SniffImageFormat(reinterpret_cast<const uint8_t*>(tiff.data()), tiff.size()), ImageFormat::kTiff);

  Bitmap bitmap;
  ASSERT_TRUE(Decode(tiff, 40, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 20);
  EXPECT_EQ(bitmap.height(), 40);
  ExpectColor(MeanColor(bitmap, 0, 0, 20, 18), 255, 0, 0);   // stored left is now the top
  ExpectColor(MeanColor(bitmap, 0, 22, 20, 40), 0, 0, 255);

  // Never enlarged.
  ASSERT_TRUE(Decode(tiff, 1000, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 40);
  EXPECT_EQ(bitmap.height(), 80);
}

TEST(TiffDecoderTest, SampleLayouts) {
  // 16-bit tiled RGBA: the right half fully transparent, which must come out white.
  Page rgba;
  rgba.width = 40;
  rgba.height = 36;
  rgba.samples = 4;
  rgba.bits = 16;
  rgba.tiled = true;
  rgba.pixel = [](int x, int, int s) { return x < 20 ? (s == 1 || s == 3 ? 65535 : 0) : 0; };
  Bitmap bitmap;
  ASSERT_TRUE(Decode(WriteTiff({rgba}), 20, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 20);
  EXPECT_EQ(bitmap.height(), 18);
  ExpectColor(MeanColor(bitmap, 0, 0, 9, 18), 0, 255, 0);
  ExpectColor(MeanColor(bitmap, 11, 0, 20, 18), 255, 255, 255);

  Page gray;
  gray.width = gray.height = 10;
  gray.samples = 1;
  gray.bits = 16;
  gray.photometric = PHOTOMETRIC_MINISBLACK;
  gray.pixel = Solid({32768});
  ASSERT_TRUE(Decode(WriteTiff({gray}), 10, &bitmap).ok());
  ExpectColor(MeanColor(bitmap), 128, 128, 128);

  Page palette;
  palette.width = palette.height = 10;
  palette.samples = 1;
  palette.photometric = PHOTOMETRIC_PALETTE;
  palette.colormap.assign(3 * 256, 0);
  palette.colormap[5] = 65535;            // red of entry 5
  palette.colormap[512 + 5] = 65535;      // blue of entry 5
  palette.pixel = Solid({5});
  ASSERT_TRUE(Decode(WriteTiff({palette}), 10, &bitmap).ok());
  ExpectColor(MeanColor(bitmap), 255, 0, 255);

  Page cmyk;
  cmyk.width = cmyk.height = 10;
  cmyk.samples = 4;
  cmyk.photometric = PHOTOMETRIC_SEPARATED;
  cmyk.pixel = Solid({0, 0, 255, 0});  // yellow ink
  ASSERT_TRUE(Decode(WriteTiff({cmyk}), 10, &bitmap).ok());
  const Rgb yellow = MeanColor(bitmap);
  EXPECT_GT(yellow.r, 200);
  EXPECT_GT(yellow.g, 200);
  EXPECT_LT(yellow.b, 60);
}

TEST(TiffDecoderTest, FirstPageAndLargeEnoughReducedCopy) {
  Page main;
  main.width = 400;
  main.height = 200;
  main.pixel = Solid({255, 0, 0});
  Page reduced = main;
  reduced.width = 100;
  reduced.height = 50;
  reduced.reduced = true;
  reduced.pixel = Solid({0, 255, 0});  // a different colour shows which one was read
  Page second = main;
  second.pixel = Solid({0, 0, 255});
  const std::string tiff = WriteTiff({main, reduced, second});

  Bitmap bitmap;
  ASSERT_TRUE(Decode(tiff, 80, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 80);
  EXPECT_EQ(bitmap.height(), 40);
  ExpectColor(MeanColor(bitmap), 0, 255, 0);  // the reduced copy suffices

  ASSERT_TRUE(Decode(tiff, 300, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 300);
  ExpectColor(MeanColor(bitmap), 255, 0, 0);  // too small: page one itself
}

TEST(TiffDecoderTest, HostileInputFailsCleanly) {
  Page page;
  page.width = 30;
  page.height = 30;
  page.pixel = [](int x, int y, int) { return (x * 7 + y * 13) & 255; };
  const std::string tiff = WriteTiff({page});
  Bitmap bitmap;
  // Truncations of every size must not crash; small ones fail.
  for (size_t n = 0; n < tiff.size(); n += 37) {
    Status status = Decode(tiff.substr(0, n), 30, &bitmap);
    if (n < 16) EXPECT_FALSE(status.ok());
  }
  EXPECT_FALSE(Decode(std::string("II*\0garbagegarbage", 18), 30, &bitmap).ok());

  // A declared size over the limits is refused before decoding.
  Page big = page;
  big.width = 200000;
  big.height = 1;
  big.pixel = Solid({0, 0, 0});
  Status status = Decode(WriteTiff({big}), 30, &bitmap);
  EXPECT_TRUE(IsImageTooLarge(status)) << status.ToString();
}

}  // namespace
}  // namespace image
}  // namespace tessera
