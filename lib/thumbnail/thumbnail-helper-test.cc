#include "lib/thumbnail/thumbnail-helper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "lib/file/unreported-files.h"
#include "lib/thumbnail/testing/count-of.h"
#include "lib/thumbnail/testing/fake-thumbnail-provider.h"
#include "lib/thumbnail/testing/image-size.h"
#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace thumbnail {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::FakeProviderConfig;
using testing::FakeProviderFactory;
using testing::FakeProviderRecord;
using testing::ReadImageSize;
using testing::ScopedProviderFactory;

using testing::CountOf;

class HelperTest : public ::testing::Test {
 protected:
  void UseProvider(FakeProviderConfig config) {
    fake_ = std::make_unique<ScopedProviderFactory>(FakeProviderFactory(std::move(config), record_));
  }

  ThumbnailResult Generate(const std::string& src, ThumbnailSize size) {
    ThumbnailHelper helper(out_.path());
    helper.SetSrc(src);
    helper.SetSize(size);
    ::testing::internal::CaptureStderr();
    ThumbnailResult result = helper.GenerateForSize();
    log_ = ::testing::internal::GetCapturedStderr();
    return result;
  }

  // The output directory's files, in the separators the generator reports.
  std::vector<std::string> OutputFiles() const {
    std::vector<std::string> files;
    for (const std::string& name : out_.Names()) files.push_back(NormalizeSeparators(out_.Path(name)));
    return files;
  }

  test::ScratchDir in_;
  test::ScratchDir out_;
  std::shared_ptr<FakeProviderRecord> record_ = std::make_shared<FakeProviderRecord>();
  std::unique_ptr<ScopedProviderFactory> fake_;
  std::string log_;
};

TEST_F(HelperTest, SuccessKeepsTheOutputFileAndReportsItsPath) {
  FakeProviderConfig config;
  config.width = 3840;
  config.height = 2160;
  UseProvider(config);
  ThumbnailResult result = Generate("/photos/Beach.JPG", 0);
  ASSERT_TRUE(result.has_path()) << log_;
  EXPECT_THAT(OutputFiles(), ElementsAre(result.path()));  // outlives the helper, no extension
  EXPECT_EQ(out_.path().size() + 9, result.path().size());
  EXPECT_EQ(std::vector<uint32_t>{360}, record_->requested_cx);
  const testing::ImageSize size = ReadImageSize(result.path());
  EXPECT_TRUE(size.is_jpeg);
  EXPECT_EQ(213, size.width);
  EXPECT_EQ(120, size.height);
}

TEST_F(HelperTest, RefusedSourcesMakeNoFile) {
  UseProvider(FakeProviderConfig());
  for (const char* src : {"/a/notes.txt", "/a/README", "/a/trailing.", "/a/archive.tar.gz"}) {
    ThumbnailResult result = Generate(src, 0);
    ASSERT_FALSE(result.has_path()) << src;
    EXPECT_EQ(kUnsupportedType, result.error()) << src;
  }
  ThumbnailHelper with_option(out_.path());
  with_option.SetSrc("/a/photo.jpg");
  with_option.SetOptions({7});
  EXPECT_EQ(kUnsupportedOption, with_option.GenerateForSize().error());
  EXPECT_TRUE(OutputFiles().empty());
  EXPECT_TRUE(record_->items.empty());
}

TEST_F(HelperTest, ExtensionOverrideReplacesTheSourcesExtension) {
  UseProvider(FakeProviderConfig());
  ThumbnailHelper helper(out_.path());
  helper.SetSrc("/a/blob.bin");
  helper.SetExtension("PNG");
  EXPECT_TRUE(helper.GenerateForSize().has_path());
}

TEST_F(HelperTest, FailedImageLeavesNothingBehind) {
  FakeProviderConfig config;
  config.thumbnail_result = kProviderDecodeFailed;
  UseProvider(config);
  ThumbnailResult result = Generate("/a/photo.jpeg", 3);
  ASSERT_FALSE(result.has_path());
  EXPECT_EQ(kFailed, result.error());
  EXPECT_THAT(log_, HasSubstr("Failed to GetThumbnail '" + NormalizeSeparators("/a/photo.jpeg") +
                                    "' '-1001', 3 * size = '3840'"));
  EXPECT_THAT(log_, HasSubstr("GenerateThumbnail Failed '" + NormalizeSeparators("/a/photo.jpeg") + "'"));
  EXPECT_TRUE(OutputFiles().empty());
}

