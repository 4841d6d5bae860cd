#include "lib/thumbnail/decoder-thumbnail-provider.h"

#ifndef _WIN32
#include <sys/stat.h>
#endif

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "gtest/gtest.h"
#include "lib/codec/reduction-cache.h"
#include "lib/codec/testing/camera-fixtures.h"
#include "lib/codec/testing/image-fixtures.h"
#include "lib/thumbnail/thumbnail-provider.h"
#include "lib/thumbnail/thumbnail-size.h"
#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace thumbnail {
namespace {

// A grey RGB PNG.
std::string GreyPng(int width, int height) {
  codec::testing::PngImage png;
  png.width = width;
  png.height = height;
  png.color_type = 2;
  png.samples.assign(static_cast<size_t>(width) * height * 3, 90);
  return codec::testing::EncodePng(png);
}

class DecoderProviderTest : public ::testing::Test {
 protected:
  std::u16string Write(const std::string& name, const std::string& bytes) {
    const std::string path = dir_.Path(name);
    std::ofstream(path, std::ios::binary) << bytes;
    return std::u16string(path.begin(), path.end());
  }

  std::unique_ptr<ThumbnailProvider> provider_ = CreateDecoderThumbnailProvider();
  test::ScratchDir dir_;
};

TEST_F(DecoderProviderTest, ChoosesTheDecoderByContentNotByName) {
  ASSERT_EQ(provider_->CreateItem(Write("picture.jpg", GreyPng(300, 100))), 0);
  ASSERT_EQ(provider_->BindToHandler(), 0);
  image::Bitmap bitmap;
  ASSERT_EQ(provider_->GetThumbnail(150, &bitmap), 0);
  EXPECT_EQ(bitmap.width(), 150);
  EXPECT_EQ(bitmap.height(), 50);

  // A JPEG under a foreign name, never enlarged.
  auto jpeg = CreateDecoderThumbnailProvider();
  ASSERT_EQ(jpeg->CreateItem(Write("photo.png", codec::testing::EncodeJpeg(
                                                    codec::testing::RgbImage(40, 30)))),
            0);
  ASSERT_EQ(jpeg->BindToHandler(), 0);
  ASSERT_EQ(jpeg->GetThumbnail(360, &bitmap), 0);
  EXPECT_EQ(bitmap.width(), 40);
  EXPECT_EQ(bitmap.height(), 30);
}

// Content decides; only a file no signature matches gets one try with the
// RAW decoder, when its name is a camera RAW one: headerless RAW files
// (Kodak's DC20 saved 62464 bytes of sensor data and nothing else) are
// known by their size.
TEST_F(DecoderProviderTest, HeaderlessRawGoesToTheRawDecoderByName) {
  const std::string dc20 = codec::testing::KodakDc20Raw();
  image::Bitmap bitmap;
  ASSERT_EQ(provider_->CreateItem(Write("PIC00001.RAW", dc20)), 0);
  ASSERT_EQ(provider_->BindToHandler(), 0);
  ASSERT_EQ(provider_->GetThumbnail(360, &bitmap), 0);
  EXPECT_EQ(bitmap.height(), 120);
  auto unnamed = CreateDecoderThumbnailProvider();
  ASSERT_EQ(unnamed->CreateItem(Write("pic00001.bin", dc20)), 0);
  EXPECT_EQ(unnamed->BindToHandler(), kProviderNoHandler);
}

// Each size of a run uses a new provider; one that finds the file rewritten
// since the last request must decode the new content, not a kept result.
// Results come at the size the extraction makes of them: a shorter side of
// a third of cx.
TEST_F(DecoderProviderTest, RewrittenFileIsDecodedAfresh) {
  auto thumbnail = [](const std::u16string& path, uint32_t cx, image::Bitmap* out) {
    auto provider = CreateDecoderThumbnailProvider();
    ASSERT_EQ(provider->CreateItem(path), 0);
    ASSERT_EQ(provider->BindToHandler(), 0);
    ASSERT_EQ(provider->GetThumbnail(cx, out), 0);
  };
  const std::u16string path = Write("photo.jpg", codec::testing::EncodeJpeg(
                                                     codec::testing::RgbImage(800, 600, 250, 0, 0)));
  image::Bitmap bitmap;
  thumbnail(path, 90, &bitmap);
  EXPECT_EQ(bitmap.height(), 30);
  EXPECT_GT(bitmap.row(15)[2], 200);  // red
  Write("photo.jpg", codec::testing::EncodeJpeg(codec::testing::RgbImage(800, 608, 0, 0, 250)));
  thumbnail(path, 60, &bitmap);
  EXPECT_EQ(bitmap.height(), 20);
  EXPECT_GT(bitmap.row(10)[0], 200);  // blue
  EXPECT_LT(bitmap.row(10)[2], 50);
}

// The tool asks a new provider for each size in turn. A PNG is read whole
// for the first; that decode leaves the other sizes' results, which their
// requests then take.
TEST_F(DecoderProviderTest, FirstSizeOfARunLeavesTheOthers) {
  const std::u16string path = Write("picture.png", GreyPng(1500, 1000));
  codec::ReductionCache& kept = codec::TheReductionCache();
  for (ThumbnailSize size : AllSizes()) {
    auto provider = CreateDecoderThumbnailProvider();
    ASSERT_EQ(provider->CreateItem(path), 0);
    ASSERT_EQ(provider->BindToHandler(), 0);
    image::Bitmap bitmap;
    const uint32_t cx = ProviderRequestEdge(PixelSize(size));
    ASSERT_EQ(provider->GetThumbnail(cx, &bitmap), 0);
    EXPECT_EQ(static_cast<uint32_t>(bitmap.height()), std::min<uint32_t>(PixelSize(size), 1000));
    EXPECT_EQ(kept.size(), AllSizes().size() - 1 - size);
  }
}

TEST_F(DecoderProviderTest, FailsEachStepWithItsOwnCode) {
  image::Bitmap bitmap;
  EXPECT_EQ(provider_->BindToHandler(), kProviderNotReady);
  EXPECT_EQ(provider_->GetThumbnail(100, &bitmap), kProviderNotReady);

  const std::u16string missing = Write("x", "");
  EXPECT_EQ(provider_->CreateItem(missing + u"-missing"), -ENOENT);

#ifndef _WIN32
  // A FIFO with no writer is refused at once instead of blocking the job.
  const std::string fifo = dir_.Path("pipe.jpg");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_EQ(provider_->CreateItem(std::u16string(fifo.begin(), fifo.end())), -EINVAL);
#endif
  // So is a folder.
  const std::string folder = dir_.Path("folder.jpg");
  ASSERT_TRUE(std::filesystem::create_directory(folder));
  EXPECT_EQ(provider_->CreateItem(std::u16string(folder.begin(), folder.end())), -EINVAL);

  ASSERT_EQ(provider_->CreateItem(Write("notes.jpg", "just some text, not a picture")), 0);
  EXPECT_EQ(provider_->BindToHandler(), kProviderNoHandler);
  EXPECT_EQ(provider_->GetThumbnail(100, &bitmap), kProviderNotReady);

  ASSERT_EQ(provider_->CreateItem(Write("bomb.png", codec::testing::PngDeclaring(50000, 50000))), 0);
  ASSERT_EQ(provider_->BindToHandler(), 0);
  EXPECT_EQ(provider_->GetThumbnail(360, &bitmap), kProviderTooLarge);

  ASSERT_EQ(provider_->CreateItem(Write("broken.jpg", std::string("\xFF\xD8\xFF\xE0\0\x10JFIF", 10))), 0);
  ASSERT_EQ(provider_->BindToHandler(), 0);
  EXPECT_EQ(provider_->GetThumbnail(360, &bitmap), kProviderDecodeFailed);
  EXPECT_TRUE(bitmap.empty());
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
