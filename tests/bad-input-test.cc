// The tool on broken, hostile and odd input. Whatever the source and the
// output directory are, a run must end normally with status 0, print one
// valid JSON report (null or an object of size name -> path) and nothing else
// on standard output, raise no sanitizer report, finish without hanging, and
// leave in the output directory exactly the files the report names.
#include <fcntl.h>
#include <json/json.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "lib/utility/testing/scratch-dir.h"
#include "tests/clean-run.h"
#include "tests/tool-runner.h"

namespace tessera {
namespace {

using testing::ExpectCleanRun;
using testing::ProcessResult;
using testing::RunProcess;
using testing::RunTool;
using test::ScratchDir;

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// Makes a small picture or clip with the ffmpeg command.
bool MakeMedia(const std::string& path, const std::vector<std::string>& codec_args,
               const std::string& source = "testsrc2=size=320x240:rate=10") {
  std::vector<std::string> args = {"-v", "error", "-y", "-f", "lavfi", "-i", source};
  args.insert(args.end(), codec_args.begin(), codec_args.end());
  args.push_back(path);
  const ProcessResult made = RunProcess("ffmpeg", args);
  return made.exited && made.status == 0;
}

class BadInputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(scratch_.path().empty());
    out_ = scratch_.Path("out");
    ASSERT_EQ(mkdir(out_.c_str(), 0755), 0);
  }

  // A fresh, empty output directory for the next run.
  void ClearOutput() {
    std::filesystem::remove_all(out_);
    mkdir(out_.c_str(), 0755);
  }

  int Run(const std::string& src) { return ExpectCleanRun(RunTool({"--output_dir", out_, "--src", src}), out_); }

  std::string Jpeg() {
    const std::string path = scratch_.Path("photo-source.jpg");
    if (!std::filesystem::exists(path)) {
      EXPECT_TRUE(MakeMedia(path, {"-frames:v", "1"}));
    }
    return path;
  }

  ScratchDir scratch_;
  std::string out_;
};

TEST_F(BadInputTest, EmptyFilesOfEveryKindGiveNullReports) {
  for (const char* name : {"a.jpg", "a.jpeg", "a.png", "a.tif", "a.gif", "a.bmp", "a.webp", "a.heic", "a.cr2",
                           "a.nef", "a.dng", "a.mp4", "a.mov", "a.avi", "a.mkv", "a.wmv", "a.txt", "noext"}) {
    SCOPED_TRACE(name);
    const std::string src = scratch_.Path(name);
    WriteFile(src, "");
    EXPECT_EQ(Run(src), 0);
    ClearOutput();
  }
}

TEST_F(BadInputTest, ContentDecidesTheDecoderNotTheName) {
  const std::string text = scratch_.Path("text.jpg");
  WriteFile(text, "This is not a picture, whatever its name says.\n");
  EXPECT_EQ(Run(text), 0);

  const std::string png = scratch_.Path("really-a-png.jpg");
  ASSERT_TRUE(MakeMedia(png, {"-frames:v", "1", "-f", "image2", "-c:v", "png"}));
  ClearOutput();
  EXPECT_EQ(Run(png), 4);
}

