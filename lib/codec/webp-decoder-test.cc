#include <webp/encode.h>
#include <webp/mux.h>

#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/codec/decoders.h"
#include "lib/codec/testing/bitmap-probe.h"

namespace tessera {
namespace codec {
namespace {

using testing::MeanColor;
using testing::Rgb;

// width x height RGBA, left half `left`, right half `right`.
std::vector<uint8_t> Halves(int width, int height, std::vector<uint8_t> left, std::vector<uint8_t> right) {
  std::vector<uint8_t> rgba;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const auto& c = x < width / 2 ? left : right;
      rgba.insert(rgba.end(), c.begin(), c.end());
    }
  }
  return rgba;
}

std::string EncodeStill(int width, int height, const std::vector<uint8_t>& rgba) {
  uint8_t* out = nullptr;
  const size_t size = WebPEncodeLosslessRGBA(rgba.data(), width, height, width * 4, &out);
  std::string result(reinterpret_cast<char*>(out), size);
  WebPFree(out);
  return result;
}

std::string EncodeAnimation(int width, int height, const std::vector<std::vector<uint8_t>>& frames) {
  WebPAnimEncoderOptions options;
  WebPAnimEncoderOptionsInit(&options);
  WebPAnimEncoder* encoder = WebPAnimEncoderNew(width, height, &options);
  WebPConfig config;
  WebPConfigInit(&config);
  config.lossless = 1;
  int timestamp = 0;
  for (const auto& rgba : frames) {
    WebPPicture picture;
    WebPPictureInit(&picture);
    picture.use_argb = 1;
    picture.width = width;
    picture.height = height;
    WebPPictureImportRGBA(&picture, rgba.data(), width * 4);
    WebPAnimEncoderAdd(encoder, &picture, timestamp, &config);
    WebPPictureFree(&picture);
    timestamp += 100;
  }
  WebPAnimEncoderAdd(encoder, nullptr, timestamp, nullptr);
  WebPData data;
  WebPDataInit(&data);
  WebPAnimEncoderAssemble(encoder, &data);
  std::string result(reinterpret_cast<const char*>(data.bytes), data.size);
  WebPDataClear(&data);
  WebPAnimEncoderDelete(encoder);
  return result;
}

Status Decode(const std::string& bytes, uint32_t cx, image::Bitmap* out) {
  return testing::DecodeBytes(CreateWebpDecoder(), bytes, cx, out);
}

void ExpectColor(const Rgb& c, double r, double g, double b) { testing::ExpectColorNear(c, r, g, b, 4); }

TEST(WebpDecoderTest, StillIsScaledOnLoadAndFlattened) {
  // Left half blue, right half transparent.
  const std::string webp = EncodeStill(64, 32, Halves(64, 32, {0, 0, 255, 255}, {0, 0, 0, 0}));
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(webp, 32, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 32);
  EXPECT_EQ(bitmap.height(), 16);
  ExpectColor(MeanColor(bitmap, 0, 0, 14, 16), 0, 0, 255);
  ExpectColor(MeanColor(bitmap, 18, 0, 32, 16), 255, 255, 255);

  ASSERT_TRUE(Decode(webp, 500, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 64);  // never enlarged
}

TEST(WebpDecoderTest, AnimationGivesItsFirstFrame) {
  const std::string webp = EncodeAnimation(
      40, 20, {Halves(40, 20, {255, 0, 0, 255}, {255, 0, 0, 255}), Halves(40, 20, {0, 255, 0, 255}, {0, 255, 0, 255})});
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(webp, 20, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 20);
  EXPECT_EQ(bitmap.height(), 10);
  ExpectColor(MeanColor(bitmap), 255, 0, 0);
}

TEST(WebpDecoderTest, BrokenInputFailsCleanly) {
  const std::string webp = EncodeStill(30, 30, Halves(30, 30, {1, 2, 3, 255}, {200, 100, 0, 255}));
  image::Bitmap bitmap;
  for (size_t n = 0; n < webp.size(); n += 7) {
    EXPECT_FALSE(Decode(webp.substr(0, n), 30, &bitmap).ok()) << n;
  }
}

}  // namespace
}  // namespace codec
}  // namespace tessera
