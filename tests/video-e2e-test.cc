// The tool on videos made once per suite with the ffmpeg command: four
// upright thumbnails, a sorted report, nothing else left in the output
// directory, and the frame fallback when the provider cannot handle a video.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "lib/utility/testing/scratch-dir.h"
#include "lib/video/testing/video-test-files.h"
#include "tests/clean-run.h"
#include "tests/tool-runner.h"

namespace tessera {
namespace {

using test::ScratchDir;
using testing::ExpectCleanRun;
using testing::ExpectFourThumbnails;
using testing::ProcessResult;
using testing::RunProcess;
using testing::RunTool;
using thumbnail::testing_util::IsBluish;
using thumbnail::testing_util::IsReddish;
using thumbnail::testing_util::ReadJpeg;
using thumbnail::testing_util::RgbImage;

bool Ffmpeg(std::vector<std::string> args) {
  args.insert(args.begin(), {"-nostdin", "-v", "error", "-y"});
  const ProcessResult run = RunProcess("ffmpeg", args);
  return run.exited && run.status == 0;
}

// Blue 320x180 frames, 2 s at 10 fps, with a red 40x24 block at the top left.
const char kMarked[] = "color=c=blue:s=320x180:r=10:d=2,drawbox=x=0:y=0:w=40:h=24:color=red:t=fill";

ProcessResult RunFailingProviderTool(const std::vector<std::string>& args) {
  return RunProcess(TESSERA_FAILING_PROVIDER_TOOL_PATH, args);
}

class VideoToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    clips_ = new ScratchDir();
    const std::string marked_mp4 = Clip("marked.mp4");
    made_ = Ffmpeg({"-f", "lavfi", "-i", kMarked, "-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p",
                    marked_mp4}) &&
            // The rotation tag becomes a display matrix when the stream is copied.
            Ffmpeg({"-i", marked_mp4, "-c", "copy", "-metadata:s:v:0", "rotate=90", Clip("turned90.mp4")}) &&
            Ffmpeg({"-i", marked_mp4, "-c", "copy", "-metadata:s:v:0", "rotate=180", Clip("turned180.mp4")}) &&
            Ffmpeg({"-f", "lavfi", "-i", kMarked, "-c:v", "libvpx-vp9", "-deadline", "realtime", "-cpu-used", "8",
                    Clip("marked.webm")}) &&
            Ffmpeg({"-f", "lavfi", "-i", "sine=d=1", "-c:a", "aac", Clip("audio.m4a")});
  }
  static void TearDownTestSuite() {
    delete clips_;
    clips_ = nullptr;
  }
  void SetUp() override {
    if (!made_) GTEST_SKIP() << "the ffmpeg command cannot make the test clips here";
  }

  static std::string Clip(const std::string& name) { return clips_->Path(name); }

  // Runs `tool` on `src` into a fresh output directory, checks its four
  // thumbnails of a `width` x `height` picture and returns the decoded
  // "large" one; `err`, when given, receives standard error.
  RgbImage RunExpectingFour(ProcessResult (*tool)(const std::vector<std::string>&), const std::string& src,
                            int width, int height, std::string* err = nullptr) {
    ScratchDir out;
    const ProcessResult run = tool({"--output_dir", out.path(), "--src", src});
    if (err != nullptr) *err = run.err;
    std::map<std::string, std::string> paths = ExpectFourThumbnails(run, out.path(), width, height);
    RgbImage large;
    EXPECT_TRUE(ReadJpeg(paths["large"], &large)) << paths["large"];
    return large;
  }

  static ScratchDir* clips_;
  static bool made_;
};

ScratchDir* VideoToolTest::clips_ = nullptr;
bool VideoToolTest::made_ = false;

TEST_F(VideoToolTest, ClipsGiveUprightThumbnailsWithTheMarkerWhereThePlayerShowsIt) {
  struct Case {
    const char* name;
    int rotation;  // counter-clockwise, as the display matrix reads
    int width, height;
  };
  for (const Case& c : {Case{"marked.mp4", 0, 320, 180}, Case{"marked.webm", 0, 320, 180},
                        Case{"turned90.mp4", 90, 180, 320}, Case{"turned180.mp4", 180, 320, 180}}) {
    SCOPED_TRACE(c.name);
    const RgbImage large = RunExpectingFour(RunTool, Clip(c.name), c.width, c.height);
    if (large.rgb.empty()) continue;
    ASSERT_EQ(c.width, large.width);

    // Where the top-left block of the coded picture is displayed.
    const int right = large.width - 6, bottom = large.height - 6;
    const int corners[4][2] = {{5, 5}, {5, bottom}, {right, bottom}, {right, 5}};
    for (int k = 0; k < 4; ++k) {
      const unsigned char* p = large.At(corners[k][0], corners[k][1]);
      if (k == c.rotation / 90) {
        EXPECT_TRUE(IsReddish(p)) << "corner " << k;
      } else {
        EXPECT_TRUE(IsBluish(p)) << "corner " << k;
      }
    }
    EXPECT_TRUE(IsBluish(large.At(large.width / 2, large.height / 2)));
  }
}

TEST_F(VideoToolTest, RefusedVideoFallsBackToAnExportedFrameAndRemovesIt) {
  // Only the four kept outputs remain: RunExpectingFour compares the files.
  std::string err;
  const RgbImage large = RunExpectingFour(RunFailingProviderTool, Clip("turned90.mp4"), 180, 320, &err);
  EXPECT_NE(std::string::npos, err.find("Failed to BindToHandler")) << "the video was not refused: " << err;
  ASSERT_FALSE(large.rgb.empty());
  EXPECT_TRUE(IsReddish(large.At(5, large.height - 6)));
  EXPECT_TRUE(IsBluish(large.At(large.width - 6, 5)));

  // Without a frame to fall back on, nothing is made and nothing is left.
  ScratchDir out;
  const ProcessResult run = RunTool({"--output_dir", out.path(), "--src", Clip("audio.m4a")});
  EXPECT_EQ(ExpectCleanRun(run, out.path()), 0);
  EXPECT_EQ("null\n\n", run.out);
  EXPECT_NE(std::string::npos, run.err.find("Failed to export frame")) << run.err;
}

}  // namespace
}  // namespace tessera
