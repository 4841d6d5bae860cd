#include <cmath>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/codec/decoders.h"
#include "lib/codec/testing/bitmap-probe.h"
#include "lib/codec/testing/camera-fixtures.h"
#include "lib/codec/testing/image-fixtures.h"
#include "lib/codec/testing/served-ahead.h"

namespace tessera {
namespace codec {
namespace {

using testing::MeanColor;
using testing::Rgb;

void ExpectColor(const Rgb& c, double r, double g, double b) { testing::ExpectColorNear(c, r, g, b, 12); }

Status Decode(const std::string& bytes, uint32_t cx, image::Bitmap* out) {
  auto source = ByteSource::FromMemory(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  // A DNG sniffs as TIFF; the TIFF decoder hands it to the RAW path.
  return CreateTiffDecoder()->Decode(source.get(), cx, out);
}

TEST(RawDecoderTest, DngDevelopsUpright) {
  const std::string dng = testing::LinearDng();
  ASSERT_FALSE(dng.empty());
  image::Bitmap bitmap;
  const Status status = Decode(dng, 200, &bitmap);
  ASSERT_TRUE(status.ok()) << status.ToString();
  // Turned clockwise: the bright top is now the right half.
  EXPECT_EQ(bitmap.width(), 64);
  EXPECT_EQ(bitmap.height(), 96);
  EXPECT_LT(MeanColor(bitmap, 4, 4, 28, 92).g, 40);
  EXPECT_GT(MeanColor(bitmap, 36, 4, 60, 92).g, 200);

  ASSERT_TRUE(Decode(dng, 48, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 32);
  EXPECT_EQ(bitmap.height(), 48);
}

TEST(RawDecoderTest, LargeEnoughPreviewIsUsedAndTurnedUnlessUpright) {
  struct Case {
    const char* what;
    int width, height, exif_orientation;
    int red[4];  // x0, y0, x1, y1
    int blue[4];
  };
  // Stored as the sensor sees the scene, turned clockwise the red top
  // becomes the right half; an already upright (portrait) preview is not
  // turned again; a preview naming the same turn itself is turned once.
  const Case cases[] = {
      {"sideways", 96, 64, 0, {36, 4, 60, 92}, {4, 4, 28, 92}},
      {"upright", 64, 96, 0, {4, 4, 60, 44}, {4, 52, 60, 92}},
      {"tagged", 96, 64, 6, {36, 4, 60, 92}, {4, 4, 28, 92}},
  };
  image::Bitmap bitmap;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string dng = testing::DngWithPreview(c.width, c.height, c.exif_orientation);
    ASSERT_FALSE(dng.empty());
    const Status status = Decode(dng, 200, &bitmap);
    ASSERT_TRUE(status.ok()) << status.ToString();
    EXPECT_EQ(bitmap.width(), 64);
    EXPECT_EQ(bitmap.height(), 96);
    ExpectColor(MeanColor(bitmap, c.red[0], c.red[1], c.red[2], c.red[3]), 255, 0, 0);
    ExpectColor(MeanColor(bitmap, c.blue[0], c.blue[1], c.blue[2], c.blue[3]), 0, 0, 255);
  }

  // Reduced like any other image.
  ASSERT_TRUE(Decode(testing::DngWithPreview(96, 64), 48, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 32);
  EXPECT_EQ(bitmap.height(), 48);
}

Status DecodeWith(const testing::DecoderFactory& factory, const std::string& bytes, uint32_t cx,
                  const std::vector<uint32_t>& run, image::Bitmap* out) {
  auto source = ByteSource::FromMemory(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  std::unique_ptr<ImageDecoder> decoder = factory();
  decoder->SetAnticipatedRequests(run);
  return decoder->Decode(source.get(), cx, out);
}

// When the largest size of a run needs a develop, that one develop serves
// every size, through either decoder (a DNG sniffs as TIFF; other RAW
// formats go to the RAW decoder), at the scale the largest needs; when the
// preview reaches the largest, it serves them all.
TEST(RawDecoderTest, OneDecodeServesTheRun) {
  using Sizes = std::vector<uint32_t>;
  // 300x200: half size (150 wide) serves cx up to 225; a 96x64 preview
  // serves cx up to 144.
  const std::string bare = testing::BayerDng(300, 200);
  const std::string previewed = testing::BayerDng(300, 200, 96, 64);
  ASSERT_FALSE(bare.empty());
  ASSERT_FALSE(previewed.empty());
  const testing::DecoderFactory factories[] = {[] { return CreateTiffDecoder(); }, [] { return CreateRawDecoder(); }};
  for (const testing::DecoderFactory& factory : factories) {
    EXPECT_EQ(testing::ServedAhead(factory, bare, {60, 120, 200}, true), (Sizes{120, 200}));
    EXPECT_EQ(testing::ServedAhead(factory, bare, {300, 60, 120, 900}, true), (Sizes{60, 120, 900}));
    EXPECT_EQ(testing::ServedAhead(factory, previewed, {60, 300, 900}, true), (Sizes{300, 900}));
    EXPECT_EQ(testing::ServedAhead(factory, previewed, {60, 120}, true), Sizes{});
  }
}

// The thumbnails of one file look alike: a size the camera's preview could
// serve comes from the develop the run needs anyway, not from the preview,
// whose tone and colour differ (here a flat (200, 100, 50)).
TEST(RawDecoderTest, SizesOfOneRunLookAlike) {
  const std::string dng = testing::BayerDng(300, 200, 96, 64);
  ASSERT_FALSE(dng.empty());
  const testing::DecoderFactory tiff = [] { return CreateTiffDecoder(); };
  image::Bitmap small;
  image::Bitmap large;
  ASSERT_TRUE(DecodeWith(tiff, dng, 60, {60, 900}, &small).ok());
  ASSERT_TRUE(DecodeWith(tiff, dng, 900, {60, 900}, &large).ok());
  EXPECT_EQ(small.width(), 60);
  EXPECT_EQ(large.width(), 300);
  const Rgb small_mean = MeanColor(small);
  const Rgb large_mean = MeanColor(large);
  ExpectColor(small_mean, large_mean.r, large_mean.g, large_mean.b);
  EXPECT_GT(std::fabs(small_mean.r - 200) + std::fabs(small_mean.g - 100) + std::fabs(small_mean.b - 50), 60)
      << testing::ToString(small_mean);
  // Asked alone, the small size is the preview's.
  ASSERT_TRUE(DecodeWith(tiff, dng, 60, {}, &small).ok());
  ExpectColor(MeanColor(small), 200, 100, 50);
}

// Files LibRaw knows by their size or their camera show their picture
// (bright on the left, dark on the right): a headerless Kodak DC20 file,
// and a Kodak DC120 file of less than a bit per photosite, as the small
// JPEG-coded DC120 files are.
TEST(RawDecoderTest, CameraFilesLibRawKnows) {
  struct Case {
    const char* what;
    std::string bytes;
    testing::DecoderFactory factory;
  };
  const Case cases[] = {
      {"Kodak DC20 .raw", testing::KodakDc20Raw(), [] { return CreateRawDecoder(); }},
      {"Kodak DC120 .kdc", testing::KodakDc120Kdc(), [] { return CreateTiffDecoder(); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_FALSE(c.bytes.empty());
    image::Bitmap bitmap;
    const Status status = DecodeWith(c.factory, c.bytes, 600, {600}, &bitmap);
    ASSERT_TRUE(status.ok()) << status.ToString();
    const int w = bitmap.width();
    const int h = bitmap.height();
    const Rgb left = MeanColor(bitmap, w / 8, h / 8, w * 3 / 8, h * 7 / 8);
    const Rgb right = MeanColor(bitmap, w * 5 / 8, h / 8, w * 7 / 8, h * 7 / 8);
    EXPECT_GT(left.g, right.g + 60) << testing::ToString(left) << " " << testing::ToString(right);
  }
  EXPECT_LT(testing::KodakDc120Kdc().size(), 848u * 976 / 8);
}

TEST(RawDecoderTest, RawWithoutImageDataFailsCleanly) {
  const std::string dng = testing::LinearDng();
  ASSERT_GT(dng.size(), 1000u);
  image::Bitmap bitmap;
  // The pixel data follows the header: cutting it leaves a RAW that names
  // its size but cannot back it.
  for (size_t n : {size_t{8}, size_t{200}, size_t{700}, dng.size() / 2}) {
    EXPECT_FALSE(Decode(dng.substr(0, n), 200, &bitmap).ok()) << n;
  }
  auto source = ByteSource::FromMemory(reinterpret_cast<const uint8_t*>(dng.data()), 16);
  EXPECT_FALSE(CreateRawDecoder()->Decode(source.get(), 200, &bitmap).ok());
}

}  // namespace
}  // namespace codec
}  // namespace tessera
