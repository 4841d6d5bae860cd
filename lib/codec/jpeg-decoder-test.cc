#include <lcms2.h>

#include <memory>
#include <string>

#include "gtest/gtest.h"
#include "lib/codec/decoders.h"
#include "lib/codec/image-decoder.h"
#include "lib/codec/testing/bitmap-probe.h"
#include "lib/codec/testing/image-fixtures.h"
#include "lib/codec/testing/served-ahead.h"
#include "lib/color/testing/icc-fixtures.h"
#include "lib/image/area-resample.h"

namespace tessera {
namespace codec {
namespace {

using testing::EncodeCmykJpeg;
using testing::EncodeJpeg;
using testing::JpegOptions;
using testing::MeanColor;
using testing::Rgb;
using testing::RgbImage;

Status DecodeBytes(const std::string& bytes, uint32_t cx, image::Bitmap* out) {
  return testing::DecodeBytes(CreateJpegDecoder(), bytes, cx, out);
}

// The decoder reads the EXIF orientation and turns the picture by it (each
// orientation's turn is lib/image's to test). Upright, the picture is 64x48,
// white with a red square top left and a blue one top right; a camera held
// for orientation 6 stores it a quarter turn counter-clockwise, 48x64.
TEST(JpegDecoderTest, ExifOrientationIsApplied) {
  RgbImage stored(48, 64);
  stored.Fill(0, 48, 16, 64, 255, 0, 0);
  stored.Fill(0, 0, 16, 16, 0, 0, 255);
  JpegOptions options;
  options.exif_orientation = 6;
  image::Bitmap bitmap;
  ASSERT_TRUE(DecodeBytes(EncodeJpeg(stored, options), 64, &bitmap).ok());
  ASSERT_EQ(bitmap.width(), 64);
  ASSERT_EQ(bitmap.height(), 48);
  const Rgb top_left = MeanColor(bitmap, 4, 4, 12, 12);
  const Rgb top_right = MeanColor(bitmap, 52, 4, 60, 12);
  const Rgb bottom = MeanColor(bitmap, 4, 36, 60, 44);
  EXPECT_GT(top_left.r, 200) << ToString(top_left);
  EXPECT_LT(top_left.b, 60) << ToString(top_left);
  EXPECT_GT(top_right.b, 200) << ToString(top_right);
  EXPECT_LT(top_right.r, 60) << ToString(top_right);
  EXPECT_GT(bottom.g, 240) << ToString(bottom);
}

// The scale a lone request of cx decodes at: one that still covers the
// result that fits cx.
int JpegScaleDenominator(uint32_t width, uint32_t height, uint32_t cx) {
  int need_width = 0;
  int need_height = 0;
  image::FitWithin(static_cast<int>(width), static_cast<int>(height), cx, &need_width, &need_height);
  return codec::JpegScaleDenominator(width, height, need_width, need_height);
}

TEST(JpegDecoderTest, ShrinksOnLoadButNeverBelowTheRequestedSize) {
  EXPECT_EQ(JpegScaleDenominator(6000, 4000, 360), 8);   // 750 >= 360
  EXPECT_EQ(JpegScaleDenominator(4000, 6000, 960), 4);   // 1500 >= 960 > 750
  EXPECT_EQ(JpegScaleDenominator(6000, 4000, 1600), 2);  // 3000
  EXPECT_EQ(JpegScaleDenominator(6000, 4000, 3840), 1);
  // Scaled sides round up: ceil(100 / 8) = 13.
  EXPECT_EQ(JpegScaleDenominator(100, 50, 13), 8);
  EXPECT_EQ(JpegScaleDenominator(100, 50, 14), 4);
  EXPECT_EQ(JpegScaleDenominator(10, 10, 1000), 1);

  // The decoded result has the requested longer side, whatever the scale.
  RgbImage image(403, 300, 30, 160, 90);
  for (uint32_t cx : {50u, 120u, 250u, 403u, 1000u}) {
    image::Bitmap bitmap;
    ASSERT_TRUE(DecodeBytes(EncodeJpeg(image), cx, &bitmap).ok());
    EXPECT_EQ(bitmap.width(), static_cast<int>(cx < 403 ? cx : 403)) << cx;
    const Rgb mean = MeanColor(bitmap);
    EXPECT_NEAR(mean.g, 160, 4) << cx;
  }
}

TEST(JpegDecoderTest, CmykWithAndWithoutAdobeInversion) {
  const uint8_t cyan[4] = {255, 0, 0, 0};
  const uint8_t dark_red[4] = {0, 255, 255, 128};
  for (bool adobe : {false, true}) {
    SCOPED_TRACE(adobe ? "adobe" : "plain");
    image::Bitmap bitmap;
    ASSERT_TRUE(DecodeBytes(EncodeCmykJpeg(32, 24, cyan, adobe), 32, &bitmap).ok());
    Rgb mean = MeanColor(bitmap);
    EXPECT_LT(mean.r, 90) << ToString(mean);
    EXPECT_GT(mean.g, 120) << ToString(mean);
    EXPECT_GT(mean.b, 180) << ToString(mean);

    ASSERT_TRUE(DecodeBytes(EncodeCmykJpeg(32, 24, dark_red, adobe), 32, &bitmap).ok());
    mean = MeanColor(bitmap);
    EXPECT_GT(mean.r, 60) << ToString(mean);
    EXPECT_LT(mean.r, 200) << ToString(mean);
    EXPECT_LT(mean.g, 50) << ToString(mean);
    EXPECT_LT(mean.b, 50) << ToString(mean);
  }
}

TEST(JpegDecoderTest, EmbeddedProfileIsConvertedToSrgb) {
  const std::string p3 = color::testing::DisplayP3Profile();
  ASSERT_FALSE(p3.empty());
  const uint8_t input[3] = {200, 90, 70};
  // What the colour should become in sRGB.
  cmsHPROFILE in = cmsOpenProfileFromMem(p3.data(), static_cast<cmsUInt32Number>(p3.size()));
  cmsHPROFILE srgb = cmsCreate_sRGBProfile();
  cmsHTRANSFORM transform =
      cmsCreateTransform(in, TYPE_RGB_8, srgb, TYPE_RGB_8, INTENT_RELATIVE_COLORIMETRIC, 0);
  uint8_t expected[3];
  cmsDoTransform(transform, input, expected, 1);
  cmsDeleteTransform(transform);
  cmsCloseProfile(in);
  cmsCloseProfile(srgb);
  ASSERT_GT(expected[0], input[0] + 8);  // P3 red is redder than sRGB can say

  JpegOptions options;
  options.icc = p3;
  image::Bitmap bitmap;
  ASSERT_TRUE(
      DecodeBytes(EncodeJpeg(RgbImage(40, 30, input[0], input[1], input[2]), options), 40, &bitmap)
          .ok());
  const Rgb mean = MeanColor(bitmap);
  EXPECT_NEAR(mean.r, expected[0], 3) << ToString(mean);
  EXPECT_NEAR(mean.g, expected[1], 3) << ToString(mean);
  EXPECT_NEAR(mean.b, expected[2], 3) << ToString(mean);
}

// A file cut short, here one that declares far more rows than its data
// holds: the rows with data come out, everything below is grey, for either
// kind of scan.
TEST(JpegDecoderTest, DataEndingEarlyInATallFileLeavesTheRestGrey) {
  // Red on top, green-dominant noise below, so that the data is large.
  RgbImage image(512, 512, 220, 20, 20);
  uint32_t seed = 7;
  for (int y = 64; y < 512; ++y) {
    for (int x = 0; x < 512; ++x) {
      seed = seed * 1664525u + 1013904223u;
      image.Fill(x, y, x + 1, y + 1, (seed >> 26), 192 + (seed >> 10) % 64, (seed >> 18) % 64);
    }
  }
  for (bool progressive : {false, true}) {
    SCOPED_TRACE(progressive ? "progressive" : "baseline");
    JpegOptions options;
    options.progressive = progressive;
    std::string bytes = EncodeJpeg(image, options);
    const size_t sof = bytes.find(progressive ? "\xFF\xC2" : "\xFF\xC0", 0, 2);
    ASSERT_NE(sof, std::string::npos);
    bytes.replace(sof + 5, 2, "\x20\x00", 2);  // 8192 rows instead of 512
    bytes.resize(bytes.size() * 6 / 10);

    image::Bitmap bitmap;
    Status status = DecodeBytes(bytes, 512, &bitmap);
    ASSERT_TRUE(status.ok()) << status.ToString();
    ASSERT_EQ(bitmap.width(), 32);
    ASSERT_EQ(bitmap.height(), 512);
    // Source rows 0-63 and 64-255 (data), then from row 4096 on (none).
    const Rgb top = MeanColor(bitmap, 0, 0, 32, 3);
    EXPECT_GT(top.r, 150) << ToString(top);
    const Rgb data = MeanColor(bitmap, 0, 5, 32, 15);
    EXPECT_GT(data.g, data.r + 80) << ToString(data);
    const Rgb rest = MeanColor(bitmap, 0, 256, 32, 512);
    EXPECT_NEAR(rest.r, 128, 3) << ToString(rest);
    EXPECT_NEAR(rest.g, 128, 3) << ToString(rest);
    EXPECT_NEAR(rest.b, 128, 3) << ToString(rest);
  }
}

TEST(JpegDecoderTest, RefusesGarbageAndAbsurdSizesCleanly) {
  image::Bitmap bitmap;
  EXPECT_FALSE(DecodeBytes(std::string("\xFF\xD8\xFF\xE0garbage", 11), 100, &bitmap).ok());
  EXPECT_FALSE(DecodeBytes(std::string("\xFF\xD8\xFF", 3), 100, &bitmap).ok());

  // A frame header declaring 60000 x 60000 (over the pixel budget) with no data.
  std::string bytes = EncodeJpeg(RgbImage(16, 16));
  const size_t sof = bytes.find("\xFF\xC0", 0, 2);
  ASSERT_NE(sof, std::string::npos);
  bytes.replace(sof + 5, 4, "\xEA\x60\xEA\x60", 4);
  Status status = DecodeBytes(bytes, 100, &bitmap);
  EXPECT_TRUE(IsImageTooLarge(status)) << status.ToString();
  EXPECT_TRUE(bitmap.empty());
}

// A progressive file is read up to a bound on its scans and shown as those
// scans make it, never refused for having too many.
TEST(JpegDecoderTest, ScansBeyondTheBoundAreLeftUnread) {
  image::Bitmap bitmap;
  ASSERT_TRUE(DecodeBytes(testing::ManyScanJpeg(64, 700), 64, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 64);
  const Rgb mean = MeanColor(bitmap);
  EXPECT_NEAR(mean.r, 128, 1);
}

// One decode at the scale of the run's largest request serves every size:
// the later requests read nothing, and each result is what a fresh decoder
// told the same run makes of the file. Baseline and progressive files,
// turned by EXIF, with a colour profile converted after the reduction.
TEST(JpegDecoderTest, OneDecodeAtTheLargestScaleServesTheWholeRun) {
  RgbImage image(2400, 1600);
  for (int y = 0; y < image.height; y += 9) {
    for (int x = 0; x < image.width; x += 11) {
      image.Fill(x, y, x + 5, y + 4, static_cast<uint8_t>(x), static_cast<uint8_t>(y), static_cast<uint8_t>(x + y));
    }
  }
  JpegOptions baseline;
  baseline.exif_orientation = 8;
  JpegOptions progressive = baseline;
  progressive.progressive = true;
  progressive.icc = color::testing::DisplayP3Profile();
  const std::vector<uint32_t> run = {360, 720, 960, 3840};
  for (const JpegOptions& options : {baseline, progressive}) {
    SCOPED_TRACE(options.progressive ? "progressive" : "baseline");
    EXPECT_EQ(testing::ServedAhead(CreateJpegDecoder, EncodeJpeg(image, options), run, true),
              (std::vector<uint32_t>{720, 960, 3840}));
  }
  // A decoder that does not know the run shrinks on load for its own cx.
  image::Bitmap alone;
  ASSERT_TRUE(DecodeBytes(EncodeJpeg(image, baseline), 360, &alone).ok());
  EXPECT_EQ(alone.height(), 360);
}

}  // namespace
}  // namespace codec
}  // namespace tessera
