#include "lib/video/frame-writer.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "lib/utility/testing/scratch-dir.h"
#include "lib/utility/text-conversion.h"
#include "lib/video/testing/video-test-files.h"

namespace tessera {
namespace thumbnail {
namespace {

using testing_util::IsBluish;
using testing_util::IsReddish;
using testing_util::ReadJpeg;
using testing_util::RgbImage;

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
  test::ScratchDir dir;
  const std::string path = dir.Path("frame.jpg");
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

// An encoder table with scripted steps; counts how often it is asked.
class FakeEncoderTable : public image::EncoderTable {
 public:
  FakeEncoderTable(int size_status, int table_status, std::vector<image::ImageEncoder> encoders)
      : size_status_(size_status), table_status_(table_status), encoders_(std::move(encoders)) {}
  int GetSize(uint32_t* count, uint32_t* bytes) const override {
    ++size_calls;
    *count = static_cast<uint32_t>(encoders_.size());
    *bytes = *count * 100;
    return size_status_;
  }
  int GetEncoders(uint32_t count, uint32_t bytes, std::vector<image::ImageEncoder>* encoders) const override {
    if (count != encoders_.size() || bytes != count * 100) return -1;
    if (table_status_ == 0) *encoders = encoders_;
    return table_status_;
  }
  mutable int size_calls = 0;

 private:
  int size_status_;
  int table_status_;
  std::vector<image::ImageEncoder> encoders_;
};

Status SaveOk(const image::Bitmap&, const std::string&) { return Status::OK(); }
Status SaveBad(const image::Bitmap&, const std::string&) { return Status::IoError("x"); }

TEST(FindEncoderClsidTest, EachFailureHasItsMessageAndTheFirstExactMatchWins) {
  const std::vector<image::ImageEncoder> table = {
      {"image/png", SaveBad}, {"image/JPEG", SaveBad}, {"image/jpeg", SaveOk}, {"image/jpeg", SaveBad}};
  struct Case {
    const char* name;
    int size_status;
    int table_status;
    std::u16string mime;
    std::string message;  // "" for the third entry
    std::string logged;   // the ERROR line's end
  };
  const Case cases[] = {
      {"size fails", 7, 0, u"image/jpeg", "Failed to get image encoder size", "image encoder size: 7\n"},
      {"table fails", 0, 3, u"image/jpeg", "Failed to get all image encoders", "all image encoders: 3\n"},
      {"prefix only", 0, 0, u"image/jpe", "Failed to find encoder for format", "encoder for format: 0\n"},
      {"exact and first", 0, 0, u"image/jpeg", "", ""},
  };
  for (const Case& c : cases) {
    const FakeEncoderTable fake(c.size_status, c.table_status, table);
    image::ImageEncoder found{nullptr, nullptr};
    ::testing::internal::CaptureStderr();
    const std::string message = MessageOf([&] { found = FindEncoderClsid(c.mime, fake); });
    const std::string log = ::testing::internal::GetCapturedStderr();
    if (c.message.empty()) {
      EXPECT_EQ("(no exception)", message) << c.name;
      EXPECT_EQ(table[2].save, found.save) << c.name;
    } else {
      EXPECT_EQ(c.message, message) << c.name;
      EXPECT_NE(std::string::npos, log.find("[ERROR] frame-writer.cc(40): " + c.message + ": ")) << c.name << log;
      EXPECT_NE(std::string::npos, log.find(c.logged)) << c.name << log;
    }
  }

  // Nothing is kept between calls.
  const FakeEncoderTable fake(0, 0, table);
  FindEncoderClsid(u"image/jpeg", fake);
  FindEncoderClsid(u"image/jpeg", fake);
  EXPECT_EQ(2, fake.size_calls);
  EXPECT_EQ("image/jpeg", std::string(FindEncoderClsid(u"image/jpeg").mime_type));
}

TEST(WriteFrameAsJpegTest, FailuresCarryTheirFixedMessages) {
  test::ScratchDir dir;
  const std::u16string path = utility::UTF8ToUTF16(dir.Path("frame.jpg"));
  VideoFrameInfo info;
  const FakeEncoderTable png_only(0, 0, {{"image/png", image::SavePng}});
  EXPECT_EQ("Failed to find encoder for format",
            MessageOf([&] { WriteFrameAsJpeg(path, MarkedFrame(), info, png_only); }));
  EXPECT_EQ("Failed to create GDI+ bitmap", MessageOf([&] { WriteFrameAsJpeg(path, image::Bitmap(), info); }));
  const std::u16string unwritable = utility::UTF8ToUTF16(dir.Path("missing/frame.jpg"));
  EXPECT_EQ("Failed to save bitmap as JPEG", MessageOf([&] { WriteFrameAsJpeg(unwritable, MarkedFrame(), info); }));
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