TEST_F(BadInputTest, TruncatedFilesFailOrDegradeCleanly) {
  const std::string png = scratch_.Path("whole.png");
  const std::string mp4 = scratch_.Path("whole.mp4");
  ASSERT_TRUE(MakeMedia(png, {"-frames:v", "1"}));
  ASSERT_TRUE(MakeMedia(mp4, {"-t", "3", "-c:v", "libx264", "-pix_fmt", "yuv420p"}));
  const std::string mp4_bytes = ReadFile(mp4);
  const size_t moov = mp4_bytes.find("moov");
  ASSERT_NE(moov, std::string::npos);

  struct Case {
    std::string name;
    std::string bytes;
  };
  const std::string jpeg_bytes = ReadFile(Jpeg());
  const std::string png_bytes = ReadFile(png);
  const Case cases[] = {
      {"cut.jpg", jpeg_bytes.substr(0, jpeg_bytes.size() / 2)},
      {"header-only.jpg", jpeg_bytes.substr(0, 200)},
      {"cut.png", png_bytes.substr(0, png_bytes.size() / 2)},
      {"header-only.png", png_bytes.substr(0, 40)},
      {"no-moov.mp4", mp4_bytes.substr(0, moov - 4)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    WriteFile(scratch_.Path(c.name), c.bytes);
    ClearOutput();
    Run(scratch_.Path(c.name));
  }
}

TEST_F(BadInputTest, SourcesThatAreNotRegularFilesAreRefusedAtOnce) {
  const std::string dir = scratch_.Path("x.jpg");
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  EXPECT_EQ(Run(dir), 0);

  // Opening a FIFO without a writer blocks: nothing may try.
  for (const char* name : {"fifo.jpg", "fifo.mp4"}) {
    SCOPED_TRACE(name);
    const std::string fifo = scratch_.Path(name);
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ClearOutput();
    EXPECT_EQ(Run(fifo), 0);
  }

  // An endless device, given directly and behind names that select a decoder.
  ClearOutput();
  EXPECT_EQ(Run("/dev/zero"), 0);
  for (const char* name : {"zero.jpg", "zero.mp4"}) {
    SCOPED_TRACE(name);
    const std::string link = scratch_.Path(name);
    ASSERT_EQ(symlink("/dev/zero", link.c_str()), 0);
    ClearOutput();
    EXPECT_EQ(Run(link), 0);
  }
}

TEST_F(BadInputTest, OddPathsStillWorkOrFailCleanly) {
  const std::string jpeg = Jpeg();

  const std::string link = scratch_.Path("link.jpg");
  ASSERT_EQ(symlink(jpeg.c_str(), link.c_str()), 0);
  EXPECT_EQ(Run(link), 4);

  ClearOutput();
  EXPECT_EQ(ExpectCleanRun(RunTool({"--output_dir", out_ + "/", "--src", jpeg}), out_), 4);

  // Bytes that are not UTF-8 in the file name.
  const std::string raw_name = scratch_.Path("\xff\xfe-photo.jpg");
  std::filesystem::copy_file(jpeg, raw_name);
  ClearOutput();
  Run(raw_name);

  // A path near the platform's limit, and one beyond it.
  std::string deep = scratch_.path();
  while (deep.size() < 3700) {
    deep += "/" + std::string(200, 'd');
    ASSERT_EQ(mkdir(deep.c_str(), 0755), 0);
  }
  std::filesystem::copy_file(jpeg, deep + "/photo.jpg");
  ClearOutput();
  Run(deep + "/photo.jpg");
  ClearOutput();
  EXPECT_EQ(Run(deep + "/" + std::string(255, 'n') + "/" + std::string(255, 'm') + ".jpg"), 0);

  const std::string missing = scratch_.Path("missing.jpg");
  ClearOutput();
  EXPECT_EQ(Run(missing), 0);

  const std::string unreadable = scratch_.Path("unreadable.jpg");
  std::filesystem::copy_file(jpeg, unreadable);
  ASSERT_EQ(chmod(unreadable.c_str(), 0), 0);
  ClearOutput();
  const int made = Run(unreadable);
  if (geteuid() != 0) {
    EXPECT_EQ(made, 0);  // root reads it anyway
  }
}

TEST_F(BadInputTest, UnusableOutputDirectoriesLeaveNothingBehind) {
  const std::string jpeg = Jpeg();

  const std::string missing = scratch_.Path("no-such-dir");
  EXPECT_EQ(ExpectCleanRun(RunTool({"--output_dir", missing, "--src", jpeg}), ""), 0);
  EXPECT_FALSE(std::filesystem::exists(missing));

  const std::string file_as_dir = scratch_.Path("plain-file");
  WriteFile(file_as_dir, "x");
  EXPECT_EQ(ExpectCleanRun(RunTool({"--output_dir", file_as_dir, "--src", jpeg}), ""), 0);

  const std::string read_only = scratch_.Path("read-only");
  ASSERT_EQ(mkdir(read_only.c_str(), 0555), 0);
  const int made = ExpectCleanRun(RunTool({"--output_dir", read_only, "--src", jpeg}), read_only);
  if (geteuid() != 0) {
    EXPECT_EQ(made, 0);  // root writes anyway
  }
  chmod(read_only.c_str(), 0755);

  // A full disk: every write fails. The file-size limit, inherited by the
  // tool, makes writes fail the same way without a small file system.
  struct rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  void (*saved_handler)(int) = signal(SIGXFSZ, SIG_IGN);
  struct rlimit full = saved;
  full.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
  const ProcessResult run = RunTool({"--output_dir", out_, "--src", jpeg});
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, saved_handler);
  EXPECT_EQ(ExpectCleanRun(run, out_), 0);
}

}  // namespace
}  // namespace tessera
