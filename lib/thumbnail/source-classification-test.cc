#include "lib/thumbnail/source-classification.h"

#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "lib/thumbnail/thumbnail-size.h"

namespace tessera {
namespace thumbnail {
namespace {

using ::testing::ElementsAre;

TEST(ThumbnailSizeTest, TableAndOutOfRangeIds) {
  EXPECT_THAT(AllSizes(), ElementsAre(0u, 1u, 2u, 3u));
  EXPECT_EQ(&AllSizes(), &AllSizes());
  const char* names[] = {"small", "small-medium", "medium", "large"};
  const uint32_t edges[] = {120, 240, 320, 1280};
  for (ThumbnailSize size : AllSizes()) {
    EXPECT_EQ(names[size], SizeName(size));
    EXPECT_EQ(edges[size], PixelSize(size));
    EXPECT_EQ(size, SizeFromName(SizeName(size)));
  }
  EXPECT_EQ("", SizeName(4));
  EXPECT_EQ(0u, PixelSize(4));
  EXPECT_EQ("", SizeName(0xFFFFFFFFu));
  EXPECT_EQ(0u, PixelSize(0xFFFFFFFFu));
}

TEST(ThumbnailSizeTest, UnknownNamesFallBackToSmall) {
  EXPECT_EQ(0u, SizeFromName("Large"));
  EXPECT_EQ(0u, SizeFromName("huge"));
  EXPECT_EQ(0u, SizeFromName(""));
  EXPECT_EQ(0u, SizeFromName("medium "));
}

TEST(ThumbnailSizeTest, ResultHoldsPathOrError) {
  ThumbnailResult path = ThumbnailResult::FromPath("out/abcdefgh");
  EXPECT_TRUE(path.has_path());
  EXPECT_EQ("out/abcdefgh", path.path());

  ThumbnailResult error = ThumbnailResult::FromError(kTimeout);
  EXPECT_FALSE(error.has_path());
  EXPECT_EQ(kTimeout, error.error());
  EXPECT_EQ("", error.path());

  // An empty path is still a path.
  EXPECT_TRUE(ThumbnailResult::FromPath("").has_path());
  EXPECT_EQ(3u, static_cast<uint32_t>(kUnsupportedOption));
  EXPECT_TRUE(kSupportedOptions().empty());
}

TEST(SourceClassificationTest, SetSizesAndOverlaps) {
  EXPECT_EQ(32u, kImageExtensions().size());
  EXPECT_EQ(48u, kVideoExtensions().size());
  EXPECT_EQ(2u, kHeifExtensions().size());
  for (const std::string& extension : kImageExtensions()) {
    EXPECT_EQ(0u, kVideoExtensions().count(extension)) << extension;
    EXPECT_EQ(ToLowerAscii(extension), extension);
  }
  for (const std::string& extension : kVideoExtensions()) EXPECT_EQ(ToLowerAscii(extension), extension);
  for (const std::string& extension : kHeifExtensions()) EXPECT_TRUE(IsImageExtension(extension));
}

TEST(SourceClassificationTest, ExtensionOfTheLastComponent) {
  EXPECT_EQ("gz", GetExtension("archive.tar.gz"));
  EXPECT_EQ("dvr-ms", GetExtension("movie.dvr-ms"));
  EXPECT_EQ("profile", GetExtension(".profile"));
  EXPECT_EQ("profile", GetExtension("home/.profile"));
  EXPECT_EQ("JPG", GetExtension("C:\\Photos\\IMG_1.JPG"));
  EXPECT_EQ("", GetExtension("README"));
  EXPECT_EQ("", GetExtension("photo."));
  EXPECT_EQ("", GetExtension(""));
  EXPECT_EQ("", GetExtension("."));
  // A dot in a directory name is not the file's extension.
  EXPECT_EQ("", GetExtension("my.photos/README"));
  EXPECT_EQ("", GetExtension("my.photos\\README"));
  EXPECT_EQ("", GetExtension("dir.jpg/"));
  EXPECT_EQ("png", GetExtension("a\\b/c.png"));
}

TEST(SourceClassificationTest, LowercasesAsciiOnly) {
  EXPECT_EQ("mp4", ToLowerAscii("MP4"));
  EXPECT_EQ("dvr-ms", ToLowerAscii("DVR-MS"));
  // UTF-8 bytes ("É" is C3 89) pass unchanged.
  EXPECT_EQ("\xC3\x89t\xC3\xA9", ToLowerAscii("\xC3\x89T\xC3\xA9"));
}

TEST(SourceClassificationTest, ClassifiesSources) {
  EXPECT_TRUE(IsSupportedPath("clip.MP4"));
  EXPECT_TRUE(IsVideoExtension(ToLowerAscii(GetExtension("clip.MP4"))));
  EXPECT_TRUE(IsImageExtension(ToLowerAscii(GetExtension("photo.JPEG"))));
  EXPECT_TRUE(IsImageExtension(ToLowerAscii(GetExtension("scan.Tif"))));
  EXPECT_TRUE(IsVideoExtension("m4a"));
  EXPECT_TRUE(IsVideoExtension("dvr-ms"));

  EXPECT_TRUE(IsHeifExtension("heic"));
  EXPECT_TRUE(IsImageExtension("heic"));
  EXPECT_FALSE(IsVideoExtension("heic"));
  EXPECT_FALSE(IsHeifExtension("jpg"));

  EXPECT_FALSE(IsSupportedPath("archive.tar.gz"));
  EXPECT_FALSE(IsSupportedPath("README"));
  EXPECT_FALSE(IsSupportedPath("photo."));
  EXPECT_FALSE(IsSupportedPath("jpg"));
  EXPECT_FALSE(IsSupportedPath("clip.mp4 "));

  // The sets themselves are case-sensitive; the caller lowercases.
  EXPECT_FALSE(IsImageExtension("JPG"));
  EXPECT_FALSE(IsSupportedExtension("MP4"));
  EXPECT_FALSE(IsSupportedExtension(""));
  EXPECT_FALSE(IsSupportedExtension(".jpg"));
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
