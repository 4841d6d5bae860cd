#include <lcms2.h>
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
#include "lib/codec/decoders.h"
#include "lib/codec/image-decoder.h"
#include "lib/codec/testing/bitmap-probe.h"
#include "lib/codec/testing/served-ahead.h"
#include "lib/utility/testing/byte-writers.h"

namespace tessera {
namespace codec {
namespace {

using ::tessera::testing::AppendLe16;
using ::tessera::testing::AppendLe32;
using testing::MeanColor;
using testing::Rgb;
using testing::ServedAhead;
using Sizes = std::vector<uint32_t>;

struct Page {
  int width = 0;
  int height = 0;
  // Samples per pixel and bits; pixel(x, y, sample) gives the value.
  int samples = 3;
  int bits = 8;
  int photometric = PHOTOMETRIC_RGB;
  bool tiled = false;
  bool planar = false;   // separate planes (strips only)
  bool reduced = false;  // a reduced-resolution copy of the page before
  int orientation = 0;   // 0: no tag
  int rows_per_strip = 7;  // 0: the whole image in one strip
  int compression = COMPRESSION_LZW;  // JPEG takes RGB rows and stores YCbCr
  std::function<int(int x, int y, int s)> pixel;
  std::vector<uint16_t> colormap;  // 3 * 2^bits entries for palette images
  std::string icc;                 // embedded when not empty
};

// Packs one row of samples as libtiff expects them: bytes, 16-bit words in
// host order, or other depths most significant bit first.
std::vector<uint8_t> PackRow(const std::vector<int>& values, int bits) {
  std::vector<uint8_t> out((values.size() * bits + 7) / 8);
  if (bits == 16) {
    for (size_t i = 0; i < values.size(); ++i) {
      const uint16_t w = static_cast<uint16_t>(values[i]);
      std::memcpy(out.data() + i * 2, &w, 2);
    }
    return out;
  }
  size_t bit = 0;
  for (int v : values) {
    for (int b = bits - 1; b >= 0; --b, ++bit) {
      if ((v >> b) & 1) out[bit / 8] |= static_cast<uint8_t>(0x80 >> (bit % 8));
    }
  }
  return out;
}

// Writes the pages with libtiff into a scratch file and returns its bytes;
// `mode` is libtiff's ("wb": big-endian).
std::string WriteTiff(const std::vector<Page>& pages, const char* mode = "w") {
  char path[] = "/tmp/tiff-decoder-test-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return "";
  close(fd);
  TIFF* tif = TIFFOpen(path, mode);
  for (const Page& page : pages) {
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, page.width);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, page.height);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, page.samples);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, page.bits);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, page.photometric);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, page.planar ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    TIFFSetField(tif, TIFFTAG_COMPRESSION, page.compression);
    if (page.compression == COMPRESSION_JPEG) TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
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
    if (!page.icc.empty()) {
      TIFFSetField(tif, TIFFTAG_ICCPROFILE, static_cast<uint32_t>(page.icc.size()), page.icc.data());
    }
    // Samples of one row of pixels [x0, x0 + count), zero outside the page.
    auto row_values = [&](int x0, int count, int y) {
      std::vector<int> values;
      for (int x = x0; x < x0 + count; ++x) {
        for (int s = 0; s < page.samples; ++s) {
          values.push_back(x < page.width && y < page.height ? page.pixel(x, y, s) : 0);
        }
      }
      return values;
    };
    if (page.tiled) {
      const int tile = 16;
      TIFFSetField(tif, TIFFTAG_TILEWIDTH, tile);
      TIFFSetField(tif, TIFFTAG_TILELENGTH, tile);
      for (int ty = 0; ty < page.height; ty += tile) {
        for (int tx = 0; tx < page.width; tx += tile) {
          std::vector<uint8_t> buf;
          for (int y = 0; y < tile; ++y) {
            const std::vector<uint8_t> row = PackRow(row_values(tx, tile, ty + y), page.bits);
            buf.insert(buf.end(), row.begin(), row.end());
          }
          TIFFWriteTile(tif, buf.data(), tx, ty, 0, 0);
        }
      }
    } else if (page.planar) {
      TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, page.rows_per_strip > 0 ? page.rows_per_strip : page.height);
      for (int s = 0; s < page.samples; ++s) {
        for (int y = 0; y < page.height; ++y) {
          std::vector<int> values;
          for (int x = 0; x < page.width; ++x) values.push_back(page.pixel(x, y, s));
          std::vector<uint8_t> row = PackRow(values, page.bits);
          TIFFWriteScanline(tif, row.data(), y, static_cast<uint16_t>(s));
        }
      }
    } else {
      TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, page.rows_per_strip > 0 ? page.rows_per_strip : page.height);
      for (int y = 0; y < page.height; ++y) {
        std::vector<uint8_t> row = PackRow(row_values(0, page.width, y), page.bits);
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

Status Decode(const std::string& bytes, uint32_t cx, image::Bitmap* out) {
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

  image::Bitmap bitmap;
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

// Strip layout is a storage detail: one strip holding every row must decode
// exactly as the same picture cut into many, for every sample layout.
TEST(TiffDecoderTest, OneStripDecodesAsManyStrips) {
  Page rgba;
  rgba.width = 300;
  rgba.height = 200;
  rgba.samples = 4;
  rgba.pixel = [](int x, int y, int s) { return s == 3 ? (x + y) % 256 : (x * (s + 1) + y * 3) % 256; };
  Page gray16 = rgba;
  gray16.samples = 1;
  gray16.bits = 16;
  gray16.photometric = PHOTOMETRIC_MINISBLACK;
  gray16.pixel = [](int x, int y, int) { return (x * 211 + y * 97) % 65536; };
  for (const Page& page : {rgba, gray16}) {
    Page one = page;
    one.rows_per_strip = 0;
    image::Bitmap many_bitmap;
    image::Bitmap one_bitmap;
    ASSERT_TRUE(Decode(WriteTiff({page}), 64, &many_bitmap).ok());
    ASSERT_TRUE(Decode(WriteTiff({one}), 64, &one_bitmap).ok());
    ASSERT_EQ(one_bitmap.width(), 64);
    ASSERT_EQ(one_bitmap.height(), many_bitmap.height());
    EXPECT_EQ(0, std::memcmp(one_bitmap.data(), many_bitmap.data(), one_bitmap.byte_size()));
  }
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
  image::Bitmap bitmap;
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

// A CMYK printer profile that prints cyan ink as pure red and ignores the
// other inks, so a result shows whether the profile was honoured.
int CyanAsRed(const cmsUInt16Number in[], cmsUInt16Number out[], void*) {
  cmsCIELab lab;
  const double ink = in[0] / 65535.0;
  lab.L = 100 - ink * (100 - 53.24);
  lab.a = ink * 80.09;
  lab.b = ink * 67.20;
  cmsFloat2LabEncoded(out, &lab);
  return 1;
}

std::string CyanAsRedCmykProfile() {
  cmsHPROFILE profile = cmsCreateProfilePlaceholder(nullptr);
  cmsSetProfileVersion(profile, 2.1);
  cmsSetDeviceClass(profile, cmsSigOutputClass);
  cmsSetColorSpace(profile, cmsSigCmykData);
  cmsSetPCS(profile, cmsSigLabData);
  cmsPipeline* lut = cmsPipelineAlloc(nullptr, 4, 3);
  cmsStage* clut = cmsStageAllocCLut16bit(nullptr, 9, 4, 3, nullptr);
  cmsStageSampleCLut16bit(clut, CyanAsRed, nullptr, 0);
  cmsPipelineInsertStage(lut, cmsAT_BEGIN, clut);
  cmsWriteTag(profile, cmsSigAToB0Tag, lut);
  cmsWriteTag(profile, cmsSigMediaWhitePointTag, cmsD50_XYZ());
  cmsPipelineFree(lut);
  std::string bytes;
  cmsUInt32Number size = 0;
  if (cmsSaveProfileToMem(profile, nullptr, &size)) {
    bytes.resize(size);
    cmsSaveProfileToMem(profile, &bytes[0], &size);
  }
  cmsCloseProfile(profile);
  return bytes;
}

TEST(TiffDecoderTest, DepthsAndInksBeyondTheRgbaInterface) {
  // 12-bit gray in strips: white left half, a quarter level right half.
  Page gray;
  gray.width = 40;
  gray.height = 20;
  gray.samples = 1;
  gray.bits = 12;
  gray.photometric = PHOTOMETRIC_MINISBLACK;
  gray.pixel = [](int x, int, int) { return x < 20 ? 4095 : 1024; };
  image::Bitmap bitmap;
  Status status = Decode(WriteTiff({gray}), 40, &bitmap);
  ASSERT_TRUE(status.ok()) << status.ToString();
  EXPECT_EQ(bitmap.width(), 40);
  EXPECT_EQ(bitmap.height(), 20);
  ExpectColor(MeanColor(bitmap, 0, 0, 19, 20), 255, 255, 255);
  ExpectColor(MeanColor(bitmap, 21, 0, 40, 20), 64, 64, 64);

  // 12-bit tiled RGB with unassociated alpha, tiles overhanging the edges,
  // turned by its orientation: orange on the left as stored (the top once
  // upright), transparent (white) on the right.
  Page rgba;
  rgba.width = 37;
  rgba.height = 21;
  rgba.samples = 4;
  rgba.bits = 12;
  rgba.tiled = true;
  rgba.orientation = ORIENTATION_RIGHTTOP;
  rgba.pixel = [](int x, int, int s) {
    static const int kOrange[4] = {4095, 2048, 0, 4095};
    return x < 18 ? kOrange[s] : 0;
  };
  status = Decode(WriteTiff({rgba}), 37, &bitmap);
  ASSERT_TRUE(status.ok()) << status.ToString();
  EXPECT_EQ(bitmap.width(), 21);
  EXPECT_EQ(bitmap.height(), 37);
  ExpectColor(MeanColor(bitmap, 0, 0, 21, 17), 255, 128, 0);
  ExpectColor(MeanColor(bitmap, 0, 20, 21, 37), 255, 255, 255);

  // 16-bit CMYK is converted through its embedded profile.
  Page cmyk;
  cmyk.width = cmyk.height = 12;
  cmyk.samples = 4;
  cmyk.bits = 16;
  cmyk.photometric = PHOTOMETRIC_SEPARATED;
  cmyk.icc = CyanAsRedCmykProfile();
  ASSERT_FALSE(cmyk.icc.empty());
  cmyk.pixel = Solid({65535, 0, 0, 0});
  status = Decode(WriteTiff({cmyk}), 12, &bitmap);
  ASSERT_TRUE(status.ok()) << status.ToString();
  ExpectColor(MeanColor(bitmap), 255, 0, 0);

  // Without a profile the same ink is cyan.
  cmyk.icc.clear();
  ASSERT_TRUE(Decode(WriteTiff({cmyk}), 12, &bitmap).ok());
  const Rgb cyan = MeanColor(bitmap);
  EXPECT_LT(cyan.r, 80) << testing::ToString(cyan);
  EXPECT_GT(cyan.b, 180) << testing::ToString(cyan);
}

// Separate planes in strips are read a row of each plane at a time, and
// give what the same samples interleaved give: uncompressed (read straight
// from the file, in either byte order) or compressed, in one strip per
// plane or many.
TEST(TiffDecoderTest, SeparatePlanesReadAsInterleaved) {
  struct Case {
    const char* what;
    int bits, samples, rows_per_strip, compression;
    const char* mode;
  };
  const Case cases[] = {
      {"16-bit RGB, one strip", 16, 3, 0, COMPRESSION_NONE, "w"},
      {"16-bit RGB, one strip, big-endian", 16, 3, 0, COMPRESSION_NONE, "wb"},
      {"16-bit RGBA, LZW strips", 16, 4, 7, COMPRESSION_LZW, "w"},
      {"16-bit RGB, one deflated strip, big-endian", 16, 3, 0, COMPRESSION_ADOBE_DEFLATE, "wb"},
      {"12-bit RGB, strips", 12, 3, 5, COMPRESSION_NONE, "w"},
      {"8-bit RGB, one LZW strip", 8, 3, 0, COMPRESSION_LZW, "w"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Page page;
    page.width = 45;
    page.height = 31;
    page.bits = c.bits;
    page.samples = c.samples;
    page.rows_per_strip = c.rows_per_strip;
    page.compression = c.compression;
    const int max = (1 << c.bits) - 1;
    page.pixel = [max](int x, int y, int s) { return (x * 97 + y * 61 + s * 1013) * 37 % (max + 1); };
    image::Bitmap interleaved;
    Status status = Decode(WriteTiff({page}, c.mode), 30, &interleaved);
    ASSERT_TRUE(status.ok()) << status.ToString();
    page.planar = true;
    const std::string planar = WriteTiff({page}, c.mode);
    image::Bitmap bitmap;
    status = Decode(planar, 30, &bitmap);
    ASSERT_TRUE(status.ok()) << status.ToString();
    testing::ExpectSameBitmap(interleaved, bitmap);
  }
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

  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(tiff, 80, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 80);
  EXPECT_EQ(bitmap.height(), 40);
  ExpectColor(MeanColor(bitmap), 0, 255, 0);  // the reduced copy suffices

  ASSERT_TRUE(Decode(tiff, 300, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 300);
  ExpectColor(MeanColor(bitmap), 255, 0, 0);  // too small: page one itself
}

// One decode serves the run's other sizes that read the same image, each
// byte for byte as its own decode would make it.
TEST(TiffDecoderTest, OneDecodeServesTheSizesOfTheSameImage) {
  const testing::DecoderFactory tiff = [] { return CreateTiffDecoder(); };
  // Turned by its orientation, and smaller than the two largest sizes.
  Page strips;
  strips.width = 300;
  strips.height = 200;
  strips.orientation = ORIENTATION_LEFTBOT;
  strips.pixel = [](int x, int y, int s) { return (x * (s + 3) + y * 7) & 255; };
  EXPECT_EQ(ServedAhead(tiff, WriteTiff({strips}), {60, 120, 320, 900}), (Sizes{120, 320, 900}));

  // Tiles with alpha, turned the other way.
  Page tiles = strips;
  tiles.tiled = true;
  tiles.samples = 4;
  tiles.bits = 16;
  tiles.orientation = ORIENTATION_BOTRIGHT;
  tiles.pixel = [](int x, int y, int s) { return s == 3 ? (x * 331) & 65535 : (x * 97 + y * (s + 1) * 53) & 65535; };
  EXPECT_EQ(ServedAhead(tiff, WriteTiff({tiles}), {250, 90, 400}), (Sizes{90, 400}));

  // JPEG-compressed YCbCr, through libtiff's RGBA interface.
  Page jpeg = strips;
  jpeg.compression = COMPRESSION_JPEG;
  jpeg.photometric = PHOTOMETRIC_YCBCR;
  jpeg.rows_per_strip = 16;
  EXPECT_EQ(ServedAhead(tiff, WriteTiff({jpeg}), {120, 60, 1280}), (Sizes{60, 1280}));

  // A damaged strip: every size shows the same grey below it.
  std::string damaged = WriteTiff({strips});
  damaged.replace(damaged.size() / 2, 64, 64, '\xFF');
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(damaged, 300, &bitmap).ok());
  int grey = 0;
  for (int y = 0; y < bitmap.height(); ++y) {
    for (int x = 0; x < bitmap.width(); ++x) grey += bitmap.row(y)[x * 4] == 128 && bitmap.row(y)[x * 4 + 1] == 128;
  }
  EXPECT_GT(grey, 300 * 200 / 4);
  EXPECT_EQ(ServedAhead(tiff, damaged, {60, 120, 300}), (Sizes{120, 300}));

  // A reduced copy serves the sizes it is large enough for; the page
  // itself the others.
  Page main;
  main.width = 400;
  main.height = 200;
  main.pixel = Solid({255, 0, 0});
  Page reduced = main;
  reduced.width = 100;
  reduced.height = 50;
  reduced.reduced = true;
  reduced.pixel = Solid({0, 255, 0});
  const std::string pyramid = WriteTiff({main, reduced});
  EXPECT_EQ(ServedAhead(tiff, pyramid, {80, 90, 120, 300}), (Sizes{90}));
  EXPECT_EQ(ServedAhead(tiff, pyramid, {300, 90, 120, 80}), (Sizes{120}));
}

TEST(TiffDecoderTest, HostileInputFailsCleanly) {
  Page page;
  page.width = 30;
  page.height = 30;
  page.pixel = [](int x, int y, int) { return (x * 7 + y * 13) & 255; };
  const std::string tiff = WriteTiff({page});
  image::Bitmap bitmap;
  // Truncations of every size must not crash; small ones fail.
  for (size_t n = 0; n < tiff.size(); n += 37) {
    Status status = Decode(tiff.substr(0, n), 30, &bitmap);
    if (n < 16) {
      EXPECT_FALSE(status.ok());
    }
  }
  EXPECT_FALSE(Decode(std::string("II*\0garbagegarbage", 18), 30, &bitmap).ok());

  // The same for tiles unpacked sample by sample.
  Page tiled = page;
  tiled.tiled = true;
  tiled.bits = 12;
  tiled.samples = 4;
  tiled.photometric = PHOTOMETRIC_SEPARATED;
  tiled.pixel = [](int x, int y, int s) { return (x * 97 + y * 31 + s * 1000) & 4095; };
  const std::string tiles = WriteTiff({tiled});
  for (size_t n = 0; n < tiles.size(); n += 29) Decode(tiles.substr(0, n), 30, &bitmap);

  // No photometric tag (libtiff's RGBA interface takes it as grey) and one
  // deflate strip of garbage: nothing can be read, so the decode fails
  // instead of making a picture of the declared size out of nothing.
  std::string unreadable("II*\0", 4);
  AppendLe32(&unreadable, 8);
  const uint32_t entries[][3] = {{256, 4, 64}, {257, 4, 64}, {258, 3, 8}, {259, 3, COMPRESSION_ADOBE_DEFLATE},
                                 {273, 4, 98}, {277, 3, 1},  {279, 4, 32}};
  AppendLe16(&unreadable, 7);
  for (const auto& entry : entries) {
    AppendLe16(&unreadable, entry[0]);
    AppendLe16(&unreadable, entry[1]);
    AppendLe32(&unreadable, 1);
    AppendLe32(&unreadable, entry[2]);  // little-endian: a SHORT value sits in the first two bytes
  }
  AppendLe32(&unreadable, 0);
  unreadable += std::string("\x78\x9c", 2) + std::string(30, '\xab');
  ASSERT_EQ(unreadable.size(), 98u + 32u);
  EXPECT_FALSE(Decode(unreadable, 30, &bitmap).ok());

  // A declared size over the limits is refused before decoding.
  Page big = page;
  big.width = 200000;
  big.height = 1;
  big.pixel = Solid({0, 0, 0});
  Status status = Decode(WriteTiff({big}), 30, &bitmap);
  EXPECT_TRUE(IsImageTooLarge(status)) << status.ToString();
}

}  // namespace
}  // namespace codec
}  // namespace tessera
