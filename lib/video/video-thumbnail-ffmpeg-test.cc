// The FFmpeg frame reader and video thumbnails on clips made at test time
// with the ffmpeg command.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "lib/utility/testing/scratch-dir.h"
#include "lib/utility/text-conversion.h"
#include "lib/video/media-module.h"
#include "lib/video/source-reader.h"
#include "lib/video/testing/video-test-files.h"
#include "lib/video/video-thumbnail.h"

namespace tessera {
namespace thumbnail {
namespace {

using testing_util::IsBluish;
using testing_util::IsReddish;
using testing_util::ReadJpeg;
using testing_util::RgbImage;
using testing_util::RunFfmpeg;

// Blue 64x48 frames with a red 16x12 block at the top left.
const char kMarked[] = "-f lavfi -i color=c=blue:s=64x48:r=10:d=2,drawbox=x=0:y=0:w=16:h=12:color=red:t=fill ";
const char kH264[] = "-c:v libx264 -preset ultrafast -pix_fmt yuv420p ";
// The largest request of the tool's runs (3 x 1280).
constexpr uint32_t kRunLargest = 3840;

// Mean brightness and saturation (0..1) of a BGRA bitmap.
void MeanLightAndSaturation(const image::Bitmap& bitmap, double* light, double* saturation) {
  double sum_light = 0, sum_saturation = 0;
  const size_t pixels = static_cast<size_t>(bitmap.width()) * bitmap.height();
  for (size_t i = 0; i < pixels; ++i) {
    const uint8_t* p = bitmap.data() + i * 4;
    const int high = std::max({p[0], p[1], p[2]});
    const int low = std::min({p[0], p[1], p[2]});
    sum_light += high / 255.0;
    sum_saturation += high == 0 ? 0 : (high - low) / static_cast<double>(high);
  }
  *light = sum_light / pixels;
  *saturation = sum_saturation / pixels;
}

const uint8_t* Pixel(const image::Bitmap& bitmap, int x, int y) { return bitmap.row(y) + x * 4; }
bool RedBgra(const uint8_t* p) { return p[2] > 150 && p[1] < 90 && p[0] < 90; }
bool GreenBgra(const uint8_t* p) { return p[1] > 100 && p[0] < 90 && p[2] < 90; }

class VideoFfmpegTest : public ::testing::Test {
 protected:
  std::string ExportMessage(const std::string& source, const std::string& output) {
    try {
      SourceReader reader(utility::UTF8ToUTF16(source));
      reader.ExportFrame(utility::UTF8ToUTF16(output), 1);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }
  // Makes `name` in the scratch directory with `ffmpeg <args> <path>`.
  std::string Make(const std::string& name, const std::string& args) {
    const std::string path = dir_.Path(name);
    EXPECT_TRUE(RunFfmpeg(args + " '" + path + "'")) << name;
    return path;
  }

  test::ScratchDir dir_;
};

TEST_F(VideoFfmpegTest, ExportsUprightFramesOfRotatedClips) {
  struct Case {
    int rotation;  // counter-clockwise, as the display matrix reads
    int width, height, marker_x, marker_y;
  };
  const std::string marked = Make("marked.mp4", std::string(kMarked) + kH264);
  for (const Case& c : {Case{0, 64, 48, 4, 4}, Case{90, 48, 64, 4, 59}, Case{180, 64, 48, 59, 43}}) {
    SCOPED_TRACE(c.rotation);
    // The rotation tag becomes a display matrix when the stream is copied.
    const std::string turn = std::to_string(c.rotation);
    const std::string clip = Make("turned" + turn + ".mp4", "-i '" + marked + "' -c copy -metadata:s:v:0 rotate=" +
                                  turn);

    const std::string frame = dir_.Path("frame.jpg");
    ASSERT_EQ("", ExportMessage(clip, frame));
    RgbImage image;
    ASSERT_TRUE(ReadJpeg(frame, &image));
    EXPECT_EQ(c.width, image.width);
    EXPECT_EQ(c.height, image.height);
    EXPECT_TRUE(IsReddish(image.At(c.marker_x, c.marker_y)));
    EXPECT_TRUE(IsBluish(image.At(image.width / 2, image.height / 2)));

    image::Bitmap thumb;
    ASSERT_TRUE(ExtractVideoThumbnail(clip, 32, &thumb).ok());
    EXPECT_EQ(c.width / 2, thumb.width());
    EXPECT_EQ(c.height / 2, thumb.height());
    EXPECT_TRUE(RedBgra(Pixel(thumb, c.marker_x / 2, c.marker_y / 2)));
  }
}

bool SameBitmap(const image::Bitmap& a, const image::Bitmap& b) {
  return a.width() == b.width() && a.height() == b.height() &&
         std::memcmp(a.data(), b.data(), a.byte_size()) == 0;
}

// The frame of one file is decoded once per process and serves every later
// size: each must be exactly what a fresh decode gives, and a file that
// changes is decoded again.
TEST_F(VideoFfmpegTest, LaterSizesOfOneClipEqualFreshDecodes) {
  const std::string clip = Make("clip.mp4", std::string(kMarked) + "-vf setsar=2 " + kH264);
  image::Bitmap small, large, same;
  ASSERT_TRUE(ExtractVideoThumbnail(clip, 40, &small, nullptr, kRunLargest).ok());
  ASSERT_TRUE(ExtractVideoThumbnail(clip, 128, &large, nullptr, kRunLargest).ok());
  ASSERT_TRUE(ExtractVideoThumbnail(clip, 40, &same, nullptr, kRunLargest).ok());
  EXPECT_TRUE(SameBitmap(small, same));

  const std::string copy = dir_.Path("copy.mp4");
  std::ifstream in(clip, std::ios::binary);
  std::ofstream(copy, std::ios::binary) << in.rdbuf();
  image::Bitmap fresh;
  ASSERT_TRUE(ExtractVideoThumbnail(copy, 128, &fresh, nullptr, kRunLargest).ok());
  // Pixels twice as wide as high: the 64x48 frame is shown 128x48.
  EXPECT_EQ(128, fresh.width());
  EXPECT_EQ(48, fresh.height());
  EXPECT_TRUE(SameBitmap(large, fresh));
  ASSERT_TRUE(ExtractVideoThumbnail(copy, 40, &fresh, nullptr, kRunLargest).ok());
  EXPECT_TRUE(SameBitmap(small, fresh));

  Make("clip.mp4", "-f lavfi -i color=c=red:s=64x48:r=10:d=2 " + std::string(kH264));
  ASSERT_TRUE(ExtractVideoThumbnail(clip, 40, &fresh, nullptr, kRunLargest).ok());
  EXPECT_EQ(40, fresh.width());
  EXPECT_TRUE(RedBgra(Pixel(fresh, 30, 20)));
}

// Column of the left edge of the red bar on the middle row, or -1.
int RedBarLeft(const image::Bitmap& bitmap) {
  for (int x = 0; x < bitmap.width(); ++x) {
    if (RedBgra(Pixel(bitmap, x, bitmap.height() / 2))) return x;
  }
  return -1;
}

// Frames before one second that no other frame refers to are not decoded:
// the frame shown at one second (or the last frame of a clip whose video
// ends early) must still be exactly the one chosen, among B-frames.
TEST_F(VideoFfmpegTest, PicksTheSameFrameAmongUndecodedBFrames) {
  // 64x48 frames with a red bar whose left edge is at 60 - 4 * frame number.
  const std::string moving =
      "-f lavfi -i color=c=blue:s=184x48:r=10:d=DURATION,drawbox=x=60:y=0:w=8:h=48:color=red:t=fill,"
      "crop=w=64:h=48:x=n*4:y=0 ";
  // Three B-frames between P-frames throughout, none of them referred to.
  const std::string b_frames =
      "-c:v libx264 -preset medium -bf 3 -g 300 -x264-params b-adapt=0:scenecut=0:b-pyramid=none "
      "-pix_fmt yuv420p ";
  struct Case {
    const char* duration;
    const char* audio;
    int bar_left;
  };
  // The second clip's video stops at 0.5 s while its audio, and so the file,
  // lasts three seconds.
  for (const Case& c : {Case{"3", "", 60 - 4 * 10}, Case{"0.5", "-f lavfi -i sine=d=3 -c:a aac ", 60 - 4 * 4}}) {
    SCOPED_TRACE(c.duration);
    std::string source = moving;
    source.replace(source.find("DURATION"), 8, c.duration);
    const std::string clip = Make(std::string("bars-") + c.duration + ".mp4", source + c.audio + b_frames);
    image::Bitmap thumb;
    ASSERT_TRUE(ExtractVideoThumbnail(clip, 64, &thumb).ok());
    ASSERT_EQ(64, thumb.width());
    EXPECT_NEAR(c.bar_left, RedBarLeft(thumb), 1);
  }
}

TEST_F(VideoFfmpegTest, CoverArtCountsAsVideoButPlainAudioDoesNot) {
  const std::string cover = Make("cover.png", "-f lavfi -i color=c=red:s=40x40 -frames:v 1");
  const std::string with_art = Make("art.m4a", "-f lavfi -i sine=d=1 -i '" + cover +
                                                   "' -map 0 -map 1 -c:a aac -c:v png -disposition:v attached_pic");
  EXPECT_TRUE(IsVideoContent(with_art));
  image::Bitmap thumb;
  ASSERT_TRUE(ExtractVideoThumbnail(with_art, 20, &thumb).ok());
  EXPECT_EQ(20, thumb.width());
  EXPECT_TRUE(RedBgra(Pixel(thumb, 10, 10)));

  const std::string plain = Make("plain.m4a", "-f lavfi -i sine=d=1 -c:a aac");
  EXPECT_FALSE(IsVideoContent(plain));
  EXPECT_EQ(Status::Code::kNotSupported, ExtractVideoThumbnail(plain, 20, &thumb).code());
  EXPECT_NE("", ExportMessage(plain, dir_.Path("plain.jpg")));
}

// The stream a thumbnail is made of is one with frames, not simply the
// first declared: a download cut short may declare video streams that never
// got a packet (the container's choice skips them), and the stream chosen
// may have packets of which none decodes (the next one is taken).
TEST_F(VideoFfmpegTest, TakesAVideoStreamThatHasFrames) {
  const std::string red = Make("red.wmv", "-f lavfi -i color=c=red:s=64x48:r=10:d=2 -c:v wmv2");
  // Started past their end, the first two inputs give no frames to encode.
  Make("cut-short.wmv", "-ss 10 -i '" + red + "' -ss 10 -i '" + red + "' -i '" + red +
                            "' -map 0:v -map 1:v -map 2:v -c:v wmv2");
  const std::string green = Make("green.mkv", "-f lavfi -i color=c=green:s=64x48:r=10:d=2 -c:v mpeg4");
  // Every byte of the first stream's packets overwritten.
  Make("damaged.mkv", "-i '" + green + "' -i '" + green + "' -map 0:v -map 1:v -c copy -bsf:v:0 noise=amount=1");
  struct Case {
    const char* name;
    bool (*colour)(const uint8_t*);
  };
  for (const Case& c : {Case{"cut-short.wmv", RedBgra}, Case{"damaged.mkv", GreenBgra}}) {
    SCOPED_TRACE(c.name);
    const std::string path = dir_.Path(c.name);
    image::Bitmap thumb;
    const Status status = ExtractVideoThumbnail(path, 64, &thumb);
    ASSERT_TRUE(status.ok()) << status.ToString();
    EXPECT_TRUE(c.colour(Pixel(thumb, 32, 24)));
  }
  EXPECT_EQ("", ExportMessage(dir_.Path("cut-short.wmv"), dir_.Path("frame.jpg")));
}

TEST_F(VideoFfmpegTest, RefusesListsImagesMissingAndDamagedFiles) {
  const std::string clip = Make("clip.mp4", std::string(kMarked) + kH264);
  std::ofstream(dir_.Path("list.ffconcat")) << "ffconcat version 1.0\nfile 'clip.mp4'\n";
  std::ofstream(dir_.Path("list.m3u8")) << "#EXTM3U\n#EXT-X-TARGETDURATION:2\n#EXTINF:2,\nclip.mp4\n#EXT-X-ENDLIST\n";
  Make("still.jpg", "-f lavfi -i color=c=red:s=40x40 -frames:v 1");
  for (const char* name : {"list.ffconcat", "list.m3u8", "still.jpg", "missing.mp4"}) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(IsVideoContent(dir_.Path(name)));
    image::Bitmap thumb;
    EXPECT_FALSE(ExtractVideoThumbnail(dir_.Path(name), 32, &thumb).ok());
    EXPECT_TRUE(thumb.empty());
  }
  image::Bitmap thumb;
  EXPECT_EQ(Status::Code::kNotFound, ExtractVideoThumbnail(dir_.Path("missing.mp4"), 32, &thumb).code());
  EXPECT_EQ("Failed to create source reader", ExportMessage(dir_.Path("list.m3u8"), dir_.Path("x.jpg")));

