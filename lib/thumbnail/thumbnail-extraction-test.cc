#include "lib/thumbnail/thumbnail-extraction.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "lib/thumbnail/testing/count-of.h"
#include "lib/thumbnail/testing/fake-thumbnail-provider.h"
#include "lib/thumbnail/testing/image-size.h"
#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace thumbnail {
namespace {

using ::testing::HasSubstr;
using testing::FakeProviderConfig;
using testing::FakeProviderFactory;
using testing::FakeProviderRecord;
using testing::ReadImageSize;
using Outputs = std::vector<std::shared_ptr<utility::TempFile>>;

using testing::CountOf;

class ExtractionTest : public ::testing::Test {
 protected:
  Outputs MakeOutputs(size_t n) {
    Outputs outputs;
    for (size_t i = 0; i < n; ++i) {
      outputs.push_back(std::make_shared<utility::TempFile>(dir_.path()));
      EXPECT_EQ(0, outputs.back()->Create());
    }
    return outputs;
  }

  // Runs one extraction with a fake provider of a width x height bitmap and
  // returns its result; the error output is kept in log_.
  bool Extract(FakeProviderConfig config, std::vector<uint32_t> sizes, const Outputs& outputs,
               bool as_png = false) {
    ::testing::internal::CaptureStderr();
    bool ok = false;
    try {
      ok = ExtractShellThumbnails(FakeProviderFactory(config, record_), u"/photos/a.jpg", std::move(sizes),
                                  as_png, outputs);
    } catch (...) {
      log_ = ::testing::internal::GetCapturedStderr();
      throw;
    }
    log_ = ::testing::internal::GetCapturedStderr();
    return ok;
  }

  static FakeProviderConfig Bitmap(int width, int height) {
    FakeProviderConfig config;
    config.width = width;
    config.height = height;
    return config;
  }

