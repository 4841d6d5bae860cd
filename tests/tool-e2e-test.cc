// The tool as its caller sees it: arguments, standard output and error, exit
// status and the files left in the output directory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tiffio.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "lib/thumbnail/testing/count-of.h"
#include "lib/thumbnail/testing/image-size.h"
#include "lib/utility/testing/scratch-dir.h"
#include "tests/clean-run.h"
#include "tests/tool-runner.h"

namespace tessera {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using test::ScratchDir;
using testing::ExpectFourThumbnails;
using testing::ProcessResult;
using testing::RunProcess;
using testing::RunTool;
using testing::ToolPath;
using thumbnail::testing::CountOf;
using thumbnail::testing::ReadImageSize;

// Makes a width x height test picture with the ffmpeg command; false when
// that is not possible here.
bool MakePicture(const std::string& path, int width, int height) {
  ProcessResult made = RunProcess(
      "ffmpeg", {"-v", "error", "-y", "-f", "lavfi", "-i",
                 "testsrc=size=" + std::to_string(width) + "x" + std::to_string(height), "-frames:v", "1",
                 "-update", "1", path});
  return made.exited && made.status == 0 && ReadImageSize(path).ok();
}

// Writes a 64x48 RGB TIFF; with `make`, it names the camera that made it, as
// camera RAW files in a TIFF container do.
bool MakeTiff(const std::string& path, const char* make) {
  TIFF* tif = TIFFOpen(path.c_str(), "w");
  if (tif == nullptr) return false;
  const uint32_t width = 64, height = 48;
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 3);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, height);
  if (make != nullptr) TIFFSetField(tif, TIFFTAG_MAKE, make);
  std::vector<uint8_t> row(width * 3, 128);
  bool ok = true;
  for (uint32_t y = 0; y < height && ok; ++y) ok = TIFFWriteScanline(tif, row.data(), y, 0) >= 0;
  TIFFClose(tif);
  return ok;
}

