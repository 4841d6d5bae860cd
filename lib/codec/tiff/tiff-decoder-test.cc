#include <lcms2.h>
#include <tiffio.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/codec/decoders.h"
#include "lib/codec/image-decoder.h"
#include "lib/codec/testing/bitmap-probe.h"
#include "lib/codec/testing/camera-fixtures.h"
#include "lib/codec/testing/served-ahead.h"
#include "lib/codec/tiff/testing/tiff-fixtures.h"
#include "lib/color/testing/icc-fixtures.h"
#include "lib/utility/testing/byte-writers.h"

namespace tessera {
namespace codec {
namespace {

using ::tessera::testing::AppendLe16;
using ::tessera::testing::AppendLe32;
using testing::MeanColor;
using testing::Rgb;
using testing::ServedAhead;
using testing::Solid;
using testing::WriteTiff;
using Page = testing::TiffPage;
using Sizes = std::vector<uint32_t>;

Status Decode(const std::string& bytes, uint32_t cx, image::Bitmap* out) {
  return testing::DecodeBytes(CreateTiffDecoder(), bytes, cx, out);
}

Page Sized(int width, int height) {
  Page page;
  page.width = width;
  page.height = height;
  return page;
}

void ExpectColor(const Rgb& c, double r, double g, double b) { testing::ExpectColorNear(c, r, g, b, 4); }

TEST(TiffDecoderTest, StripsAreReducedAndTurnedUpright) {
  Page page = Sized(80, 40);
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
  Page rgba = Sized(300, 200);
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
  Page rgba = Sized(40, 36);
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

  Page gray = Sized(10, 10);
  gray.samples = 1;
  gray.bits = 16;
  gray.photometric = PHOTOMETRIC_MINISBLACK;
  gray.pixel = Solid({32768});
  ASSERT_TRUE(Decode(WriteTiff({gray}), 10, &bitmap).ok());
  ExpectColor(MeanColor(bitmap), 128, 128, 128);

  Page palette = Sized(10, 10);
  palette.samples = 1;
  palette.photometric = PHOTOMETRIC_PALETTE;
  palette.colormap.assign(3 * 256, 0);
  palette.colormap[5] = 65535;            // red of entry 5
  palette.colormap[512 + 5] = 65535;      // blue of entry 5
  palette.pixel = Solid({5});
  ASSERT_TRUE(Decode(WriteTiff({palette}), 10, &bitmap).ok());
  ExpectColor(MeanColor(bitmap), 255, 0, 255);

  Page cmyk = Sized(10, 10);
  cmyk.samples = 4;
  cmyk.photometric = PHOTOMETRIC_SEPARATED;
  cmyk.pixel = Solid({0, 0, 255, 0});  // yellow ink
  ASSERT_TRUE(Decode(WriteTiff({cmyk}), 10, &bitmap).ok());
  const Rgb yellow = MeanColor(bitmap);
  EXPECT_GT(yellow.r, 200);
  EXPECT_GT(yellow.g, 200);
  EXPECT_LT(yellow.b, 60);
}

TEST(TiffDecoderTest, DepthsAndInksBeyondTheRgbaInterface) {
  // 12-bit gray in strips: white left half, a quarter level right half.
  Page gray = Sized(40, 20);
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
  Page rgba = Sized(37, 21);
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

  // 16-bit CMYK without a profile: cyan ink is cyan (with one, see
  // CmykGoesThroughItsProfileInEveryLayout).
  Page cmyk = Sized(12, 12);
  cmyk.samples = 4;
  cmyk.bits = 16;
  cmyk.photometric = PHOTOMETRIC_SEPARATED;
  cmyk.pixel = Solid({65535, 0, 0, 0});
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
    Page page = Sized(45, 31);
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

// One decode serves the run's other sizes that read the same image, each
// byte for byte as its own decode would make it.
TEST(TiffDecoderTest, OneDecodeServesTheSizesOfTheSameImage) {
  const testing::DecoderFactory tiff = [] { return CreateTiffDecoder(); };
  // Turned by its orientation, and smaller than the two largest sizes.
  Page strips = Sized(300, 200);
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

  // A gray frame that names its maker: the RAW decoder refuses it for its
  // content alone, which holds for every size.
  Page frame = Sized(300, 200);
  frame.samples = 1;
  frame.bits = 16;
  frame.photometric = PHOTOMETRIC_MINISBLACK;
  frame.compression = COMPRESSION_NONE;
  frame.rows_per_strip = 0;
  frame.make = "FLIR Systems AB";
  frame.pixel = [](int x, int y, int) { return 7534 + (x + y) % 478; };
  EXPECT_EQ(ServedAhead(tiff, WriteTiff({frame}), {60, 120, 320}), (Sizes{120, 320}));

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

  // Page one, or its reduced copy for the sizes the copy is large enough
  // for; never the second page. Each has a colour of its own.
  Page main = Sized(400, 200);
  main.pixel = Solid({255, 0, 0});
  Page reduced = main;
  reduced.width = 100;
  reduced.height = 50;
  reduced.reduced = true;
  reduced.pixel = Solid({0, 255, 0});
  Page second = main;
  second.pixel = Solid({0, 0, 255});
  const std::string pyramid = WriteTiff({main, reduced, second});
  ASSERT_TRUE(Decode(pyramid, 80, &bitmap).ok());
  EXPECT_EQ(bitmap.height(), 40);
  ExpectColor(MeanColor(bitmap), 0, 255, 0);
  ASSERT_TRUE(Decode(pyramid, 300, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 300);
  ExpectColor(MeanColor(bitmap), 255, 0, 0);
  EXPECT_EQ(ServedAhead(tiff, pyramid, {80, 90, 120, 300}), (Sizes{90}));
  EXPECT_EQ(ServedAhead(tiff, pyramid, {300, 90, 120, 80}), (Sizes{120}));
}

// Integer samples are sRGB levels as stored unless the file declares
// otherwise: a range of values, the light of each value (a transfer
// function) or a gray ICC profile. A thermal camera's frame, a narrow band
// of 16-bit values, is such a gray picture whether or not it names its
// maker, and no sensor mosaic to develop.
TEST(TiffDecoderTest, GraySamplesMeanWhatTheFileDeclares) {
  // 7534 on the left to 8011 on the right: 30 of 255 on average.
  const auto band = [](int x, int, int) { return 7534 + x * 477 / 95; };
  const auto declare_band = [](TIFF* tif) {
    TIFFSetField(tif, TIFFTAG_SMINSAMPLEVALUE, 7534.0);
    TIFFSetField(tif, TIFFTAG_SMAXSAMPLEVALUE, 8011.0);
  };
  std::vector<uint16_t> linear(256);
  for (int v = 0; v < 256; ++v) linear[v] = static_cast<uint16_t>(v * 257);
  const auto declare_linear = [&linear](TIFF* tif) { TIFFSetField(tif, TIFFTAG_TRANSFERFUNCTION, linear.data()); };
  struct Case {
    const char* what;
    int bits;
    int photometric;
    std::string make;
    std::function<void(TIFF*)> tags;
    std::string icc;
    std::function<double(int, int, int)> pixel;
    double expected;
  };
  const Case cases[] = {
      {"thermal frame", 16, PHOTOMETRIC_MINISBLACK, "FLIR Systems AB", nullptr, "", band, 30.2},
      {"thermal frame, no maker", 16, PHOTOMETRIC_MINISBLACK, "", nullptr, "", band, 30.2},
      {"declared range", 16, PHOTOMETRIC_MINISBLACK, "FLIR Systems AB", declare_band, "", band, 127.5},
      {"linear light by transfer function", 8, PHOTOMETRIC_MINISBLACK, "", declare_linear, "", Solid({128}), 188},
      {"linear gray profile", 8, PHOTOMETRIC_MINISBLACK, "", nullptr, color::testing::GrayGammaProfile(1.0),
       Solid({128}), 188},
      {"linear gray profile, 16 bits", 16, PHOTOMETRIC_MINISBLACK, "", nullptr,
       color::testing::GrayGammaProfile(1.0), Solid({32896}), 188},
      {"min is white, declared range", 16, PHOTOMETRIC_MINISWHITE, "", declare_band, "", band, 127.5},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    // Uncompressed in one strip, as the cameras write them.
    Page page = Sized(96, 64);
    page.samples = 1;
    page.bits = c.bits;
    page.compression = COMPRESSION_NONE;
    page.rows_per_strip = 0;
    page.photometric = c.photometric;
    page.make = c.make;
    page.more_tags = c.tags;
    page.icc = c.icc;
    page.pixel = c.pixel;
    image::Bitmap bitmap;
    const Status status = Decode(WriteTiff({page}), 96, &bitmap);
    ASSERT_TRUE(status.ok()) << status.ToString();
    EXPECT_EQ(bitmap.width(), 96);
    ExpectColor(MeanColor(bitmap), c.expected, c.expected, c.expected);
  }
}

// CMYK goes through its embedded profile (a press profile like FOGRA39,
// where magenta and yellow print as (237, 28, 36)) however it is stored,
// JPEG-coded and in planes of tiles included.
TEST(TiffDecoderTest, CmykGoesThroughItsProfileInEveryLayout) {
  struct Case {
    const char* what;
    int compression;
    bool tiled, planar;
    int bits, samples;
  };
  const Case cases[] = {
      {"LZW strips", COMPRESSION_LZW, false, false, 8, 4},
      {"JPEG strips", COMPRESSION_JPEG, false, false, 8, 4},
      {"JPEG tiles", COMPRESSION_JPEG, true, false, 8, 4},
      {"planes of tiles", COMPRESSION_LZW, true, true, 8, 4},
      {"16-bit strips", COMPRESSION_NONE, false, false, 16, 4},
      {"16-bit planes of strips", COMPRESSION_NONE, false, true, 16, 4},
      {"with alpha", COMPRESSION_ADOBE_DEFLATE, false, false, 8, 5},
  };
  const std::string press = color::testing::PressCmykProfile();
  ASSERT_FALSE(press.empty());
  const int(&overprint)[3] = color::testing::kPressOverprints[3];  // M + Y
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Page page = Sized(48, 32);
    page.samples = c.samples;
    page.bits = c.bits;
    page.photometric = PHOTOMETRIC_SEPARATED;
    page.compression = c.compression;
    page.rows_per_strip = 16;
    page.tiled = c.tiled;
    page.planar = c.planar;
    page.icc = press;
    const int full = (1 << c.bits) - 1;
    page.pixel = [full](int, int, int s) { return s == 1 || s == 2 || s == 4 ? full : 0; };
    image::Bitmap bitmap;
    const Status status = Decode(WriteTiff({page}), 48, &bitmap);
    ASSERT_TRUE(status.ok()) << status.ToString();
    ExpectColor(MeanColor(bitmap), overprint[0], overprint[1], overprint[2]);
  }
}

// CIE L*a*b* becomes sRGB with white staying white (D50 adapted to sRGB's
// D65), whatever the encoding: CIELab's signed a* and b*, ICCLab's offset
// ones (16-bit L* 100 at 65280), ITULab's ranges; in 8 and 16 bits.
TEST(TiffDecoderTest, LabBecomesSrgbInEachEncoding) {
  const double grey[3] = {50, 0, 0};
  const double violet[3] = {60, 40, -30};
  // What lcms2 makes of them from floating-point Lab.
  uint8_t expected_violet[3];
  {
    cmsHPROFILE lab = cmsCreateLab4Profile(nullptr);
    cmsHPROFILE srgb = cmsCreate_sRGBProfile();
    cmsHTRANSFORM transform =
        cmsCreateTransform(lab, TYPE_Lab_DBL, srgb, TYPE_RGB_8, INTENT_RELATIVE_COLORIMETRIC, 0);
    cmsDoTransform(transform, violet, expected_violet, 1);
    cmsDeleteTransform(transform);
    cmsCloseProfile(lab);
    cmsCloseProfile(srgb);
  }
  using Encode = std::function<double(double value, int sample)>;
  struct Case {
    const char* what;
    int photometric, bits;
    bool planar;
    Encode encode;
  };
  const Case cases[] = {
      {"CIELab, 8 bits", PHOTOMETRIC_CIELAB, 8, false,
       [](double v, int s) { return s == 0 ? v * 255 / 100 : static_cast<uint8_t>(static_cast<int8_t>(v)); }},
      {"CIELab, 16 bits", PHOTOMETRIC_CIELAB, 16, false,
       [](double v, int s) {
         return s == 0 ? v * 65535 / 100 : static_cast<uint16_t>(static_cast<int16_t>(v * 256));
       }},
      {"ICCLab, 8 bits", PHOTOMETRIC_ICCLAB, 8, false,
       [](double v, int s) { return s == 0 ? v * 255 / 100 : v + 128; }},
      {"ICCLab, 16 bits, planes", PHOTOMETRIC_ICCLAB, 16, true,
       [](double v, int s) { return s == 0 ? v * 65280 / 100 : (v + 128) * 256; }},
      {"ITULab, 8 bits", PHOTOMETRIC_ITULAB, 8, false,
       [](double v, int s) {
         return s == 0 ? v * 255 / 100 : s == 1 ? (v + 85) * 255 / 170 : (v + 75) * 255 / 200;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Page page = Sized(32, 16);
    page.bits = c.bits;
    page.photometric = c.photometric;
    page.planar = c.planar;
    const Encode encode = c.encode;
    page.pixel = [&](int x, int, int s) { return std::round(encode((x < 16 ? grey : violet)[s], s)); };
    image::Bitmap bitmap;
    const Status status = Decode(WriteTiff({page}), 32, &bitmap);
    ASSERT_TRUE(status.ok()) << status.ToString();
    ExpectColor(MeanColor(bitmap, 0, 0, 14, 16), 119, 119, 119);
    ExpectColor(MeanColor(bitmap, 18, 0, 32, 16), expected_violet[0], expected_violet[1], expected_violet[2]);
  }
}

// Floating-point samples are linear light, clamped to 0..1 (or to the
// range the file declares) and encoded as sRGB: 0.214 shows as 128, 0.5
// as 188.
TEST(TiffDecoderTest, FloatingPointSamplesAreLinearLight) {
  struct Case {
    const char* what;
    int bits, samples;
    bool planar, tiled;
    int compression;
    const char* mode;
    double range;  // declared maximum, 0 for none
  };
  const Case cases[] = {
      {"32-bit RGB", 32, 3, false, false, COMPRESSION_LZW, "w", 0},
      {"16-bit RGB tiles", 16, 3, false, true, COMPRESSION_ADOBE_DEFLATE, "w", 0},
      {"64-bit gray", 64, 1, false, false, COMPRESSION_NONE, "w", 0},
      {"32-bit RGB planes, big-endian", 32, 3, true, false, COMPRESSION_NONE, "wb", 0},
      {"32-bit RGBA", 32, 4, false, false, COMPRESSION_LZW, "w", 0},
      {"32-bit RGB of a declared range 0..4", 32, 3, false, false, COMPRESSION_LZW, "w", 4},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Page page = Sized(32, 16);
    page.bits = c.bits;
    page.samples = c.samples;
    page.sample_format = SAMPLEFORMAT_IEEEFP;
    page.photometric = c.samples == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB;
    page.planar = c.planar;
    page.tiled = c.tiled;
    page.compression = c.compression;
    const double scale = c.range > 0 ? c.range : 1;
    if (c.range > 0) {
      page.more_tags = [&c](TIFF* tif) {
        TIFFSetField(tif, TIFFTAG_SMINSAMPLEVALUE, 0.0);
        TIFFSetField(tif, TIFFTAG_SMAXSAMPLEVALUE, c.range);
      };
    }
    // Left: grey of 0.214. Right: red over the top, green 0.5, blue below
    // zero (gray: 0.5).
    page.pixel = [scale, &c](int x, int, int s) {
      static const double kRight[3] = {1.5, 0.5, -0.2};
      if (s == 3) return 1.0;
      return scale * (x < 16 ? 0.214 : c.samples == 1 ? 0.5 : kRight[s]);
    };
    image::Bitmap bitmap;
    const Status status = Decode(WriteTiff({page}, c.mode), 32, &bitmap);
    ASSERT_TRUE(status.ok()) << status.ToString();
    ExpectColor(MeanColor(bitmap, 0, 0, 14, 16), 128, 128, 128);
    if (c.samples == 1) {
      ExpectColor(MeanColor(bitmap, 18, 0, 32, 16), 188, 188, 188);
    } else {
      ExpectColor(MeanColor(bitmap, 18, 0, 32, 16), 255, 188, 0);
    }
  }
}

// A page whose data cannot be read is served by a smaller copy of it for
// the sizes the copy is large enough for (a longer side of two thirds of
// the request, as for camera RAW previews), and by nothing for the others:
// a reduced copy, or in a scanner's or camera's file the preview that
// follows the page unmarked (Nikon Scan's NEF).
TEST(TiffDecoderTest, UnreadablePageIsServedByASmallerCopy) {
  const std::string garbage(600, '\x5a');
  Page main = Sized(400, 200);
  main.compression = COMPRESSION_ADOBE_DEFLATE;
  main.pixel = nullptr;
  main.more_tags = [&garbage](TIFF* tif) {
    TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, 200);
    TIFFWriteRawStrip(tif, 0, const_cast<char*>(garbage.data()), static_cast<tmsize_t>(garbage.size()));
  };
  Page reduced = Sized(100, 50);
  reduced.reduced = true;
  reduced.pixel = Solid({0, 255, 0});
  const std::string tiff = WriteTiff({main, reduced});
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(tiff, 150, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 100);
  EXPECT_EQ(bitmap.height(), 50);
  ExpectColor(MeanColor(bitmap), 0, 255, 0);
  EXPECT_FALSE(Decode(tiff, 160, &bitmap).ok());
  EXPECT_FALSE(Decode(WriteTiff({main}), 150, &bitmap).ok());

  // A film scan cut short: its 320x218 preview serves the smallest size of
  // the tool (cx 360), not the next (720).
  const uint8_t preview_rgb[3] = {30, 160, 90};
  const std::string nef = testing::NikonScanNef(480, 327, 320, 218, preview_rgb, false);
  ASSERT_FALSE(nef.empty());
  ASSERT_TRUE(Decode(nef, 360, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 320);
  EXPECT_EQ(bitmap.height(), 218);
  ExpectColor(MeanColor(bitmap), 30, 160, 90);
  EXPECT_FALSE(Decode(nef, 720, &bitmap).ok());
  // With its scan, the scan shows.
  ASSERT_TRUE(Decode(testing::NikonScanNef(480, 327, 320, 218, preview_rgb, true), 720, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 480);
  EXPECT_GT(std::fabs(MeanColor(bitmap).g - 160), 20);
}

TEST(TiffDecoderTest, HostileInputFailsCleanly) {
  Page page = Sized(30, 30);
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

  // And for planes of tiles, floats and Lab.
  Page planes = tiled;
  planes.planar = true;
  planes.compression = COMPRESSION_JPEG;
  planes.bits = 8;
  Page floats = page;
  floats.bits = 16;
  floats.sample_format = SAMPLEFORMAT_IEEEFP;
  floats.planar = true;
  floats.tiled = true;
  floats.pixel = [](int x, int y, int s) { return (x * 7 + y * 13 + s) / 300.0; };
  Page lab = page;
  lab.photometric = PHOTOMETRIC_CIELAB;
  lab.bits = 16;
  for (const Page& layout : {planes, floats, lab}) {
    const std::string bytes = WriteTiff({layout});
    ASSERT_TRUE(Decode(bytes, 30, &bitmap).ok());
    for (size_t n = 0; n < bytes.size(); n += 31) Decode(bytes.substr(0, n), 30, &bitmap);
  }
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