  test::ScratchDir dir_;
  std::shared_ptr<FakeProviderRecord> record_ = std::make_shared<FakeProviderRecord>();
  std::string log_;
};

TEST(CleanupListTest, RunsActionsLastFirst) {
  std::string order;
  {
    CleanupList cleanup;
    cleanup.Add([&] { order += "a"; });
    cleanup.Add([&] { order += "b"; });
    cleanup.Add([&] { order += "c"; });
  }
  EXPECT_EQ("cba", order);
}

TEST_F(ExtractionTest, ShorterSideBecomesTheSizeTruncatedAndNeverEnlarged) {
  struct Case {
    int width, height;
    std::vector<uint32_t> sizes;
    std::vector<std::pair<int, int>> want;  // each output's width and height
    bool as_png;
  };
  const Case cases[] = {
      // Asked once, for 3 x sizes[0]; each size scaled from the one before.
      {3840, 2160, {1280, 640, 320}, {{2275, 1280}, {1137, 640}, {568, 320}}, false},
      {291, 194, {50}, {{74, 50}}, false},  // 50 / 194 * 291 is just under 75 in double
      {100, 50, {64}, {{100, 50}}, false},  // short side not above the size: kept
      {100, 50, {40}, {{80, 40}}, false},
      {50, 100, {40}, {{40, 80}}, false},      // portrait
      {500, 500, {256}, {{256, 256}}, false},  // square
      {300, 120, {120}, {{300, 120}}, false},  // short side equal to the size: unscaled
      {30, 20, {120}, {{30, 20}}, false},      // small image: never enlarged
      {80, 60, {30}, {{40, 30}}, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + " at " + std::to_string(c.sizes[0]));
    record_ = std::make_shared<FakeProviderRecord>();
    Outputs outputs = MakeOutputs(c.sizes.size());
    ASSERT_TRUE(Extract(Bitmap(c.width, c.height), c.sizes, outputs, c.as_png));
    EXPECT_EQ(std::vector<uint32_t>{3 * c.sizes[0]}, record_->requested_cx);
    for (size_t i = 0; i < outputs.size(); ++i) {
      const testing::ImageSize size = ReadImageSize(outputs[i]->GetPath());
      EXPECT_EQ(c.as_png, size.is_png) << i;
      EXPECT_EQ(!c.as_png, size.is_jpeg) << i;
      EXPECT_EQ(c.want[i].first, size.width) << i;
      EXPECT_EQ(c.want[i].second, size.height) << i;
    }
    EXPECT_EQ("", log_);
    EXPECT_EQ(1, record_->destroyed);
  }
}

TEST_F(ExtractionTest, EachProviderFailureLogsOneErrorLineWithItsSourceLine) {
  struct Case {
    FakeProviderConfig config;
    std::string line;
  };
  FakeProviderConfig item, bind, thumbnail;
  item.item_result = -2;
  bind.bind_result = kProviderNoHandler;
  thumbnail.thumbnail_result = kProviderDecodeFailed;
  const Case cases[] = {
      {item, "(75): Failed to SHCreateItemFromParsingName '/photos/a.jpg' '-2'\n"},
      {bind, "(84): Failed to BindToHandler BHID_ThumbnailHandler '-1000'\n"},
      {thumbnail, "(95): Failed to GetThumbnail '/photos/a.jpg' '-1001', 3 * size = '360'\n"},
  };
  for (const Case& c : cases) {
    Outputs outputs = MakeOutputs(1);
    EXPECT_FALSE(Extract(c.config, {120}, outputs));
    EXPECT_EQ(1, CountOf(log_, "[ERROR]")) << log_;
    EXPECT_THAT(log_, HasSubstr("thumbnail-extraction.cc" + c.line));
    EXPECT_EQ(0u, std::filesystem::file_size(outputs[0]->GetPath()));
  }
  // Every provider that was made was released again.
  EXPECT_EQ(3, record_->destroyed);
}

TEST_F(ExtractionTest, FailedSaveStopsTheCascadeAndKeepsEarlierOutputs) {
  Outputs outputs = MakeOutputs(3);
  // Output 2 cannot be written: a directory stands where its file was.
  const std::string blocked = outputs[2]->GetPath();
  std::filesystem::remove(blocked);
  std::filesystem::create_directory(blocked);

  EXPECT_FALSE(Extract(Bitmap(900, 600), {300, 200, 100}, outputs));
  EXPECT_EQ(1, CountOf(log_, "[ERROR]")) << log_;
  EXPECT_THAT(log_, HasSubstr("thumbnail-extraction.cc(152): Failed to save thumbnail as jpg '/photos/a.jpg', hr = "));
  EXPECT_EQ(450, ReadImageSize(outputs[0]->GetPath()).width);
  EXPECT_EQ(300, ReadImageSize(outputs[1]->GetPath()).width);
}

#ifndef _WIN32
// Someone who can write into the output directory replaces an output while
// the source is being decoded. Nothing may be written through what now
// stands at its name, the save must not hang on it, and the extraction fails
// rather than leave a name that leads elsewhere.
TEST_F(ExtractionTest, AnOutputReplacedDuringTheDecodeIsNeverWrittenThrough) {
  const std::string precious = dir_.Path("precious");
  std::ofstream(precious) << "precious";
  struct Case {
    const char* what;
    std::function<int(const std::string&)> replace;
  };
  const Case cases[] = {
      {"symbolic link", [&](const std::string& at) { return symlink(precious.c_str(), at.c_str()); }},
      {"hard link", [&](const std::string& at) { return link(precious.c_str(), at.c_str()); }},
      {"FIFO", [](const std::string& at) { return mkfifo(at.c_str(), 0600); }},
      // Someone else's file: the name would then lead to a file they own.
      {"regular file",
       [](const std::string& at) {
         std::ofstream(at) << "theirs";
         return 0;
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Outputs outputs = MakeOutputs(1);
    const std::string name = outputs[0]->GetPath();
    FakeProviderConfig config = Bitmap(64, 48);
    config.on_get_thumbnail = [&] {
      ASSERT_EQ(unlink(name.c_str()), 0);
      ASSERT_EQ(c.replace(name), 0);
    };
    EXPECT_FALSE(Extract(config, {32}, outputs));
    EXPECT_EQ(1, CountOf(log_, "[ERROR]")) << log_;
    EXPECT_THAT(log_, HasSubstr("Failed to save thumbnail as jpg '/photos/a.jpg'"));
    std::ifstream in(precious);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()), "precious");
    if (std::filesystem::is_regular_file(std::filesystem::symlink_status(name))) {
      std::ifstream theirs(name);
      const std::string content((std::istreambuf_iterator<char>(theirs)), std::istreambuf_iterator<char>());
      EXPECT_TRUE(content == "precious" || content == "theirs") << content.size() << " bytes";
    }
    unlink(name.c_str());
  }
}
#endif  // _WIN32

TEST_F(ExtractionTest, MissingSizesThrowInvalidVectorSubscript) {
  // An empty list fails after the handler is bound, before any request.
  Outputs one = MakeOutputs(1);
  try {
    Extract(Bitmap(64, 48), {}, one);
    FAIL() << "no exception";
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ("invalid vector subscript", e.what());
  }
  EXPECT_EQ(1, record_->binds);
  EXPECT_TRUE(record_->requested_cx.empty());
  EXPECT_EQ(0u, std::filesystem::file_size(one[0]->GetPath()));

  // Fewer sizes than outputs: fails when the output without a size is reached.
  Outputs two = MakeOutputs(2);
  EXPECT_THROW(Extract(Bitmap(64, 48), {32}, two), std::out_of_range);
  EXPECT_TRUE(ReadImageSize(two[0]->GetPath()).ok());
  EXPECT_EQ(0u, std::filesystem::file_size(two[1]->GetPath()));
  EXPECT_EQ(2, record_->destroyed);
}

TEST_F(ExtractionTest, DefaultEntryPointUsesTheInstalledFactory) {
  Outputs outputs = MakeOutputs(1);
  FakeProviderConfig config = Bitmap(40, 40);
  testing::ScopedProviderFactory scoped(FakeProviderFactory(config, record_));
  EXPECT_TRUE(ExtractShellThumbnails(u"/x.png", {20}, false, outputs));
  ASSERT_EQ(1u, record_->items.size());
  EXPECT_EQ(u"/x.png", record_->items[0]);
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