// The parser's own reasons and help text are pinned in its tests; these are
// how the tool passes them on, and the reasons of its own (a missing value).
TEST(ToolArgumentsTest, RejectedCommandLinesPrintReasonAndHelp) {
  struct Case {
    std::vector<std::string> args;
    std::string reason;
  };
  const Case cases[] = {
      {{}, "Argument 'output_dir': Required argument"},
      {{"--size", "3"}, "Argument '--size': '--size' is not a valid argument\n"},
      {{"a.jpg", "--src", "b.jpg"}, "Global: '--src' is not a valid positional argument"},
      {{"--src", "--output_dir", "out"}, "Argument 'src': Expect 1 arguments, but threre are 0"},
      {{"--src", "a.jpg", "--output_dir"}, "Argument 'output_dir': Expect 1 arguments, but threre are 0"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    ProcessResult run = RunTool(c.args);
    ASSERT_TRUE(run.exited);
    EXPECT_EQ(255, run.status);
    EXPECT_EQ("Argument error. (reason: " + c.reason + ")\n", run.err);
    EXPECT_THAT(run.out, StartsWith("Copyright (c) 2003-"));
    EXPECT_THAT(run.out, HasSubstr("\n    --output_dir\tThe path to save thumbnail\n"
                                   "    --src\tThe src image to generate thumbnail\n"));
  }
}

class ToolRunTest : public ::testing::Test {
 protected:
  ScratchDir in_;
  ScratchDir out_;
};

TEST_F(ToolRunTest, PicturesGiveFourThumbnailsAndASortedReport) {
  struct Case {
    std::string name;
    int width, height;
  };
  for (const Case& c : {Case{"photo.JPG", 2000, 1500}, Case{"drawing.png", 300, 200}}) {
    SCOPED_TRACE(c.name);
    const std::string src = in_.Path(c.name);
    if (!MakePicture(src, c.width, c.height)) GTEST_SKIP() << "cannot make test pictures";
    ScratchDir out;
    ExpectFourThumbnails(RunTool({"--output_dir", out.path(), "--src", src}), out.path(), c.width, c.height);
  }
}

TEST_F(ToolRunTest, InlineValuesAndExtraValuesAreAccepted) {
  // Only the first value of an option is used: a second one is ignored.
  const std::string src = in_.Path("photo.png");
  if (!MakePicture(src, 200, 100)) GTEST_SKIP() << "cannot make test pictures";
  ProcessResult run = RunTool({"--src", src, in_.Path("missing.png"), "--output_dir=" + out_.path()});
  ASSERT_TRUE(run.exited);
  EXPECT_EQ(0, run.status) << run.err;
  EXPECT_EQ(4u, out_.Names().size()) << run.err;
  EXPECT_EQ(std::string::npos, run.out.find("missing.png")) << run.out;
}

TEST_F(ToolRunTest, NothingMadePrintsNullAndLeavesNothing) {
  const std::string garbage = in_.MakeFile("broken.jpg", "not a picture");
  for (const std::string& src : {in_.Path("notes.txt"), in_.Path("README"), garbage, in_.Path("missing.png")}) {
    SCOPED_TRACE(src);
    ProcessResult run = RunTool({"--output_dir", out_.path(), "--src", src});
    EXPECT_TRUE(run.exited && run.status == 0) << run.err;
    EXPECT_EQ("null\n\n", run.out);
    EXPECT_TRUE(out_.Names().empty());
  }
}

// The tool copied alone into a folder, without the modules built beside it:
// a JPEG loads none; every format whose decoder is a module is refused
// cleanly, with one ERROR line naming the module (however many sizes are
// tried). With the TIFF module put back but not the RAW one, a plain TIFF
// works again and a camera file in a TIFF container is read as the TIFF it
// also is.
TEST_F(ToolRunTest, WithoutItsModulesOnlyFilesThatNeedThemAreAffected) {
  const std::string tool = in_.Path(testing::ToolCopyName());
  std::filesystem::copy_file(ToolPath(), tool);
  const std::string jpeg = in_.Path("photo.jpg");
  if (!MakePicture(jpeg, 320, 240)) GTEST_SKIP() << "cannot make test pictures";
  const std::string tiff = in_.Path("scan.tif");
  const std::string camera_tiff = in_.Path("camera.tif");
  ASSERT_TRUE(MakeTiff(tiff, nullptr) && MakeTiff(camera_tiff, "Tessera"));
  // Without its module a file is refused before it is read, so a signature
  // is all these need.
  const std::string raw = in_.Path("camera.x3f");
  std::ofstream(raw, std::ios::binary) << "FOVb" << std::string(256, '\0');
  const std::string heif = in_.Path("photo.heic");
  std::ofstream(heif, std::ios::binary) << std::string("\0\0\0\x18" "ftypheic\0\0\0\0mif1heic", 24)
                                        << std::string(256, '\0');
  const std::string gif = in_.Path("anim.gif");
  std::ofstream(gif, std::ios::binary) << "GIF89a" << std::string(256, '\0');
  // ".webp" is not a name the tool takes: WebP content arrives misnamed.
  const std::string webp = in_.Path("webp-photo.jpg");
  std::ofstream(webp, std::ios::binary) << std::string("RIFF\xF8\0\0\0WEBPVP8 ", 16) << std::string(256, '\0');

  struct Case {
    std::string src;
    size_t thumbnails;
    const char* missing_module;  // nullptr: none is loaded
  };
  auto check = [&](const Case& c) {
    ProcessResult run = testing::RunToolCopy(tool, {"--output_dir", out_.path(), "--src", c.src});
    ASSERT_TRUE(run.exited) << c.src;
    EXPECT_EQ(0, run.status) << c.src;
    EXPECT_EQ(c.thumbnails, out_.Names().size()) << c.src << "\n" << run.err;
    if (c.thumbnails == 0) {
      EXPECT_EQ("null\n\n", run.out) << c.src;
    }
    EXPECT_EQ(c.missing_module ? 1 : 0, CountOf(run.err, "cannot load the ")) << c.src << "\n" << run.err;
    if (c.missing_module) {
      EXPECT_EQ(1, CountOf(run.err, std::string("cannot load the ") + c.missing_module + " module")) << run.err;
    }
    for (const std::string& name : out_.Names()) std::filesystem::remove(out_.Path(name));
  };
  const Case alone[] = {
      {jpeg, 4, nullptr}, {tiff, 0, "TIFF"}, {camera_tiff, 0, "TIFF"}, {gif, 0, "GIF"},
      {webp, 0, "WebP"},  {raw, 0, "RAW"},   {heif, 0, "HEIF"},
  };
  for (const Case& c : alone) check(c);

  const std::string tiff_module = testing::ModuleFileName("tessera-tiff");
  std::filesystem::copy_file(std::filesystem::path(ToolPath()).parent_path() / tiff_module, in_.Path(tiff_module));
  const Case with_tiff_module[] = {{tiff, 4, nullptr}, {camera_tiff, 4, "RAW"}};
  for (const Case& c : with_tiff_module) check(c);
}

}  // namespace
}  // namespace tessera
