#include <string>

#include "gtest/gtest.h"
#include "lib/codec/decoders.h"
#include "lib/codec/image-decoder.h"
#include "lib/codec/testing/bitmap-probe.h"
#include "lib/codec/testing/image-fixtures.h"
#include "lib/codec/testing/served-ahead.h"
#include "lib/color/testing/icc-fixtures.h"

namespace tessera {
namespace codec {
namespace {

using testing::EncodePng;
using testing::MeanColor;
using testing::PngImage;
using testing::Rgb;

Status DecodeBytes(const std::string& bytes, uint32_t cx, image::Bitmap* out) {
  return testing::DecodeBytes(CreatePngDecoder(), bytes, cx, out);
}

// RGBA 8-bit: the left half opaque red, the right half fully transparent
// black (which must come out white, not black).
PngImage HalfTransparent(uint32_t width, uint32_t height, bool interlaced) {
  PngImage image;
  image.width = width;
  image.height = height;
  image.interlaced = interlaced;
  for (uint32_t y = 0; y < height; ++y) {
    for (uint32_t x = 0; x < width; ++x) {
      const bool left = x < width / 2;
      const uint8_t px[4] = {static_cast<uint8_t>(left ? 255 : 0), 0, 0,
                             static_cast<uint8_t>(left ? 255 : 0)};
      image.samples.insert(image.samples.end(), px, px + 4);
    }
  }
  return image;
}

TEST(PngDecoderTest, TransparencyIsFlattenedOverWhite) {
  for (bool interlaced : {false, true}) {
    SCOPED_TRACE(interlaced ? "interlaced" : "plain");
    const std::string png = EncodePng(HalfTransparent(80, 40, interlaced));
    ASSERT_FALSE(png.empty());
    image::Bitmap bitmap;
    ASSERT_TRUE(DecodeBytes(png, 40, &bitmap).ok());
    ASSERT_EQ(bitmap.width(), 40);
    ASSERT_EQ(bitmap.height(), 20);
    const Rgb left = MeanColor(bitmap, 0, 0, 19, 20);
    const Rgb right = MeanColor(bitmap, 21, 0, 40, 20);
    EXPECT_GT(left.r, 250) << ToString(left);
    EXPECT_LT(left.g, 5) << ToString(left);
    EXPECT_GT(right.r, 250) << ToString(right);
    EXPECT_GT(right.g, 250) << ToString(right);
    EXPECT_EQ(bitmap.row(10)[30 * 4 + 3], 255);
  }
}

TEST(PngDecoderTest, SixteenBitGrayAndPaletteWithTransparency) {
  // 16-bit RGB, big-endian samples: 0x8080 is 128 in 8 bits.
  PngImage deep;
  deep.width = deep.height = 8;
  deep.color_type = 2;
  deep.bit_depth = 16;
  for (int i = 0; i < 64; ++i) {
    const uint8_t px[6] = {0xC0, 0x00, 0x80, 0x80, 0x20, 0xFF};
    deep.samples.insert(deep.samples.end(), px, px + 6);
  }
  image::Bitmap bitmap;
  ASSERT_TRUE(DecodeBytes(EncodePng(deep), 8, &bitmap).ok());
  Rgb mean = MeanColor(bitmap);
  EXPECT_NEAR(mean.r, 192, 1);
  EXPECT_NEAR(mean.g, 128, 1);
  EXPECT_NEAR(mean.b, 32, 1);

  // 2-bit gray: samples 0, 1, 2, 3 -> 0, 85, 170, 255.
  PngImage gray;
  gray.width = 4;
  gray.height = 1;
  gray.color_type = 0;
  gray.bit_depth = 2;
  gray.samples = {0x1B};
  ASSERT_TRUE(DecodeBytes(EncodePng(gray), 4, &bitmap).ok());
  EXPECT_EQ(bitmap.row(0)[1 * 4 + 1], 85);
  EXPECT_EQ(bitmap.row(0)[3 * 4 + 1], 255);

  // 4-bit palette: entry 0 green and opaque, entry 1 blue and transparent.
  PngImage palette;
  palette.width = 2;
  palette.height = 2;
  palette.color_type = 3;
  palette.bit_depth = 4;
  palette.palette_rgb = {0, 200, 0, 0, 0, 255};
  palette.trns = {255, 0};
  palette.samples = {0x01, 0x01};
  ASSERT_TRUE(DecodeBytes(EncodePng(palette), 2, &bitmap).ok());
  const uint8_t* row = bitmap.row(1);
  EXPECT_EQ(row[0], 0);    // B of green
  EXPECT_EQ(row[1], 200);  // G of green
  EXPECT_EQ(row[4], 255);  // transparent blue became white
  EXPECT_EQ(row[5], 255);
  EXPECT_EQ(row[6], 255);
}

TEST(PngDecoderTest, EmbeddedProfileIsApplied) {
  PngImage image;
  image.width = image.height = 4;
  image.color_type = 2;
  image.icc = color::testing::DisplayP3Profile();
  for (int i = 0; i < 16; ++i) {
    const uint8_t px[3] = {200, 90, 70};
    image.samples.insert(image.samples.end(), px, px + 3);
  }
  image::Bitmap bitmap;
  ASSERT_TRUE(DecodeBytes(EncodePng(image), 4, &bitmap).ok());
  EXPECT_GT(MeanColor(bitmap).r, 200 + 8);
}

TEST(PngDecoderTest, DecompressionBombFailsBeforeAllocating) {
  image::Bitmap bitmap;
  Status status = DecodeBytes(testing::PngDeclaring(50000, 50000), 360, &bitmap);
  EXPECT_TRUE(IsImageTooLarge(status)) << status.ToString();
  status = DecodeBytes(testing::PngDeclaring(1u << 20, 4), 360, &bitmap);
  EXPECT_FALSE(status.ok());
  EXPECT_TRUE(bitmap.empty());
}

TEST(PngDecoderTest, TruncatedAndCorruptStreams) {
  // Opaque red on top, noise below, so that the image data dominates the file.
  PngImage image;
  image.width = image.height = 64;
  image.color_type = 2;
  image.idat_size = 1024;
  uint32_t seed = 1;
  for (int i = 0; i < 64 * 64; ++i) {
    seed = seed * 1664525u + 1013904223u;
    const bool top = i < 64 * 8;
    const uint8_t px[3] = {static_cast<uint8_t>(top ? 220 : seed >> 24),
                           static_cast<uint8_t>(top ? 0 : seed >> 16),
                           static_cast<uint8_t>(top ? 0 : seed >> 8)};
    image.samples.insert(image.samples.end(), px, px + 3);
  }
  std::string png = EncodePng(image);
  image::Bitmap bitmap;
  // Header only: nothing to show.
  EXPECT_FALSE(DecodeBytes(png.substr(0, 40), 64, &bitmap).ok());
  EXPECT_FALSE(DecodeBytes(std::string("\x89PNG\r\n\x1A\n", 8), 64, &bitmap).ok());
  EXPECT_TRUE(bitmap.empty());
  // Rows already decoded survive the loss of the rest.
  png.resize(png.size() / 2);
  Status status = DecodeBytes(png, 64, &bitmap);
  ASSERT_TRUE(status.ok()) << status.ToString();
  EXPECT_EQ(bitmap.width(), 64);
  EXPECT_GT(MeanColor(bitmap, 0, 0, 64, 6).r, 200);
}

// One decode serves every size the run anticipates, each byte for byte as
// its own decode would make it.
TEST(PngDecoderTest, OneDecodeServesTheOtherSizes) {
  using Sizes = std::vector<uint32_t>;
  const testing::DecoderFactory png = [] { return CreatePngDecoder(); };
  // Translucent noise under a profile, smaller than the two largest sizes.
  PngImage image;
  image.width = 300;
  image.height = 200;
  image.icc = color::testing::DisplayP3Profile();
  image.idat_size = 4096;
  uint32_t seed = 7;
  for (uint32_t i = 0; i < image.width * image.height * 4; ++i) {
    seed = seed * 1664525u + 1013904223u;
    image.samples.push_back(static_cast<uint8_t>(seed >> 24));
  }
  EXPECT_EQ(testing::ServedAhead(png, EncodePng(image), {60, 120, 320, 900}), (Sizes{120, 320, 900}));
  image.interlaced = true;
  EXPECT_EQ(testing::ServedAhead(png, EncodePng(image), {250, 90, 400}), (Sizes{90, 400}));

  // Cut short: every size shows the same grey below the rows that arrived.
  // Cut in the header, no size is served.
  image.interlaced = false;
  std::string cut = EncodePng(image);
  cut.resize(cut.size() / 2);
  image::Bitmap bitmap;
  ASSERT_TRUE(DecodeBytes(cut, 300, &bitmap).ok());
  EXPECT_EQ(bitmap.row(199)[0], 128);
  EXPECT_EQ(testing::ServedAhead(png, cut, {60, 120, 300}), (Sizes{120, 300}));
  EXPECT_EQ(testing::ServedAhead(png, cut.substr(0, 40), {60, 120, 300}), Sizes{});
}

}  // namespace
}  // namespace codec
}  // namespace tessera
