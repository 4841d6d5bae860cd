#include <webp/encode.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/codec/byte-source.h"
#include "lib/codec/image-decoder.h"
#include "lib/codec/testing/bmp-fixtures.h"
#include "lib/codec/testing/camera-fixtures.h"
#include "lib/codec/testing/image-fixtures.h"
#include "lib/codec/tiff/testing/tiff-fixtures.h"
#include "lib/utility/cancellation.h"
#include "lib/utility/testing/byte-writers.h"

namespace tessera {
namespace codec {
namespace {

ImageFormat Sniff(const std::string& head) {
  return SniffImageFormat(reinterpret_cast<const uint8_t*>(head.data()), head.size());
}

TEST(SniffImageFormatTest, RecognisesSignaturesAndRefusesLookAlikes) {
  struct Case {
    std::string head;  // padded to 32 bytes
    ImageFormat format;
  };
  using S = std::string;
  const Case cases[] = {
      {"\xFF\xD8\xFF\xE1", ImageFormat::kJpeg},
      {"\x89PNG\r\n\x1A\n", ImageFormat::kPng},
      {S("II*\0", 4), ImageFormat::kTiff},
      {S("MM\0*", 4), ImageFormat::kTiff},
      {S("II+\0", 4), ImageFormat::kTiff},
      {"GIF89a", ImageFormat::kGif},
      {"GIF87a", ImageFormat::kGif},
      {S("RIFF\x10\0\0\0WEBPVP8 ", 16), ImageFormat::kWebp},
      {S("BM\x36\0\0\0\0\0\0\0\x36\0\0\0\x28\0\0\0", 18), ImageFormat::kBmp},
      {S("\0\0\0\x18" "ftypheic\0\0\0\0mif1heic", 24), ImageFormat::kHeif},
      {S("\0\0\0\x18" "ftypmif1\0\0\0\0mif1heic", 24), ImageFormat::kHeif},
      // AV1-coded HEIF (AVIF), which libheif decodes as well.
      {S("\0\0\0\x1c" "ftypavif\0\0\0\0avifmif1miaf", 28), ImageFormat::kHeif},
      {S("\0\0\0\x1c" "ftypmif1\0\0\0\0mif1avifmiaf", 28), ImageFormat::kHeif},
      // Raw containers with their own signatures.
      {S("II\x1a\0\0\0HEAPCCDR", 14), ImageFormat::kRaw},
      {"FUJIFILMCCD-RAW 0201", ImageFormat::kRaw},
      {S("\0MRM", 4), ImageFormat::kRaw},
      {"IIRO", ImageFormat::kRaw},
      {"MMOR", ImageFormat::kRaw},
      {S("IIU\0", 4), ImageFormat::kRaw},
      {"FOVb", ImageFormat::kRaw},
      // Look-alikes; MP4 shares the container with HEIF.
      {"BMW is a car brand, not a bitmap", ImageFormat::kUnknown},
      {S("RIFF\x10\0\0\0WAVEfmt ", 16), ImageFormat::kUnknown},
      {S("\0\0\0\x18" "ftypisom\0\0\0\0isomiso2", 24), ImageFormat::kUnknown},
  };
  for (Case c : cases) {
    c.head.resize(32, '\0');
    EXPECT_EQ(Sniff(c.head), c.format) << c.head;
  }
  EXPECT_EQ(Sniff(""), ImageFormat::kUnknown);
  EXPECT_EQ(SniffImageFormat(nullptr, 0), ImageFormat::kUnknown);
  EXPECT_EQ(Sniff("\xFF\xD8"), ImageFormat::kUnknown);  // too short
  EXPECT_EQ(CreateImageDecoder(ImageFormat::kUnknown), nullptr);
  EXPECT_NE(CreateImageDecoder(ImageFormat::kJpeg), nullptr);
}

constexpr auto Put16 = tessera::testing::AppendLe16;

struct Sample {
  const char* name;
  std::string bytes;
  ImageFormat format = ImageFormat::kUnknown;  // the sniffed one
};

// A small picture in every format but HEIF (whose decoder's tests cancel
// it on their own). The DNG goes straight to the camera RAW decoder, which
// develops it (through the TIFF decoder, reading it would fail first).
std::vector<Sample> Samples() {
  std::vector<Sample> samples;
  samples.push_back({"jpeg", testing::EncodeJpeg(testing::RgbImage(16, 16, 10, 20, 30))});
  testing::JpegOptions progressive;
  progressive.progressive = true;
  samples.push_back({"progressive jpeg", testing::EncodeJpeg(testing::RgbImage(16, 16, 10, 20, 30), progressive)});
  testing::PngImage png;
  png.width = png.height = 16;
  png.samples.assign(16 * 16 * 4, 200);
  samples.push_back({"png", testing::EncodePng(png)});

  testing::TiffPage tiff;
  tiff.width = tiff.height = 16;
  tiff.pixel = testing::Solid({128, 128, 128});
  samples.push_back({"tiff", testing::WriteTiff({tiff})});
  samples.push_back({"dng", testing::LinearDng(), ImageFormat::kRaw});

  std::string gif = "GIF89a";
  Put16(&gif, 16);
  Put16(&gif, 16);
  gif += std::string("\x80\x00\x00\x00\x00\x00\xff\xff\xff", 9);      // two colours
  gif += std::string("\x2c\x00\x00\x00\x00\x01\x00\x01\x00\x00", 10);  // a 1x1 image
  gif += std::string("\x02\x02\x44\x01\x00;", 6);
  samples.push_back({"gif", gif});

  testing::BmpLayout bmp;
  testing::FillBmpPixels(&bmp, [](int, int) { return 0x404040u; });
  samples.push_back({"bmp", testing::EncodeBmp(bmp)});

  std::vector<uint8_t> rgba(16 * 16 * 4, 90);
  uint8_t* webp = nullptr;
  const size_t webp_size = WebPEncodeLosslessRGBA(rgba.data(), 16, 16, 16 * 4, &webp);
  samples.push_back({"webp", std::string(reinterpret_cast<const char*>(webp), webp_size)});
  WebPFree(webp);
  return samples;
}

// A decode whose job has run out of time must stop, even on bytes it has
// in memory: every decoder polls its source's cancellation, and a memory
// source, which never fails a read, shows whether it does.
TEST(ImageDecoderTest, CancelledSourcesFailInEveryFormat) {
  for (const Sample& sample : Samples()) {
    SCOPED_TRACE(sample.name);
    ASSERT_FALSE(sample.bytes.empty());
    const uint8_t* data = reinterpret_cast<const uint8_t*>(sample.bytes.data());
    const std::unique_ptr<ByteSource> source = ByteSource::FromMemory(data, sample.bytes.size());
    const ImageFormat format =
        sample.format != ImageFormat::kUnknown ? sample.format : SniffImageFormat(data, sample.bytes.size());
    image::Bitmap bitmap;
    const Status status = CreateImageDecoder(format)->Decode(source.get(), 64, &bitmap);
    ASSERT_TRUE(status.ok()) << status.ToString();

    // Cancelled by the job, or past the run's deadline.
    auto cancelled = std::make_shared<utility::Cancellation>();
    cancelled->Cancel();
    for (auto cancellation : {cancelled, std::make_shared<utility::Cancellation>(utility::Cancellation::Clock::now())}) {
      source->set_cancellation(cancellation);
      image::Bitmap none;
      EXPECT_FALSE(CreateImageDecoder(format)->Decode(source.get(), 64, &none).ok());
      EXPECT_TRUE(none.empty());
    }
  }
}

}  // namespace
}  // namespace codec
}  // namespace tessera
