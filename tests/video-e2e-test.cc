// The tool on videos made once per suite with the ffmpeg command: four
// upright thumbnails, a sorted report, nothing else left in the output
// directory, and the frame fallback when the provider cannot handle a video.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "lib/thumbnail/testing/scratch-dir.h"
#include "lib/video/testing/video-test-files.h"
#include "tests/tool-runner.h"

namespace tessera {
namespace {

using testing::ProcessResult;
using testing::RunProcess;
using testing::RunTool;
using thumbnail::testing::ScratchDir;
using thumbnail::testing_util::IsBluish;
using thumbnail::testing_util::IsReddish;
using thumbnail::testing_util::ReadJpeg;
using thumbnail::testing_util::RgbImage;

const char* const kNames[] = {"large", "medium", "small", "small-medium"};  // report order
const int kEdges[] = {1280, 320, 120, 240};

bool Ffmpeg(std::vector<std::string> args) {
  args.insert(args.begin(), {"-nostdin", "-v", "error", "-y"});
  const ProcessResult run = RunProcess("ffmpeg", args);
  return run.exited && run.status == 0;
}

// The display-matrix rotation ffprobe reads (counter-clockwise degrees), or
// 0 when the stream has none.
int ProbedRotation(const std::string& path) {
  const ProcessResult run = RunProcess(
      "ffprobe", {"-v", "error", "-select_streams", "v:0", "-show_entries", "stream_side_data=rotation", "-of",
                  "default=nw=1:nk=1", path});
  return run.out.empty() ? 0 : std::stoi(run.out);
}

// Blue 320x180 frames, 2 s at 10 fps, with a red 40x24 block at the top left.
const char kMarked[] = "color=c=blue:s=320x180:r=10:d=2,drawbox=x=0:y=0:w=40:h=24:color=red:t=fill";
const std::vector<std::string> kH264 = {"-c:v", "libx264", "-preset", "ultrafast", "-pix_fmt", "yuv420p"};

std::vector<std::string> Join(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

struct MeanColour {
  double r = 0, g = 0, b = 0, light = 0, saturation = 0;
};

MeanColour Mean(const RgbImage& image) {
  MeanColour mean;
  const size_t pixels = static_cast<size_t>(image.width) * image.height;
  for (size_t i = 0; i < pixels; ++i) {
    const unsigned char* p = &image.rgb[i * 3];
    const int high = std::max({p[0], p[1], p[2]});
    const int low = std::min({p[0], p[1], p[2]});
    mean.r += p[0] / 255.0;
    mean.g += p[1] / 255.0;
    mean.b += p[2] / 255.0;
    mean.light += high / 255.0;
    mean.saturation += high == 0 ? 0 : (high - low) / static_cast<double>(high);
  }
  for (double* v : {&mean.r, &mean.g, &mean.b, &mean.light, &mean.saturation}) *v /= pixels;
  return mean;
}

class VideoToolTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    clips_ = new ScratchDir();
    const std::string marked_mp4 = Clip("marked.mp4");
    made_ = Ffmpeg(Join({"-f", "lavfi", "-i", kMarked}, Join(kH264, {marked_mp4}))) &&
            // The rotation tag becomes a display matrix when the stream is copied.
            Ffmpeg({"-i", marked_mp4, "-c", "copy", "-metadata:s:v:0", "rotate=90", Clip("turned90.mp4")}) &&
            Ffmpeg({"-i", marked_mp4, "-c", "copy", "-metadata:s:v:0", "rotate=180", Clip("turned180.mp4")}) &&
            Ffmpeg({"-f", "lavfi", "-i", kMarked, "-c:v", "libvpx-vp9", "-deadline", "realtime", "-cpu-used", "8",
                    Clip("marked.webm")}) &&
            Ffmpeg(Join({"-f", "lavfi", "-i", "color=c=red:s=160x90:r=10:d=0.5"}, Join(kH264, {Clip("short.mp4")}))) &&
            Ffmpeg({"-f", "lavfi", "-i", "color=c=red:s=200x200", "-frames:v", "1", "-update", "1",
                    Clip("cover.png")}) &&
            Ffmpeg({"-f", "lavfi", "-i", "sine=d=1", "-i", Clip("cover.png"), "-map", "0", "-map", "1", "-c:a", "aac",
                    "-c:v", "png", "-disposition:v", "attached_pic", Clip("cover.m4a")}) &&
            Ffmpeg({"-f", "lavfi", "-i", "sine=d=1", "-c:a", "aac", Clip("audio.m4a")}) &&
            // The same colour bars as SDR H.264 and as 10-bit HLG BT.2020 HEVC.
            Ffmpeg(Join({"-f", "lavfi", "-i", "smptebars=s=320x180:r=10:d=2"},
                        Join(kH264, {"-colorspace", "bt709", "-color_primaries", "bt709", "-color_trc", "bt709",
                                     Clip("sdr.mp4")}))) &&
            Ffmpeg({"-f", "lavfi", "-i", "smptebars=s=320x180:r=10:d=2", "-vf",
                    "zscale=tin=bt709:min=bt709:pin=bt709:t=arib-std-b67:m=bt2020nc:p=bt2020,format=yuv420p10le",
                    "-c:v", "libx265", "-preset", "ultrafast", "-x265-params",
                    "log-level=none:colorprim=bt2020:transfer=arib-std-b67:colormatrix=bt2020nc", "-colorspace",
                    "bt2020nc", "-color_primaries", "bt2020", "-color_trc", "arib-std-b67", Clip("hlg.mp4")});
  }
  static void TearDownTestSuite() {
    delete clips_;
    clips_ = nullptr;
  }
  void SetUp() override {
    if (!made_) GTEST_SKIP() << "the ffmpeg command cannot make the test clips here";
  }