TEST_F(HelperTest, VideoWhoseFrameExportFailsKeepsTheFirstResult) {
  FakeProviderConfig config;
  config.item_result = -2;
  UseProvider(config);
  const std::string src = in_.Path("missing.MP4");
  // Two sizes of one run: the source that the reader could not open is not
  // opened again (a reader that hangs on a broken file gets one chance).
  ThumbnailHelper helper(out_.path());
  helper.SetSrc(src);
  ::testing::internal::CaptureStderr();
  for (ThumbnailSize size : {1, 2}) {
    helper.SetSize(size);
    ThumbnailResult result = helper.GenerateForSize();
    ASSERT_FALSE(result.has_path());
    EXPECT_EQ(kFailed, result.error());
  }
  log_ = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(2, CountOf(log_, "Failed to export frame '" + NormalizeSeparators(src) + "'\n")) << log_;
  EXPECT_EQ(1, CountOf(log_, "Failed to create source reader")) << log_;
  EXPECT_EQ(2u, record_->items.size());  // no second attempt for either size
  EXPECT_TRUE(OutputFiles().empty());     // neither output nor frame file
}

TEST_F(HelperTest, VideoFallsBackToAnExportedFrame) {
  const std::string src = in_.Path("clip.mov");
  const std::string make = "ffmpeg -v error -y -f lavfi -i testsrc=size=320x240:rate=10:duration=2 -pix_fmt yuv420p '" +
                           src + "' </dev/null";
  if (system(make.c_str()) != 0) GTEST_SKIP() << "cannot make a test video";

  // The provider knows only the frames the generator registered as its own,
  // as the Shell provider on a machine without any thumbnail handler does.
  // The frame file is also one that a termination would remove.
  FakeProviderConfig config;
  auto frame_was_unreported = std::make_shared<bool>(false);
  config.item_result_for = [frame_was_unreported](const std::u16string& path) {
    const std::string utf8(path.begin(), path.end());
    // Only the frame file (the source is a .mov) has a handler.
    if (utf8.size() < 4 || utf8.compare(utf8.size() - 4, 4, ".jpg") != 0) return kProviderNoHandler;
    *frame_was_unreported = file::IsUnreportedFile(utf8);
    return 0;
  };
  UseProvider(config);
  ThumbnailResult result = Generate(src, 0);
  ASSERT_TRUE(result.has_path()) << log_;
  EXPECT_THAT(OutputFiles(), ElementsAre(result.path()));  // the frame file is gone
  ASSERT_EQ(2u, record_->items.size());
  const std::string frame(record_->items[1].begin(), record_->items[1].end());
  EXPECT_THAT(frame, ::testing::StartsWith(NormalizeSeparators(out_.path() + "/")));
  EXPECT_TRUE(*frame_was_unreported);
  EXPECT_FALSE(file::IsUnreportedFile(frame));
  // The output stays unreported until the report that names it is out.
  EXPECT_TRUE(file::IsUnreportedFile(result.path()));
  file::ForgetUnreportedFile(result.path());
}

TEST_F(HelperTest, AllSizesComeFromOneJobLargestFirst) {
  FakeProviderConfig config;
  config.width = 3840;
  config.height = 2160;
  UseProvider(config);
  ThumbnailHelper helper(out_.path());
  helper.SetSrc("/photos/wide.png");
  AllSizesResult all = helper.GenerateAllSizes();
  ASSERT_TRUE(all.ok);
  EXPECT_EQ(std::vector<uint32_t>{3840}, record_->requested_cx);
  const char* names[] = {"large", "medium", "small-medium", "small"};
  const int widths[] = {2275, 568, 426, 213};
  ASSERT_EQ(4u, all.paths.size());
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(names[i], all.paths[i].first);
    EXPECT_EQ(widths[i], ReadImageSize(all.paths[i].second).width) << names[i];
  }
  EXPECT_EQ(4u, OutputFiles().size());
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
