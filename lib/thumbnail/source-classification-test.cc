#include "lib/thumbnail/source-classification.h"

#include <string>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "lib/thumbnail/thumbnail-size.h"

namespace tessera {
namespace thumbnail {
namespace {

TEST(ThumbnailSizeTest, TableNamesAndFallbacks) {
  EXPECT_THAT(AllSizes(), ::testing::ElementsAre(0u, 1u, 2u, 3u));
  const char* names[] = {"small", "small-medium", "medium", "large"};
  const uint32_t edges[] = {120, 240, 320, 1280};
  for (ThumbnailSize size : AllSizes()) {
    EXPECT_EQ(names[size], SizeName(size));
    EXPECT_EQ(edges[size], PixelSize(size));
    EXPECT_EQ(size, SizeFromName(SizeName(size)));
  }
  EXPECT_EQ("", SizeName(4));
  EXPECT_EQ(0u, PixelSize(0xFFFFFFFFu));
  // Unknown names are not refused: they mean "small".
  EXPECT_EQ(0u, SizeFromName("Large"));
  EXPECT_EQ(0u, SizeFromName(""));

  EXPECT_EQ("out/abcdefgh", ThumbnailResult::FromPath("out/abcdefgh").path());
  EXPECT_TRUE(ThumbnailResult::FromPath("").has_path());
  EXPECT_FALSE(ThumbnailResult::FromError(kTimeout).has_path());
  EXPECT_EQ(kTimeout, ThumbnailResult::FromError(kTimeout).error());
  EXPECT_TRUE(kSupportedOptions().empty());
}

TEST(SourceClassificationTest, SetsAreLowercaseAndDisjoint) {
  EXPECT_EQ(32u, kImageExtensions().size());
  EXPECT_EQ(48u, kVideoExtensions().size());
  EXPECT_EQ(2u, kHeifExtensions().size());
  for (const std::string& extension : kImageExtensions()) {
    EXPECT_FALSE(IsVideoExtension(extension)) << extension;
    EXPECT_EQ(ToLowerAscii(extension), extension);
  }
  for (const std::string& extension : kVideoExtensions()) EXPECT_EQ(ToLowerAscii(extension), extension);
  for (const std::string& extension : kHeifExtensions()) EXPECT_TRUE(IsImageExtension(extension));
  EXPECT_EQ(22u, kCameraRawExtensions().size());
  for (const std::string& extension : kCameraRawExtensions()) EXPECT_TRUE(IsImageExtension(extension));
  EXPECT_TRUE(IsCameraRawPath("dc20/PIC001.RAW"));
  EXPECT_FALSE(IsCameraRawPath("photo.jpg"));
}

TEST(SourceClassificationTest, ExtensionOfTheLastComponent) {
  EXPECT_EQ("gz", GetExtension("archive.tar.gz"));
  EXPECT_EQ("dvr-ms", GetExtension("movie.dvr-ms"));
  EXPECT_EQ("profile", GetExtension("home/.profile"));
  EXPECT_EQ("JPG", GetExtension("C:\\Photos\\IMG_1.JPG"));
  EXPECT_EQ("png", GetExtension("a\\b/c.png"));
  EXPECT_EQ("", GetExtension("README"));
  EXPECT_EQ("", GetExtension("photo."));
  EXPECT_EQ("", GetExtension(""));
  // A dot in a directory name is not the file's extension.
  EXPECT_EQ("", GetExtension("my.photos/README"));
  EXPECT_EQ("", GetExtension("my.photos\\README"));
  EXPECT_EQ("", GetExtension("dir.jpg/"));
}

TEST(SourceClassificationTest, ClassifiesSources) {
  EXPECT_TRUE(IsVideoExtension(ToLowerAscii(GetExtension("clip.MP4"))));
  EXPECT_TRUE(IsImageExtension(ToLowerAscii(GetExtension("photo.JPEG"))));
  EXPECT_TRUE(IsImageExtension(ToLowerAscii(GetExtension("scan.Tif"))));
  EXPECT_TRUE(IsSupportedPath("movie.DVR-MS"));
  EXPECT_TRUE(IsVideoExtension("m4a"));
  EXPECT_TRUE(IsHeifExtension("heic"));
  EXPECT_FALSE(IsVideoExtension("heic"));

  EXPECT_FALSE(IsSupportedPath("archive.tar.gz"));
  EXPECT_FALSE(IsSupportedPath("README"));
  EXPECT_FALSE(IsSupportedPath("photo."));
  EXPECT_FALSE(IsSupportedPath("jpg"));
  // The sets themselves are case-sensitive; the caller lowercases.
  EXPECT_FALSE(IsSupportedExtension("MP4"));
  EXPECT_FALSE(IsSupportedExtension(".jpg"));
  // Only ASCII capitals change; UTF-8 bytes ("É" is C3 89) stay.
  EXPECT_EQ("\xC3\x89t\xC3\xA9", ToLowerAscii("\xC3\x89T\xC3\xA9"));
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
