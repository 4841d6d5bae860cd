#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/codec/decoders.h"
#include "lib/codec/testing/bitmap-probe.h"
#include "lib/codec/testing/bmp-fixtures.h"
#include "lib/codec/testing/image-fixtures.h"
#include "lib/codec/testing/served-ahead.h"

namespace tessera {
namespace codec {
namespace {

using testing::MeanColor;
using testing::Rgb;

using testing::BmpLayout;
using testing::FillBmpPixels;

Status Decode(const std::string& bytes, uint32_t cx, image::Bitmap* out) {
  return testing::DecodeBytes(CreateBmpDecoder(), bytes, cx, out);
}

void ExpectColor(const Rgb& c, double r, double g, double b, const std::string& what) {
  testing::ExpectColorNear(c, r, g, b, 3, what);
}

// Top half red, bottom half blue: shows both the colours and which way up.
void ExpectRedOverBlue(const BmpLayout& layout, const std::string& what) {
  image::Bitmap bitmap;
  const Status status = Decode(testing::EncodeBmp(layout), 100, &bitmap);
  ASSERT_TRUE(status.ok()) << what << ": " << status.ToString();
  EXPECT_EQ(bitmap.width(), layout.width) << what;
  EXPECT_EQ(bitmap.height(), layout.height) << what;
  ExpectColor(MeanColor(bitmap, 0, 0, layout.width, layout.height / 2), 255, 0, 0, what + " top");
  ExpectColor(MeanColor(bitmap, 0, layout.height / 2, layout.width, layout.height), 0, 0, 255, what + " bottom");
}

TEST(BmpDecoderTest, EveryDepthAndLayout) {
  const int half = 3;  // of the 6 rows
  auto red_over_blue = [&](uint32_t red, uint32_t blue) {
    return [=](int, int y) { return y < half ? red : blue; };
  };
  for (bool top_down : {false, true}) {
    const std::string way = top_down ? " top-down" : " bottom-up";
    for (int bits : {1, 2, 4, 8}) {
      BmpLayout layout;
      layout.bits = bits;
      layout.top_down = top_down;
      layout.palette = {0x00FF00, 0xFF0000, 0x0000FF};  // index 0 unused
      FillBmpPixels(&layout, red_over_blue(1, bits == 1 ? 0 : 2));
      if (bits == 1) layout.palette = {0x0000FF, 0xFF0000};
      ExpectRedOverBlue(layout, std::to_string(bits) + "-bit" + way);
    }
    // Direct colour: the fourth byte without bit fields is padding, even
    // when zero; unusual bit fields in a V3 header give 10-bit channels.
    struct Direct {
      const char* what;
      int bits;
      uint32_t compression, info_size, red, blue;
      std::vector<uint32_t> masks;
    };
    const Direct direct[] = {
        {"24-bit", 24, 0, 40, 0xFF0000, 0x0000FF, {}},
        {"16-bit 555", 16, 0, 40, 0x7C00, 0x001F, {}},
        {"16-bit 565", 16, 3, 40, 0xF800, 0x001F, {0xF800, 0x07E0, 0x001F}},
        {"32-bit", 32, 0, 40, 0xFF0000, 0x0000FF, {}},
        {"32-bit 10-10-10", 32, 3, 56, 0x3FF00000, 0x3FF, {0x3FF00000, 0x000FFC00, 0x000003FF, 0}},
    };
    for (const Direct& d : direct) {
      BmpLayout layout;
      layout.bits = d.bits;
      layout.compression = d.compression;
      layout.info_size = d.info_size;
      layout.masks = d.masks;
      layout.top_down = top_down;
      FillBmpPixels(&layout, red_over_blue(d.red, d.blue));
      ExpectRedOverBlue(layout, d.what + way);
    }
  }

  BmpLayout os2;
  os2.info_size = 12;
  os2.bits = 8;
  os2.palette = {0xFF0000, 0x0000FF};
  FillBmpPixels(&os2, [](int, int y) { return y < 3 ? 0u : 1u; });
  ExpectRedOverBlue(os2, "OS/2 core header");
}

TEST(BmpDecoderTest, AlphaIsFlattenedOverWhite) {
  // V5 header, alpha mask: left half opaque green, right half transparent.
  BmpLayout layout;
  layout.width = 8;
  layout.bits = 32;
  layout.compression = 3;
  layout.info_size = 124;
  layout.masks = {0x00FF0000, 0x0000FF00, 0x000000FF, 0xFF000000};
  FillBmpPixels(&layout, [](int x, int) { return x < 4 ? 0xFF00FF00u : 0x0000FF00u; });
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(testing::EncodeBmp(layout), 8, &bitmap).ok());
  ExpectColor(MeanColor(bitmap, 0, 0, 4, 6), 0, 255, 0, "opaque");
  ExpectColor(MeanColor(bitmap, 4, 0, 8, 6), 255, 255, 255, "transparent");
  for (int x = 0; x < 8; ++x) EXPECT_EQ(bitmap.row(0)[x * 4 + 3], 255);
}

TEST(BmpDecoderTest, RunLengthEncoded) {
  // RLE8, 6x4 bottom-up. File order: bottom row blue; a delta skips the
  // second row; third row: three literal red, then a run of 3 red; top row
  // ended by end-of-bitmap after two red pixels (the rest skipped).
  BmpLayout layout;
  layout.width = 6;
  layout.height = 4;
  layout.bits = 8;
  layout.compression = 1;
  layout.palette = {0xFF0000, 0x0000FF};
  const uint8_t rle8[] = {6, 1, 0, 0,              // row 3: six blue, end of line
                          0, 2, 0, 1,              // delta: one row down
                          0, 3, 0, 0, 0, 0,        // row 1: literal 0 0 0, padded,
                          3, 0, 0, 0,              //        run 3 x 0, EOL
                          2, 0, 0, 1};             // row 0: run 2 x 0, end of bitmap
  layout.pixels.assign(reinterpret_cast<const char*>(rle8), sizeof(rle8));
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(testing::EncodeBmp(layout), 100, &bitmap).ok());
  ASSERT_EQ(bitmap.height(), 4);
  ExpectColor(MeanColor(bitmap, 0, 3, 6, 4), 0, 0, 255, "bottom row");
  ExpectColor(MeanColor(bitmap, 0, 2, 6, 3), 255, 255, 255, "skipped row");
  ExpectColor(MeanColor(bitmap, 0, 1, 6, 2), 255, 0, 0, "literal and run");
  ExpectColor(MeanColor(bitmap, 0, 0, 2, 1), 255, 0, 0, "top row start");
  ExpectColor(MeanColor(bitmap, 2, 0, 6, 1), 255, 255, 255, "top row after end");

