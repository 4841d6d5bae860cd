#include "lib/video/frame-writer.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "lib/utility/text-conversion.h"
#include "lib/video/testing/video-test-files.h"

namespace tessera {
namespace thumbnail {
namespace {

using testing_util::IsBluish;
using testing_util::IsReddish;
using testing_util::ReadJpeg;
using testing_util::RgbImage;
using testing_util::ScratchDir;

// A blue 32x16 frame with a red 8x4 block in its top-left corner.
image::Bitmap MarkedFrame() {
  image::Bitmap frame;
  EXPECT_TRUE(image::Bitmap::Create(32, 16, &frame).ok());
  for (int y = 0; y < frame.height(); ++y) {
    for (int x = 0; x < frame.width(); ++x) {
      uint8_t* p = frame.row(y) + x * 4;
      const bool marker = x < 8 && y < 4;
      p[0] = marker ? 0 : 255;
      p[1] = 0;
      p[2] = marker ? 255 : 0;
      p[3] = 255;
    }
  }
  return frame;
}

std::string MessageOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "(no exception)";
}

struct RotationCase {
  uint32_t rotation;
  int width, height;
  int marker_x, marker_y;  // where the marker's centre must land
};

class WriteFrameRotationTest : public ::testing::TestWithParam<RotationCase> {};

TEST_P(WriteFrameRotationTest, TurnsQuarterTurnsOnlyAndMarkerLandsUpright) {
  const RotationCase c = GetParam();
  ScratchDir dir;
  const std::string path = dir.File("frame.jpg");
  VideoFrameInfo info;
  info.width = 32;
  info.height = 16;
  info.rotation = c.rotation;
  EXPECT_EQ(0, WriteFrameAsJpeg(utility::UTF8ToUTF16(path), MarkedFrame(), info));

  RgbImage image;
  ASSERT_TRUE(ReadJpeg(path, &image));
  EXPECT_EQ(c.width, image.width);
  EXPECT_EQ(c.height, image.height);
  EXPECT_TRUE(IsReddish(image.At(c.marker_x, c.marker_y)));
  EXPECT_TRUE(IsBluish(image.At(image.width / 2, image.height / 2)));
}

INSTANTIATE_TEST_SUITE_P(Rotations, WriteFrameRotationTest,
                         ::testing::Values(RotationCase{0, 32, 16, 3, 1},     //
                                           RotationCase{45, 32, 16, 3, 1},    //
                                           RotationCase{360, 32, 16, 3, 1},   //
                                           RotationCase{90, 16, 32, 14, 3},   //
                                           RotationCase{180, 32, 16, 28, 14},  //
                                           RotationCase{270, 16, 32, 1, 28}));

TEST(FindEncoderClsidTest, MatchesTheMimeTypeExactlyAndInTableOrder) {
  const auto save_ok = [](const image::Bitmap&, const std::string&) { return Status::OK(); };
  const auto save_bad = [](const image::Bitmap&, const std::string&) { return Status::IoError("x"); };
  const std::vector<image::ImageEncoder> table = {
      {"image/png", save_bad}, {"image/JPEG", save_bad}, {"image/jpeg", save_ok}, {"image/jpeg", save_bad}};
  EXPECT_EQ(table[2].save, FindEncoderClsid(u"image/jpeg", table).save);
  EXPECT_EQ("Failed to find encoder for format", MessageOf([&] { FindEncoderClsid(u"image/jpe", table); }));
  EXPECT_EQ("image/jpeg", std::string(FindEncoderClsid(u"image/jpeg").mime_type));
}

TEST(WriteFrameAsJpegTest, FailuresCarryTheirFixedMessagesAndOneErrorLine) {
  ScratchDir dir;
  const std::u16string path = utility::UTF8ToUTF16(dir.File("frame.jpg"));
  VideoFrameInfo info;
  const std::vector<image::ImageEncoder> png_only = {{"image/png", image::SavePng}};

  ::testing::internal::CaptureStderr();
  const std::string message = MessageOf([&] { WriteFrameAsJpeg(path, MarkedFrame(), info, png_only); });
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ("Failed to find encoder for format", message);
  EXPECT_NE(std::string::npos, log.find("[ERROR] frame-writer.cc(40): Failed to find encoder for format: 0\n"))
      << log;

  EXPECT_EQ("Failed to create GDI+ bitmap", MessageOf([&] { WriteFrameAsJpeg(path, image::Bitmap(), info); }));
  const std::u16string unwritable = utility::UTF8ToUTF16(dir.File("missing/frame.jpg"));
  EXPECT_EQ("Failed to save bitmap as JPEG", MessageOf([&] { WriteFrameAsJpeg(unwritable, MarkedFrame(), info); }));
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