  // Every prefix of a clip fails cleanly or gives a picture; none crashes.
  std::ifstream in(clip, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  for (size_t length : {size_t{0}, size_t{100}, bytes.size() / 3, bytes.size() - 7}) {
    const std::string cut = dir_.Path("cut.mp4");
    std::ofstream(cut, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(length));
    Status status = ExtractVideoThumbnail(cut, 32, &thumb);
    if (status.ok()) {
      EXPECT_LE(thumb.width(), 32);
    }
    ExportMessage(cut, dir_.Path("cut.jpg"));
  }
}

TEST_F(VideoFfmpegTest, HlgVideoIsToneMappedNotWashedOutAndRefusedByTheFrameReader) {
  // The same colour bars as SDR H.264 and as 10-bit HLG BT.2020 HEVC.
  const std::string bars = "-f lavfi -i smptebars=s=64x48:r=10:d=2 ";
  const std::string sdr = Make("sdr.mp4", bars + kH264 + "-colorspace bt709 -color_primaries bt709 -color_trc bt709");
  const std::string hdr = Make("hdr.mp4", bars +
                                              "-vf zscale=tin=bt709:min=bt709:pin=bt709:t=arib-std-b67:m=bt2020nc:"
                                              "p=bt2020,format=yuv420p10le -c:v libx265 -preset ultrafast "
                                              "-x265-params log-level=none -colorspace bt2020nc "
                                              "-color_primaries bt2020 -color_trc arib-std-b67");
  image::Bitmap sdr_thumb, hdr_thumb;
  ASSERT_TRUE(ExtractVideoThumbnail(sdr, 64, &sdr_thumb).ok());
  ASSERT_TRUE(ExtractVideoThumbnail(hdr, 64, &hdr_thumb).ok());
  double sdr_light, sdr_saturation, hdr_light, hdr_saturation;
  MeanLightAndSaturation(sdr_thumb, &sdr_light, &sdr_saturation);
  MeanLightAndSaturation(hdr_thumb, &hdr_light, &hdr_saturation);
  EXPECT_GT(hdr_saturation, 0.75 * sdr_saturation);
  EXPECT_NEAR(hdr_light, sdr_light, 0.2);

  EXPECT_EQ("HDR video is not supported", ExportMessage(hdr, dir_.Path("hdr.jpg")));
}

// A PQ clip's highlights reach white at the peak it declares (MaxCLL, else
// its mastering display's), and at 1000 cd/m² when it declares none: a
// grey of 300 cd/m² is white only in the clips that say it is their peak.
TEST_F(VideoFfmpegTest, PqHighlightsReachWhiteAtTheDeclaredPeak) {
  struct Case {
    const char* name;
    const char* metadata;
    bool white;
  };
  for (const Case& c : {Case{"none.mp4", "", false}, Case{"max-cll.mp4", ":hdr10=1:max-cll=300,100", true},
                        Case{"mastering.mp4",
                             ":hdr10=1:master-display=G(13250,34500)B(7500,3000)R(34000,16000)"
                             "WP(15635,16450)L(3000000,50)",
                             true}}) {
    SCOPED_TRACE(c.name);
    const std::string clip =
        Make(c.name, "-f lavfi -i color=c=white:s=64x48:r=10:d=1.5 "
                     "-vf zscale=tin=bt709:min=bt709:pin=bt709:t=smpte2084:m=bt2020nc:p=bt2020:npl=300,"
                     "format=yuv420p10le -c:v libx265 -preset ultrafast -x265-params 'log-level=none" +
                         std::string(c.metadata) +
                         "' -colorspace bt2020nc -color_primaries bt2020 -color_trc smpte2084");
    image::Bitmap thumb;
    ASSERT_TRUE(ExtractVideoThumbnail(clip, 64, &thumb).ok());
    const uint8_t* p = Pixel(thumb, 32, 24);
    EXPECT_EQ(p[0], p[2]);
    if (c.white) {
      EXPECT_GE(p[1], 253);
    } else {
      EXPECT_LE(p[1], 248);
      EXPECT_GE(p[1], 230);
    }
  }
}

std::shared_ptr<const utility::Cancellation> Cancelled() {
  auto cancellation = std::make_shared<utility::Cancellation>();
  cancellation->Cancel();
  return cancellation;
}

// An abandoned job's video work stops at its next read: before opening, in
// the middle of decoding a file already probed, and in the frame reader once
// the run's deadline has passed. A stop is no failure of the file: it is
// tried again, and then works.
TEST_F(VideoFfmpegTest, CancelledWorkStopsAtOnceAndIsTriedAgainLater) {
  const std::string clip = Make("clip.mp4", std::string(kMarked) + kH264);
  image::Bitmap thumb;
  EXPECT_FALSE(IsVideoContent(clip, Cancelled()));
  EXPECT_EQ(Status::Code::kTimeout, ExtractVideoThumbnail(clip, 32, &thumb, Cancelled()).code());
  ASSERT_TRUE(IsVideoContent(clip));  // keeps the probed file for the decode
  EXPECT_EQ(Status::Code::kTimeout, ExtractVideoThumbnail(clip, 32, &thumb, Cancelled()).code());
  EXPECT_TRUE(thumb.empty());
  ASSERT_TRUE(ExtractVideoThumbnail(clip, 32, &thumb).ok());
  EXPECT_EQ(32, thumb.width());

  try {
    SourceReader reader(CreateFfmpegMediaSource(std::chrono::steady_clock::now()), utility::UTF8ToUTF16(clip),
                        SourceReader::kDefaultReadWait);
    ADD_FAILURE() << "opened after the deadline";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ("Failed to create source reader", error.what());
  }
}

// A file that cannot be done is tried once: later requests get the same
// failure without opening it (so even a cancelled one does), until the file
// changes.
TEST_F(VideoFfmpegTest, FailuresThatWouldRepeatAreRememberedForTheFile) {
  const std::string tiny = Make("tiny.mkv", "-f lavfi -i color=c=blue:s=16x16:r=1:d=1 " + std::string(kH264));
  // More tracks than any real file has: refused when opened.
  std::string maps;
  for (int i = 0; i < 300; ++i) maps += "-map 0:v ";
  Make("tracks.mkv", "-i '" + tiny + "' " + maps + "-c copy");
  // A clip whose frames are all zero bytes: it opens, but nothing decodes.
  const std::string good = Make("good.mp4", "-f lavfi -i color=c=green:s=64x48:r=10:d=1 " + std::string(kH264));
  std::ifstream in(good, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const size_t mdat = bytes.find("mdat");
  ASSERT_TRUE(mdat != std::string::npos && mdat >= 4);
  size_t box_size = 0;
  for (size_t i = mdat - 4; i < mdat; ++i) box_size = box_size << 8 | static_cast<uint8_t>(bytes[i]);
  ASSERT_LE(mdat - 4 + box_size, bytes.size());
  std::string zeroed = bytes;
  std::fill(zeroed.begin() + mdat + 4, zeroed.begin() + (mdat - 4 + box_size), '\0');
  std::ofstream(dir_.Path("zeroed.mp4"), std::ios::binary) << zeroed;

  struct Case {
    const char* name;
    bool opens;
  };
  for (const Case& c : {Case{"tracks.mkv", false}, Case{"zeroed.mp4", true}}) {
    SCOPED_TRACE(c.name);
    const std::string path = dir_.Path(c.name);
    EXPECT_EQ(c.opens, IsVideoContent(path));
    image::Bitmap thumb;
    const Status first = ExtractVideoThumbnail(path, 32, &thumb);
    ASSERT_FALSE(first.ok());
    EXPECT_NE(Status::Code::kTimeout, first.code());
    EXPECT_EQ(first.code(), ExtractVideoThumbnail(path, 64, &thumb, Cancelled()).code()) << first.ToString();
    EXPECT_EQ(c.opens, IsVideoContent(path, Cancelled()));
    EXPECT_TRUE(thumb.empty());
  }

  // The same name with other content is another file.
  std::ofstream(dir_.Path("zeroed.mp4"), std::ios::binary) << bytes;
  image::Bitmap thumb;
  ASSERT_TRUE(ExtractVideoThumbnail(dir_.Path("zeroed.mp4"), 32, &thumb).ok());
  EXPECT_TRUE(GreenBgra(Pixel(thumb, 16, 12)));
}

// Frames larger than any request of a run are converted (and tone-mapped)
// at the size the largest request needs: every request up to it gets what
// a full-size conversion would give in size, and a larger one than the run
// makes still gets the whole frame.
TEST_F(VideoFfmpegTest, HugeFramesAreConvertedAtTheSizeTheRunNeeds) {
  const std::string hdr_args =
      "-vf zscale=tin=bt709:min=bt709:pin=bt709:t=smpte2084:m=bt2020nc:p=bt2020,format=yuv420p10le "
      "-c:v libx265 -preset ultrafast -x265-params log-level=none "
      "-colorspace bt2020nc -color_primaries bt2020 -color_trc smpte2084 ";
  struct Case {
    const char* name;
    std::string codec;
  };
  for (const Case& c : {Case{"wide-sdr.mp4", kH264}, Case{"wide-pq.mp4", hdr_args}}) {
    SCOPED_TRACE(c.name);
    const std::string clip = Make(c.name, "-f lavfi -i color=c=green:s=4000x96:r=10:d=1.5 " + c.codec);
    struct Request {
      uint32_t cx;
      int width, height;
    };
    for (const Request& r : {Request{3840, 3840, 92}, Request{360, 360, 9}, Request{3840, 3840, 92},
                             Request{8000, 4000, 96}, Request{100, 100, 2}}) {
      SCOPED_TRACE(r.cx);
      image::Bitmap thumb;
      ASSERT_TRUE(ExtractVideoThumbnail(clip, r.cx, &thumb, nullptr, kRunLargest).ok());
      EXPECT_EQ(r.width, thumb.width());
      EXPECT_EQ(r.height, thumb.height());
      EXPECT_TRUE(GreenBgra(Pixel(thumb, thumb.width() / 2, thumb.height() / 2)));
    }
  }
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
