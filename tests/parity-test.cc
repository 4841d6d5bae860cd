// The Windows build against this build on the same files: for every kind of
// picture and video the tool takes, the same report (the same sizes, or
// null for both) and the same thumbnails, pixel for pixel within what two
// builds of the same decoders may differ by. Runs when TESSERA_WINDOWS_TOOL
// names the Windows build (run under Wine, see tool-runner.h); skipped
// otherwise. Prints each file's run times, Linux and Windows.
#include <json/json.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "lib/codec/heif/testing/heif-fixtures.h"
#include "lib/codec/testing/bmp-fixtures.h"
#include "lib/codec/testing/camera-fixtures.h"
#include "lib/codec/testing/image-fixtures.h"
#include "lib/codec/tiff/testing/tiff-fixtures.h"
#include "lib/color/testing/icc-fixtures.h"
#include "lib/utility/testing/scratch-dir.h"
#include "lib/video/testing/video-test-files.h"
#include "tests/tool-runner.h"

namespace tessera {
namespace {

namespace fixtures = codec::testing;
using testing::ProcessResult;
using thumbnail::testing_util::ReadJpeg;
using thumbnail::testing_util::RgbImage;

// Of 255, over every channel of every pixel, and for all but the 1 % of
// channel values that differ most (sharp edges differ most when two
// builds' scalers or decoders round differently).
constexpr double kMaxMeanDifference = 2.0;
constexpr int kMaxP99Difference = 24;

using Maker = std::function<bool(const std::string& path)>;

struct Fixture {
  const char* name;  // the source's file name, which gives its extension
  Maker make;
};

Maker Bytes(std::function<std::string()> bytes) {
  return [bytes](const std::string& path) {
    const std::string content = bytes();
    std::ofstream(path, std::ios::binary) << content;
    return !content.empty();
  };
}

// The ffmpeg command with `args` (separated by spaces) and the path last.
Maker Ffmpeg(const std::string& args) {
  return [args](const std::string& path) {
    std::vector<std::string> argv = {"-nostdin", "-v", "error", "-y"};
    std::istringstream words(args);
    for (std::string word; words >> word;) argv.push_back(word);
    argv.push_back(path);
    const ProcessResult run = testing::RunProcess("ffmpeg", argv);
    return run.exited && run.status == 0;
  };
}

// Made from another fixture's file by `change`.
Maker From(const std::string& other, std::function<bool(const std::string& from, const std::string& to)> change) {
  return [other, change](const std::string& path) {
    return change(path.substr(0, path.rfind('/') + 1) + other, path);
  };
}

fixtures::RgbImage Quarters(int width, int height) {
  fixtures::RgbImage image(width, height, 230, 40, 40);
  image.Fill(width / 2, 0, width, height / 2, 40, 200, 60);
  image.Fill(0, height / 2, width / 2, height, 50, 60, 220);
  image.Fill(width / 2, height / 2, width, height, 240, 220, 60);
  return image;
}

fixtures::JpegOptions Orientation(int exif) {
  fixtures::JpegOptions options;
  options.exif_orientation = exif;
  return options;
}

fixtures::PngImage Png(uint8_t color_type, uint8_t bit_depth, bool interlaced) {
  fixtures::PngImage png;
  png.width = 300;
  png.height = 200;
  png.color_type = color_type;
  png.bit_depth = bit_depth;
  png.interlaced = interlaced;
  const int channels = color_type == 6 ? 4 : color_type == 3 ? 1 : 3;
  const int bytes = bit_depth / 8 * channels;
  png.samples.resize(static_cast<size_t>(png.width) * png.height * bytes);
  for (size_t i = 0; i < png.samples.size(); ++i) png.samples[i] = static_cast<uint8_t>((i * 7 / bytes) % 251);
  if (color_type == 3) {
    for (int i = 0; i < 256; ++i) png.palette_rgb.insert(png.palette_rgb.end(), {uint8_t(i), uint8_t(255 - i), 90});
    png.trns.assign(128, 0);
  }
  return png;
}

fixtures::TiffPage Tiff(int bits) {
  fixtures::TiffPage page;
  page.width = 320;
  page.height = 240;
  page.bits = bits;
  const double full = bits == 16 ? 65535 : 255;
  page.pixel = [full](int x, int y, int s) { return (s == 0 ? x / 320.0 : s == 1 ? y / 240.0 : 0.4) * full; };
  return page;
}

std::string RleBmp() {
  // RLE8, 6x4 bottom-up: two blue rows below two red ones.
  fixtures::BmpLayout layout;
  layout.width = 6;
  layout.height = 4;
  layout.bits = 8;
  layout.compression = 1;
  layout.palette = {0x0000FF, 0xFF0000};
  const uint8_t rle8[] = {6, 0, 0, 0, 6, 0, 0, 0, 6, 1, 0, 0, 6, 1, 0, 1};
  layout.pixels.assign(reinterpret_cast<const char*>(rle8), sizeof(rle8));
  return fixtures::EncodeBmp(layout);
}

bool Truncate(const std::string& from, const std::string& to, double keep) {
  std::ifstream in(from, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::ofstream(to, std::ios::binary) << bytes.substr(0, static_cast<size_t>(bytes.size() * keep));
  return !bytes.empty();
}

const char kClip[] = "-f lavfi -i testsrc2=s=320x180:r=25:d=2 ";
const char kH264[] = "-c:v libx264 -preset ultrafast -pix_fmt yuv420p ";
const char kHevc10[] = "-c:v libx265 -preset ultrafast -x265-params log-level=none -pix_fmt yuv420p10le ";

std::vector<Fixture> Fixtures() {
  std::vector<Fixture> all = {
      {"baseline.jpg", Bytes([] { return fixtures::EncodeJpeg(Quarters(640, 480)); })},
      {"progressive.jpg", Bytes([] {
         fixtures::JpegOptions options;
         options.progressive = true;
         return fixtures::EncodeJpeg(Quarters(640, 480), options);
       })},
      {"cmyk.jpg", Bytes([] {
         const uint8_t ink[4] = {0, 200, 220, 10};
         return fixtures::EncodeCmykJpeg(200, 150, ink, false);
       })},
      {"ycck.jpg", Bytes([] {
         const uint8_t ink[4] = {180, 20, 0, 30};
         return fixtures::EncodeCmykJpeg(200, 150, ink, true);
       })},
      {"icc.jpg", Bytes([] {
         fixtures::JpegOptions options;
         options.icc = color::testing::DisplayP3Profile();
         return fixtures::EncodeJpeg(Quarters(400, 300), options);
       })},
      {"gray.jpg", Ffmpeg("-f lavfi -i testsrc2=s=320x240 -frames:v 1 -pix_fmt gray")},
      {"truncated.jpg", From("baseline.jpg", [](const std::string& from, const std::string& to) {
         return Truncate(from, to, 0.6);
       })},
      {"alpha.png", Bytes([] { return fixtures::EncodePng(Png(6, 8, false)); })},
      {"deep.png", Bytes([] { return fixtures::EncodePng(Png(2, 16, false)); })},
      {"palette.png", Bytes([] { return fixtures::EncodePng(Png(3, 8, false)); })},
      {"interlaced.png", Bytes([] { return fixtures::EncodePng(Png(2, 8, true)); })},
      {"lzw.tif", Bytes([] { return fixtures::WriteTiff({Tiff(8)}); })},
      {"tiled.tif", Bytes([] {
         fixtures::TiffPage page = Tiff(8);
         page.tiled = true;
         return fixtures::WriteTiff({page});
       })},
      {"pages.tif", Bytes([] { return fixtures::WriteTiff({Tiff(8), Tiff(16)}); })},
      {"deep.tif", Bytes([] { return fixtures::WriteTiff({Tiff(16)}); })},
      {"turned.tif", Bytes([] {
         fixtures::TiffPage page = Tiff(8);
         page.orientation = 6;
         return fixtures::WriteTiff({page});
       })},
      {"animated.gif", Ffmpeg("-f lavfi -i testsrc2=s=160x120:r=5:d=1")},
      {"transparent.gif",
       Ffmpeg("-f lavfi -i color=c=red@0.0:s=96x64:d=0.04,format=rgba -frames:v 1 -filter_complex "
              "drawbox=x=24:y=16:w=48:h=32:color=blue:t=fill,split[a][b];[a]palettegen=reserve_transparent=1[p];"
              "[b][p]paletteuse")},
      {"palette.bmp", Ffmpeg("-f lavfi -i testsrc2=s=160x120 -frames:v 1 -pix_fmt pal8")},
      {"rgb.bmp", Ffmpeg("-f lavfi -i testsrc2=s=160x120 -frames:v 1 -pix_fmt bgr24")},
      {"rgba.bmp", Ffmpeg("-f lavfi -i testsrc2=s=160x120 -frames:v 1 -pix_fmt bgra")},
      {"rle.bmp", Bytes(RleBmp)},
      // WebP content under a name of another format.
      {"webp.png", Ffmpeg("-f lavfi -i testsrc2=s=320x240 -frames:v 1 -c:v libwebp -f webp")},
      {"photo.heic", Bytes([] {
         fixtures::HeifFixture heif;
         heif.width = 320;
         heif.height = 240;
         heif.paint = [](int x, int y, uint16_t* rgb) {
           rgb[0] = static_cast<uint16_t>(x * 255 / 320);
           rgb[1] = static_cast<uint16_t>(y * 255 / 240);
           rgb[2] = 128;
         };
         return fixtures::EncodeHeif(heif);
       })},
      // AV1 in a HEIF container, 10-bit PQ.
      {"pq.heif", Ffmpeg("-f lavfi -i testsrc2=s=320x240 -frames:v 1 -vf "
                         "zscale=tin=bt709:min=bt709:pin=bt709:t=smpte2084:m=bt2020nc:p=bt2020,format=yuv420p10le "
                         "-c:v libaom-av1 -cpu-used 8 -still-picture 1 -color_primaries bt2020 -color_trc smpte2084 "
                         "-colorspace bt2020nc -f avif")},
      {"camera.dng", Bytes([] { return fixtures::BayerDng(300, 200); })},

      {"h264.mp4", Ffmpeg(std::string(kClip) + kH264)},
      {"hevc.mp4", Ffmpeg(std::string(kClip) + "-c:v libx265 -preset ultrafast -x265-params log-level=none")},
      {"vp9.webm", Ffmpeg(std::string(kClip) + "-c:v libvpx-vp9 -deadline realtime -cpu-used 8")},
      {"av1.mp4", Ffmpeg(std::string(kClip) + "-c:v libaom-av1 -cpu-used 8")},
      {"anamorphic.mpg", Ffmpeg("-f lavfi -i testsrc2=s=720x480:r=25:d=2 -c:v mpeg2video -aspect 16:9")},
      {"offset.ts", Ffmpeg(std::string(kClip) + kH264 + "-output_ts_offset 30")},
      {"short.mp4", Ffmpeg(std::string("-f lavfi -i testsrc2=s=320x180:r=25:d=0.5 ") + kH264)},
      {"hlg.mp4", Ffmpeg(std::string(kClip) +
                         "-vf zscale=tin=bt709:min=bt709:pin=bt709:t=arib-std-b67:m=bt2020nc:p=bt2020 " + kHevc10 +
                         "-colorspace bt2020nc -color_primaries bt2020 -color_trc arib-std-b67")},
      {"pq.mp4", Ffmpeg(std::string(kClip) +
                        "-vf zscale=tin=bt709:min=bt709:pin=bt709:t=smpte2084:m=bt2020nc:p=bt2020 " + kHevc10 +
                        "-colorspace bt2020nc -color_primaries bt2020 -color_trc smpte2084")},
      {"clip.mkv", Ffmpeg(std::string(kClip) + kH264)},
      {"mpeg4.avi", Ffmpeg(std::string(kClip) + "-c:v mpeg4")},
      {"clip.flv", Ffmpeg(std::string(kClip) + "-c:v flv1")},
      {"cover.m4a", Ffmpeg("-f lavfi -i sine=d=1 -f lavfi -i testsrc2=s=200x200:d=0.04 -map 0 -map 1 -c:a aac "
                           "-c:v png -disposition:v attached_pic")},
      {"audio.m4a", Ffmpeg("-f lavfi -i sine=d=1 -c:a aac")},
      {"no-moov.mp4", From("h264.mp4", [](const std::string& from, const std::string& to) {
         return Truncate(from, to, 0.7);  // the moov box sits at the end
       })},
      {"playlist.avi", Bytes([] { return std::string("#EXTM3U\n#EXTINF:1,\nhttp://127.0.0.1:9/clip.ts\n"); })},
  };
  for (const int rotation : {90, 180, 270}) {
    all.push_back({rotation == 90 ? "turned90.mp4" : rotation == 180 ? "turned180.mp4" : "turned270.mp4",
                   From("h264.mp4", [rotation](const std::string& from, const std::string& to) {
                     return Ffmpeg("-i " + from + " -c copy -metadata:s:v:0 rotate=" + std::to_string(rotation))(to);
                   })});
  }
  for (int exif = 1; exif <= 8; ++exif) {
    static const char* const kNames[] = {"", "exif1.jpg", "exif2.jpg", "exif3.jpg", "exif4.jpg",
                                         "exif5.jpg", "exif6.jpg", "exif7.jpg", "exif8.jpg"};
    all.push_back({kNames[exif], Bytes([exif] { return fixtures::EncodeJpeg(Quarters(96, 64), Orientation(exif)); })});
  }
  return all;
}

// Size name -> path, or an empty object for a null report.
Json::Value Report(const ProcessResult& run) {
  Json::Value report;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream in(run.out);
  if (!Json::parseFromStream(builder, in, &report, &errors)) ADD_FAILURE() << "not JSON: " << run.out;
  return report;
}

// How far apart two thumbnails are: empty when alike, else what differs.
std::string Difference(const std::string& linux_path, const std::string& windows_path) {
  RgbImage a;
  RgbImage b;
  if (!ReadJpeg(linux_path, &a) || !ReadJpeg(windows_path, &b)) return "not a JPEG";
  if (a.width != b.width || a.height != b.height) {
    return std::to_string(a.width) + "x" + std::to_string(a.height) + " here, " + std::to_string(b.width) + "x" +
           std::to_string(b.height) + " on Windows";
  }
  std::vector<size_t> histogram(256, 0);
  double sum = 0;
  for (size_t i = 0; i < a.rgb.size(); ++i) {
    const int d = std::abs(a.rgb[i] - b.rgb[i]);
    ++histogram[d];
    sum += d;
  }
  const double mean = a.rgb.empty() ? 0 : sum / a.rgb.size();
  int p99 = 0;
  for (size_t seen = histogram[0]; p99 < 255 && seen < 0.99 * a.rgb.size(); seen += histogram[++p99]) {
  }
  if (mean <= kMaxMeanDifference && p99 <= kMaxP99Difference) return "";
  return "pixels differ by " + std::to_string(mean) + " on average, up to " + std::to_string(p99) + " in 99 %";
}

TEST(ParityTest, TheWindowsBuildMakesTheThumbnailsThisBuildMakes) {
  if (!testing::ToolUnderWine()) GTEST_SKIP() << "TESSERA_WINDOWS_TOOL names no Windows build";
  test::ScratchDir scratch;
  std::printf("%-18s %8s %8s\n", "file", "linux s", "wine s");
  for (const Fixture& fixture : Fixtures()) {
    SCOPED_TRACE(fixture.name);
    const std::string src = scratch.Path(fixture.name);
    ASSERT_TRUE(fixture.make(src)) << "cannot make " << fixture.name;
    test::ScratchDir linux_out;
    test::ScratchDir windows_out;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const ProcessResult linux_run = testing::RunBuiltTool({"--output_dir", linux_out.path(), "--src", src});
    const Clock::time_point middle = Clock::now();
    const ProcessResult windows_run = testing::RunTool({"--output_dir", windows_out.path(), "--src", src});
    const std::chrono::duration<double> linux_time = middle - start;
    const std::chrono::duration<double> windows_time = Clock::now() - middle;
    std::printf("%-18s %8.2f %8.2f\n", fixture.name, linux_time.count(), windows_time.count());
    std::fflush(stdout);
    ASSERT_TRUE(linux_run.exited && linux_run.status == 0) << linux_run.err;
    ASSERT_TRUE(windows_run.exited && windows_run.status == 0) << windows_run.status << " " << windows_run.err;
    const Json::Value linux_report = Report(linux_run);
    const Json::Value windows_report = Report(windows_run);
    ASSERT_EQ(linux_report.getMemberNames(), windows_report.getMemberNames()) << windows_run.out << windows_run.err;
    for (const std::string& size : linux_report.getMemberNames()) {
      EXPECT_EQ("", Difference(linux_report[size].asString(), windows_report[size].asString())) << size;
    }
  }
}

}  // namespace
}  // namespace tessera
