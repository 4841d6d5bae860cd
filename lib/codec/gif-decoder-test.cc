#include <gif_lib.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/codec/decoders.h"
#include "lib/codec/testing/bitmap-probe.h"
#include "lib/codec/testing/served-ahead.h"

namespace tessera {
namespace codec {
namespace {

using testing::MeanColor;
using testing::Rgb;

struct Frame {
  int left = 0, top = 0, width = 0, height = 0;
  bool interlaced = false;
  int transparent = -1;
  std::vector<uint8_t> indices;  // rows in display order
};

int WriteToString(GifFileType* gif, const GifByteType* data, int size) {
  static_cast<std::string*>(gif->UserData)->append(reinterpret_cast<const char*>(data), size);
  return size;
}

// Palette: 0 black, 1 red, 2 green, 3 blue.
std::string EncodeGif(int screen_width, int screen_height, const std::vector<Frame>& frames) {
  std::string out;
  int error = 0;
  GifFileType* gif = EGifOpen(&out, WriteToString, &error);
  const GifColorType colors[4] = {{0, 0, 0}, {255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
  ColorMapObject* map = GifMakeMapObject(4, colors);
  EGifSetGifVersion(gif, true);
  EGifPutScreenDesc(gif, screen_width, screen_height, 2, 0, map);
  for (const Frame& f : frames) {
    if (f.transparent >= 0) {
      GraphicsControlBlock gcb{};
      gcb.TransparentColor = f.transparent;
      GifByteType ext[4];
      EGifGCBToExtension(&gcb, ext);
      EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, 4, ext);
    }
    EGifPutImageDesc(gif, f.left, f.top, f.width, f.height, f.interlaced, nullptr);
    if (f.interlaced) {
      static const int kStart[4] = {0, 4, 2, 1};
      static const int kStep[4] = {8, 8, 4, 2};
      for (int pass = 0; pass < 4; ++pass) {
        for (int r = kStart[pass]; r < f.height; r += kStep[pass]) {
          EGifPutLine(gif, const_cast<GifPixelType*>(&f.indices[r * f.width]), f.width);
        }
      }
    } else {
      EGifPutLine(gif, const_cast<GifPixelType*>(f.indices.data()), f.width * f.height);
    }
  }
  EGifCloseFile(gif, &error);
  GifFreeMapObject(map);
  return out;
}

Frame SolidFrame(int left, int top, int width, int height, uint8_t index) {
  Frame f;
  f.left = left;
  f.top = top;
  f.width = width;
  f.height = height;
  f.indices.assign(static_cast<size_t>(width) * height, index);
  return f;
}

Status Decode(const std::string& bytes, uint32_t cx, image::Bitmap* out) {
  return testing::DecodeBytes(CreateGifDecoder(), bytes, cx, out);
}

void ExpectColor(const Rgb& c, double r, double g, double b) { testing::ExpectColorNear(c, r, g, b, 3); }

TEST(GifDecoderTest, FirstFrameOnTheLogicalScreen) {
  // A red frame on the right half of a 40x20 screen, then a blue frame that
  // must not show.
  const std::string gif = EncodeGif(40, 20, {SolidFrame(20, 0, 20, 20, 1), SolidFrame(0, 0, 40, 20, 3)});
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(gif, 100, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 40);
  EXPECT_EQ(bitmap.height(), 20);
  ExpectColor(MeanColor(bitmap, 0, 0, 20, 20), 255, 255, 255);
  ExpectColor(MeanColor(bitmap, 20, 0, 40, 20), 255, 0, 0);

  ASSERT_TRUE(Decode(gif, 20, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 20);
  EXPECT_EQ(bitmap.height(), 10);
}

TEST(GifDecoderTest, InterlacedAndTransparent) {
  // Top half green, bottom half transparent (index 0 declared transparent).
  Frame f = SolidFrame(0, 0, 16, 16, 2);
  for (size_t i = 8 * 16; i < f.indices.size(); ++i) f.indices[i] = 0;
  f.interlaced = true;
  f.transparent = 0;
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(EncodeGif(16, 16, {f}), 16, &bitmap).ok());
  ExpectColor(MeanColor(bitmap, 0, 0, 16, 8), 0, 255, 0);
  ExpectColor(MeanColor(bitmap, 0, 8, 16, 16), 255, 255, 255);
}

// One decode serves every size the run anticipates, as its own decode would.
TEST(GifDecoderTest, OneDecodeServesTheOtherSizes) {
  const testing::DecoderFactory gif = [] { return CreateGifDecoder(); };
  Frame f = SolidFrame(7, 5, 90, 61, 1);
  for (size_t i = 0; i < f.indices.size(); ++i) f.indices[i] = static_cast<uint8_t>(i * 7 / 5 % 4);
  f.interlaced = true;
  f.transparent = 0;
  EXPECT_EQ(testing::ServedAhead(gif, EncodeGif(120, 80, {f}), {30, 50, 100, 400}),
            (std::vector<uint32_t>{50, 100, 400}));
}

TEST(GifDecoderTest, HostileInputFailsCleanly) {
  const std::string gif = EncodeGif(30, 30, {SolidFrame(0, 0, 30, 30, 1)});
  image::Bitmap bitmap;
  for (size_t n = 0; n < gif.size(); n += 3) Decode(gif.substr(0, n), 30, &bitmap);
  EXPECT_FALSE(Decode(gif.substr(0, 13), 30, &bitmap).ok());  // header only

  // A frame extending past the screen is clipped, not written out of bounds.
  ASSERT_TRUE(Decode(EncodeGif(10, 10, {SolidFrame(5, 5, 30, 30, 3)}), 10, &bitmap).ok());
  ExpectColor(MeanColor(bitmap, 6, 6, 10, 10), 0, 0, 255);
  // One placed beyond the screen leaves it white.
  ASSERT_TRUE(Decode(EncodeGif(10, 10, {SolidFrame(60000, 60000, 4, 4, 3)}), 10, &bitmap).ok());
  EXPECT_EQ(bitmap.height(), 10);
  ExpectColor(MeanColor(bitmap), 255, 255, 255);

  // A few extensions before the image are normal; a flood of them is refused.
  const size_t after_map = 13 + 3 * 4;  // header, screen and its four colours
  auto with_comments = [&](size_t count) {
    std::string flooded = gif;
    std::string comments;
    for (size_t i = 0; i < count; ++i) comments += std::string("\x21\xfe\x00", 3);
    return flooded.insert(after_map, comments);
  };
  ASSERT_TRUE(Decode(with_comments(1000), 30, &bitmap).ok());
  ExpectColor(MeanColor(bitmap), 255, 0, 0);
  EXPECT_FALSE(Decode(with_comments(70000), 30, &bitmap).ok());
  std::string sub_blocks = gif;
  std::string comment("\x21\xfe", 2);
  for (int i = 0; i < 300000; ++i) comment += std::string("\x01x", 2);
  EXPECT_FALSE(Decode(sub_blocks.insert(after_map, comment + '\0'), 30, &bitmap).ok());

  // A screen far over the limits is refused before anything is allocated.
  Status status = Decode(EncodeGif(65535, 65535, {SolidFrame(0, 0, 2, 2, 1)}), 30, &bitmap);
  EXPECT_TRUE(IsImageTooLarge(status)) << status.ToString();
}

}  // namespace
}  // namespace codec
}  // namespace tessera