  // RLE4: runs alternate the two nibbles of their byte.
  layout.bits = 4;
  layout.compression = 2;
  layout.height = 2;
  const uint8_t rle4[] = {6, 0x10, 0, 0,           // bottom: blue red blue red blue red
                          0, 3, 0x00, 0x00, 3, 0x00, 0, 1};  // top: literal of 3 red, run of 3 red
  layout.pixels.assign(reinterpret_cast<const char*>(rle4), sizeof(rle4));
  ASSERT_TRUE(Decode(testing::EncodeBmp(layout), 100, &bitmap).ok());
  ExpectColor(MeanColor(bitmap, 0, 0, 6, 1), 255, 0, 0, "RLE4 top");
  ExpectColor(MeanColor(bitmap, 0, 1, 1, 2), 0, 0, 255, "RLE4 bottom first");
  ExpectColor(MeanColor(bitmap, 1, 1, 2, 2), 255, 0, 0, "RLE4 bottom second");
}

TEST(BmpDecoderTest, ReducedAndEmbeddedPng) {
  BmpLayout layout;
  layout.width = 64;
  layout.height = 32;
  FillBmpPixels(&layout, [](int x, int) { return x < 32 ? 0xFF0000u : 0x00FF00u; });
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(testing::EncodeBmp(layout), 16, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 16);
  EXPECT_EQ(bitmap.height(), 8);
  ExpectColor(MeanColor(bitmap, 0, 0, 8, 8), 255, 0, 0, "reduced left");

  testing::PngImage png;
  png.width = 20;
  png.height = 10;
  png.color_type = 2;
  png.samples.assign(20 * 10 * 3, 0);
  for (size_t i = 2; i < png.samples.size(); i += 3) png.samples[i] = 255;
  BmpLayout wrapped;
  wrapped.width = 20;
  wrapped.height = 10;
  wrapped.bits = 0;
  wrapped.compression = 5;
  wrapped.pixels = testing::EncodePng(png);
  ASSERT_TRUE(Decode(testing::EncodeBmp(wrapped), 100, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 20);
  ExpectColor(MeanColor(bitmap), 0, 0, 255, "embedded PNG");
}

// One decode serves every size the run anticipates, as its own decode would:
// bottom-up rows are flipped in each.
TEST(BmpDecoderTest, OneDecodeServesTheOtherSizes) {
  const testing::DecoderFactory bmp = [] { return CreateBmpDecoder(); };
  BmpLayout layout;
  layout.width = 130;
  layout.height = 70;
  FillBmpPixels(&layout, [](int x, int y) { return static_cast<uint32_t>(x * 0x010203 + y * 0x030507); });
  EXPECT_EQ(testing::ServedAhead(bmp, testing::EncodeBmp(layout), {40, 100, 300}), (std::vector<uint32_t>{100, 300}));

  // A wrapped stream's own decoder serves them: PNG and JPEG reduce to
  // every size in one decode (JPEG at the scale of the largest, so its
  // fresh decodes are told the run too).
  testing::PngImage png;
  png.width = 130;
  png.height = 70;
  png.color_type = 2;
  for (uint32_t i = 0; i < png.width * png.height * 3; ++i) png.samples.push_back(static_cast<uint8_t>(i * 7 / 3));
  BmpLayout wrapped;
  wrapped.width = 130;
  wrapped.height = 70;
  wrapped.bits = 0;
  wrapped.compression = 5;
  wrapped.pixels = testing::EncodePng(png);
  EXPECT_EQ(testing::ServedAhead(bmp, testing::EncodeBmp(wrapped), {40, 100, 300}), (std::vector<uint32_t>{100, 300}));
  testing::RgbImage photo(640, 360, 20, 120, 220);
  photo.Fill(100, 50, 400, 300, 240, 200, 10);
  wrapped.width = 640;
  wrapped.height = 360;
  wrapped.compression = 4;
  wrapped.pixels = testing::EncodeJpeg(photo);
  EXPECT_EQ(testing::ServedAhead(bmp, testing::EncodeBmp(wrapped), {40, 100, 300, 1000}, true),
            (std::vector<uint32_t>{100, 300, 1000}));
}

TEST(BmpDecoderTest, HostileInputFailsCleanly) {
  BmpLayout layout;
  layout.bits = 8;
  layout.palette = {0xFF0000};  // indices past the table
  FillBmpPixels(&layout, [](int x, int) { return x * 50u; });
  const std::string bmp = testing::EncodeBmp(layout);
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(bmp, 100, &bitmap).ok());
  ExpectColor(MeanColor(bitmap, 1, 0, 5, 6), 0, 0, 0, "outside the palette");
  for (size_t n = 0; n < bmp.size(); ++n) Decode(bmp.substr(0, n), 100, &bitmap);
  EXPECT_FALSE(Decode(bmp.substr(0, 20), 100, &bitmap).ok());

  // Declared sizes over the limits are refused before any allocation.
  BmpLayout huge;
  huge.width = 1 << 20;
  huge.height = 1 << 20;
  huge.pixels = "xxxx";
  EXPECT_TRUE(IsImageTooLarge(Decode(testing::EncodeBmp(huge), 100, &bitmap)));

  // RLE data that runs past the row and the image is cut, not written past.
  BmpLayout rle;
  rle.width = 3;
  rle.height = 2;
  rle.bits = 8;
  rle.compression = 1;
  rle.palette = {0xFF0000};
  const uint8_t data[] = {255, 0, 0, 200, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 255, 255, 0, 2, 9, 9};
  rle.pixels.assign(reinterpret_cast<const char*>(data), sizeof(data));
  EXPECT_TRUE(Decode(testing::EncodeBmp(rle), 100, &bitmap).ok());
  const std::string rle_bytes = testing::EncodeBmp(rle);
  for (size_t n = 0; n < rle_bytes.size(); ++n) Decode(rle_bytes.substr(0, n), 100, &bitmap);

  // Mismatched depth and compression, and unknown compression.
  BmpLayout bad = layout;
  bad.compression = 2;  // RLE4 at 8 bits
  EXPECT_FALSE(Decode(testing::EncodeBmp(bad), 100, &bitmap).ok());
  bad.compression = 11;
  EXPECT_FALSE(Decode(testing::EncodeBmp(bad), 100, &bitmap).ok());
}

}  // namespace
}  // namespace codec
}  // namespace tessera
