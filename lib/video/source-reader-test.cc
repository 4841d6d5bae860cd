#include "lib/video/source-reader.h"

#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "lib/log/log.h"
#include "lib/utility/testing/scratch-dir.h"
#include "lib/utility/text-conversion.h"
#include "lib/video/testing/fake-media-source.h"
#include "lib/video/testing/video-test-files.h"

namespace tessera {
namespace thumbnail {
namespace {

using testing_util::ReadJpeg;
using testing_util::RgbImage;

constexpr std::chrono::milliseconds kShortWait{5};
constexpr int64_t kSecond = 10000000;

// Frame times every `step` from 0 to `end` (exclusive), in 100-ns units.
std::vector<int64_t> Times(int64_t step, int64_t end) {
  std::vector<int64_t> times;
  for (int64_t t = 0; t < end; t += step) times.push_back(t);
  return times;
}

class SourceReaderTest : public ::testing::Test {
 protected:
  // Exports with seek time 1 through a fake; returns the exception text, or
  // "" on success (the image then in image_).
  std::string Export(const FakeMediaScript& script) {
    const std::string path = dir_.Path("frame.jpg");
    try {
      SourceReader reader(std::make_unique<FakeMediaSource>(script, log_), u"clip.mp4", kShortWait);
      reader.ExportFrame(utility::UTF8ToUTF16(path), 1);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    EXPECT_TRUE(ReadJpeg(path, &image_));
    return "";
  }
  // The fake fills frame n (1-based) with the grey value 10 * n.
  int FrameNumber() const { return (image_.At(0, 0)[1] + 5) / 10; }

  test::ScratchDir dir_;
  std::shared_ptr<FakeMediaLog> log_ = std::make_shared<FakeMediaLog>();
  RgbImage image_;
};

// How the frame at one second is reached, and what a clip without one gives.
TEST_F(SourceReaderTest, ReadsTheFrameAtOneSecondOrTheLastBeforeIt) {
  constexpr uint32_t kSlowSeek = kCharacteristicCanSeek | kCharacteristicHasSlowSeek;
  struct Case {
    const char* name;
    uint32_t characteristics;
    std::vector<int64_t> frame_times;
    std::string message;
    int seeks, reads;
    int frame;  // the fake's number of the frame written; 0: not checked
  };
  const Case cases[] = {
      {"seekable: seeks to exactly 1 s", kCharacteristicCanSeek, Times(kSecond / 4, 3 * kSecond), "", 1, 1, 5},
      {"slow seeking: read forward", kSlowSeek, Times(kSecond / 10, 3 * kSecond), "", 0, 11, 11},
      // At 100 frames a second the target lies beyond the skipped frames allowed.
      {"slow seeking, 100 fps", kSlowSeek, Times(kSecond / 100, 3 * kSecond), "", 0,
       SourceReader::kMaxSkipFrames + 1, 0},
      {"shorter than 1 s: its last frame", 0, {0, kSecond / 5, 2 * kSecond / 5}, "", 0, 4, 3},
      {"no frame at all", kCharacteristicCanSeek, {}, "Failed to get desired frame", 1, 1, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    FakeMediaScript script;
    script.characteristics = c.characteristics;
    script.frame_times_hns = c.frame_times;
    log_ = std::make_shared<FakeMediaLog>();
    ASSERT_EQ(c.message, Export(script));
    EXPECT_EQ(c.seeks, log_->seeks.load());
    if (c.seeks > 0) {
      EXPECT_EQ(kSecond, log_->last_seek_hns.load());
    }
    EXPECT_EQ(c.reads, log_->reads.load());
    if (!c.message.empty()) continue;
    EXPECT_EQ(1, log_->conversions.load());  // the frames passed over are never converted
    if (c.frame > 0) {
      EXPECT_EQ(c.frame, FrameNumber());
    }
    EXPECT_EQ(8, image_.width);
    EXPECT_EQ(4, image_.height);
  }
}

TEST_F(SourceReaderTest, ReaderThatNeverAnswersTimesOutAndIsParked) {
  FakeMediaScript script;
  script.never_answer = true;
  script.frame_times_hns = Times(kSecond, 3 * kSecond);
  const size_t parked = AbandonedReaderCount();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ("Failed to get sample from listener [timeout]", Export(script));
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(std::string::npos, log.find("ReadSample stuck for more than 10 seconds")) << log;
  EXPECT_NE(std::string::npos, log.find("(40): Failed to get sample from listener [timeout]: 0")) << log;
  EXPECT_EQ(1, log_->reads.load());
  EXPECT_EQ(parked + 1, AbandonedReaderCount());
}

TEST_F(SourceReaderTest, OnlyHevcWithBt2020PrimariesAndMatrixIsRefusedAsHdr) {
  FakeMediaScript script;
  script.frame_times_hns = Times(kSecond / 2, 2 * kSecond);
  script.native = {VideoCodec::kHevc, true, kPrimariesBt2020, true, kMatrixBt2020Ten};
  EXPECT_EQ("HDR video is not supported", Export(script));
  EXPECT_EQ(0, log_->reads.load());
  script.native.matrix = kMatrixBt2020Twelve;
  EXPECT_EQ("HDR video is not supported", Export(script));

  script.native.matrix = 1;
  EXPECT_EQ("", Export(script));
  script.native = {VideoCodec::kH264, true, kPrimariesBt2020, true, kMatrixBt2020Ten};
  EXPECT_EQ("", Export(script));
  script.native = {VideoCodec::kHevc, true, kPrimariesBt2020, true, kMatrixBt2020Ten};
  script.is_video = false;
  EXPECT_EQ("", Export(script));
}

TEST_F(SourceReaderTest, RotationTurnsTheFrameAndMissingRotationKeepsIt) {
  FakeMediaScript script;
  script.frame_times_hns = Times(kSecond / 2, 2 * kSecond);
  script.rotation = 90;
  for (bool has_rotation : {true, false}) {
    script.has_rotation = has_rotation;
    EXPECT_EQ("", Export(script));
    EXPECT_EQ(has_rotation ? 4 : 8, image_.width);
    EXPECT_EQ(has_rotation ? 8 : 4, image_.height);
  }
}

// Every step of the platform fails with a message of its own. The two of
// the seekability check are INFO lines, after which the frame is read from
// the start.
TEST_F(SourceReaderTest, EachFailingStepHasItsOwnMessage) {
  struct Case {
    const char* step;
    const char* message;
  };
  const Case cases[] = {
      {"CreateAttributes", "Failed to create attributes"},
      {"EnableVideoProcessing", "Failed to enable video processing"},
      {"SetAsyncCallback", "Failed to set async callback"},
      {"CreateSourceReader", "Failed to create source reader"},
      {"GetCurrentMediaType", "Failed to get current media type"},
      {"GetMajorType", "Failed to get major type"},
      {"CreateMediaType", "Failed to create media type"},
      {"SetMajorTypeVideo", "Failed to set major type to video"},
      {"SetSubtypeRgb32", "Failed to set subtype to RGB32"},
      {"SetCurrentMediaType", "Failed to set current media type to first video"},
      {"SelectFirstVideoStream", "Failed to set stream selection to first video"},
      {"GetFrameSize", "Failed to get frame size"},
      {"ConvertToContiguousBuffer", "Failed to convert frame to contiguous buffer"},
      {"LockBuffer", "Failed to lock media buffer"},
      {"GetPresentationAttribute", "Failed to get presentation attribute, treeating as non-seekable"},
      {"ConvertPresentationAttribute", "Failed to convert presentation attribute to uint32, treating as non-seekable"},
  };
  log::LogConfig config;
  config.destination = 2;
  config.level_config_path = dir_.Path("levels.conf");
  std::ofstream(config.level_config_path) << "thumbnail_debug = 6\n";
  ASSERT_EQ(0, log::LogInit(config));
  for (const Case& c : cases) {
    const bool informs = std::string(c.message).find("non-seekable") != std::string::npos;
    FakeMediaScript script;
    script.frame_times_hns = Times(kSecond / 2, 2 * kSecond);
    script.failing_step = c.step;
    log_ = std::make_shared<FakeMediaLog>();
    ::testing::internal::CaptureStderr();
    const std::string message = Export(script);
    const std::string lines = ::testing::internal::GetCapturedStderr();
    if (informs) {
      EXPECT_EQ("", message) << c.step;
      EXPECT_EQ(0, log_->seeks.load()) << c.step;
      EXPECT_NE(std::string::npos, lines.find("[INFO] source-reader.cc(")) << c.step << lines;
      EXPECT_NE(std::string::npos, lines.find(std::string("): ") + c.message + "\n")) << c.step << lines;
    } else {
      EXPECT_EQ(c.message, message) << c.step;
      EXPECT_NE(std::string::npos, lines.find(std::string("(40): ") + c.message + ": -2147467259\n"))
          << c.step << lines;
    }
  }
  log::LogResetForTesting();
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