  static std::string Clip(const std::string& name) { return clips_->Join(name); }

  // Runs `tool` on `src` into a fresh output directory and checks what every
  // run that makes thumbnails must hold: exit 0, a report of exactly the four
  // files in the output directory, sorted by name, each a JPEG whose shorter
  // side is its edge (or the video's, never enlarged) at the video's
  // `width`:`height` shape. Returns the decoded "large" thumbnail; `err`,
  // when given, receives standard error.
  RgbImage RunExpectingFour(ProcessResult (*tool)(const std::vector<std::string>&), const std::string& src,
                            int width, int height, std::string* err = nullptr) {
    ScratchDir out;
    const ProcessResult run = tool({"--output_dir", out.path(), "--src", src});
    if (err != nullptr) *err = run.err;
    EXPECT_TRUE(run.exited && run.status == 0) << run.err;
    const std::vector<std::string> files = out.List();
    EXPECT_EQ(4u, files.size()) << run.out << run.err;

    RgbImage large;
    std::string expected = "{\n";
    for (int i = 0; i < 4; ++i) {
      SCOPED_TRACE(kNames[i]);
      const std::string key = "   \"" + std::string(kNames[i]) + "\" : \"";
      const size_t at = run.out.find(key);
      if (at == std::string::npos) {
        ADD_FAILURE() << run.out;
        continue;
      }
      const std::string path = run.out.substr(at + key.size(), run.out.find('"', at + key.size()) - at - key.size());
      // The output file's own random name: eight characters, no extension.
      EXPECT_EQ(out.path().size() + 9, path.size()) << path;
      EXPECT_EQ(0u, path.rfind(out.path() + "/", 0)) << path;
      EXPECT_TRUE(std::binary_search(files.begin(), files.end(), path)) << path;
      expected += key + path + (i < 3 ? "\",\n" : "\"\n");

      RgbImage image;
      if (!ReadJpeg(path, &image)) {
        ADD_FAILURE() << "not a JPEG: " << path;
        continue;
      }
      const int short_side = std::min(image.width, image.height);
      EXPECT_EQ(std::min(kEdges[i], std::min(width, height)), short_side);
      EXPECT_NEAR(static_cast<double>(width) / height, static_cast<double>(image.width) / image.height, 0.02);
      if (i == 0) large = image;
    }
    EXPECT_EQ(expected + "}\n\n", run.out);
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
    const int rotation = ((ProbedRotation(Clip(c.name)) % 360) + 360) % 360;
    ASSERT_EQ(c.rotation, rotation) << "the display matrix was not written as expected";
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

TEST_F(VideoToolTest, ShortClipAndCoverArtGiveThumbnailsAudioAloneGivesNull) {
  const RgbImage short_clip = RunExpectingFour(RunTool, Clip("short.mp4"), 160, 90);
  if (!short_clip.rgb.empty()) {
    EXPECT_TRUE(IsReddish(short_clip.At(80, 45)));
  }

  const RgbImage cover = RunExpectingFour(RunTool, Clip("cover.m4a"), 200, 200);
  if (!cover.rgb.empty()) {
    EXPECT_TRUE(IsReddish(cover.At(100, 100)));
  }

  ScratchDir out;
  const ProcessResult run = RunTool({"--output_dir", out.path(), "--src", Clip("audio.m4a")});
  EXPECT_TRUE(run.exited);
  EXPECT_EQ(0, run.status);
  EXPECT_EQ("null\n\n", run.out);
  EXPECT_TRUE(out.List().empty());
}

TEST_F(VideoToolTest, HlgClipIsToneMappedLikeItsSdrSource) {
  const RgbImage sdr = RunExpectingFour(RunTool, Clip("sdr.mp4"), 320, 180);
  const RgbImage hlg = RunExpectingFour(RunTool, Clip("hlg.mp4"), 320, 180);
  ASSERT_FALSE(sdr.rgb.empty());
  ASSERT_FALSE(hlg.rgb.empty());
  const MeanColour s = Mean(sdr);
  const MeanColour h = Mean(hlg);
  // Decoded without tone mapping the bars come out about a third darker and
  // a quarter paler; tinted, one channel would stray.
  EXPECT_GT(h.saturation, 0.85 * s.saturation);
  EXPECT_NEAR(s.light, h.light, 0.1);
  EXPECT_NEAR(s.r, h.r, 0.06);
  EXPECT_NEAR(s.g, h.g, 0.06);
  EXPECT_NEAR(s.b, h.b, 0.06);
}

ProcessResult RunFailingProviderTool(const std::vector<std::string>& args) {
  return RunProcess(TESSERA_FAILING_PROVIDER_TOOL_PATH, args);
}

TEST_F(VideoToolTest, RefusedVideoFallsBackToAnExportedFrameAndRemovesIt) {
  // Only the four kept outputs remain: RunExpectingFour counts the files.
  std::string err;
  const RgbImage large = RunExpectingFour(RunFailingProviderTool, Clip("turned90.mp4"), 180, 320, &err);
  EXPECT_NE(std::string::npos, err.find("Failed to BindToHandler")) << "the video was not refused: " << err;
  ASSERT_FALSE(large.rgb.empty());
  EXPECT_TRUE(IsReddish(large.At(5, large.height - 6)));
  EXPECT_TRUE(IsBluish(large.At(large.width - 6, 5)));

  // Without a frame to fall back on, nothing is made and nothing is left.
  ScratchDir out;
  const ProcessResult run = RunFailingProviderTool({"--output_dir", out.path(), "--src", Clip("hlg.mp4")});
  EXPECT_TRUE(run.exited && run.status == 0);
  EXPECT_EQ("null\n\n", run.out);
  EXPECT_NE(std::string::npos, run.err.find("Failed to export frame")) << run.err;
  EXPECT_TRUE(out.List().empty());
}

}  // namespace
}  // namespace tessera
