#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <webp/encode.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/codec/byte-source.h"
#include "lib/codec/image-decoder.h"
#include "lib/codec/testing/image-fixtures.h"
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
constexpr auto Put32 = tessera::testing::AppendLe32;

// One field of a TIFF directory whose value fits in the field (four bytes
// at most, little-endian): type 1 (byte), 2 (text), 3 (short) or 4 (long).
struct TiffField {
  uint16_t tag;
  uint16_t type;
  uint32_t count;
  uint32_t value;
};

// A little-endian TIFF of one directory whose only strip is `strip`.
std::string LittleEndianTiff(std::vector<TiffField> fields, const std::string& strip) {
  const uint32_t strip_offset = 8 + 2 + 12 * static_cast<uint32_t>(fields.size() + 2) + 4;
  fields.push_back({273, 4, 1, strip_offset});
  fields.push_back({279, 4, 1, static_cast<uint32_t>(strip.size())});
  std::sort(fields.begin(), fields.end(), [](const TiffField& a, const TiffField& b) { return a.tag < b.tag; });
  std::string tiff("II*\0", 4);
  Put32(&tiff, 8);
  Put16(&tiff, static_cast<uint32_t>(fields.size()));
  for (const TiffField& f : fields) {
    Put16(&tiff, f.tag);
    Put16(&tiff, f.type);
    Put32(&tiff, f.count);
    Put32(&tiff, f.value);
  }
  Put32(&tiff, 0);
  return tiff + strip;
}

struct Sample {
  const char* name;
  std::string bytes;
  ImageFormat format = ImageFormat::kUnknown;  // the sniffed one
};

// A small picture in every format whose decoder is built in, except JPEG
// and HEIF. The DNG goes straight to the camera RAW decoder, which develops
// it (through the TIFF decoder, reading it would fail first).
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

  const std::string gray(16 * 16, '\x80');
  samples.push_back({"tiff", LittleEndianTiff({{256, 3, 1, 16}, {257, 3, 1, 16}, {258, 3, 1, 8}, {259, 3, 1, 1},
                                               {262, 3, 1, 1}, {277, 3, 1, 1}, {278, 3, 1, 16}},
                                              gray)});

  // 96x64 linear (demosaiced) 16-bit RGB; names of three letters fit in
  // their fields.
  std::string linear;
  for (int i = 0; i < 96 * 64 * 3; ++i) Put16(&linear, 30000);
  const uint32_t kName = 'T' | 's' << 8 | 's' << 16;
  samples.push_back({"dng",
                     LittleEndianTiff({{254, 4, 1, 0}, {256, 3, 1, 96}, {257, 3, 1, 64}, {258, 3, 1, 16},
                                       {259, 3, 1, 1}, {262, 3, 1, 34892}, {271, 2, 4, kName}, {272, 2, 4, kName},
                                       {277, 3, 1, 3}, {278, 3, 1, 64}, {284, 3, 1, 1},
                                       {50706, 1, 4, 0x0401},  // DNG version 1.4
                                       {50708, 2, 4, kName}},
                                      linear),
                     ImageFormat::kRaw});

  std::string gif = "GIF89a";
  Put16(&gif, 16);
  Put16(&gif, 16);
  gif += std::string("\x80\x00\x00\x00\x00\x00\xff\xff\xff", 9);      // two colours
  gif += std::string("\x2c\x00\x00\x00\x00\x01\x00\x01\x00\x00", 10);  // a 1x1 image
  gif += std::string("\x02\x02\x44\x01\x00;", 6);
  samples.push_back({"gif", gif});

  std::string bmp = "BM";
  Put32(&bmp, 14 + 40 + 16 * 16 * 3);
  Put32(&bmp, 0);
  Put32(&bmp, 14 + 40);
  for (uint32_t v : {40u, 16u, 16u}) Put32(&bmp, v);
  Put16(&bmp, 1);
  Put16(&bmp, 24);
  for (int i = 0; i < 6; ++i) Put32(&bmp, 0);
  bmp += std::string(16 * 16 * 3, '\x40');
  samples.push_back({"bmp", bmp});

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

class FileSourceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* base = getenv("TESSERA_TEST_TMPDIR");
    std::string root = base && *base ? base : "/tmp";
    mkdir(root.c_str(), 0700);
    std::string pattern = root + "/byte-source-XXXXXX";
    ASSERT_NE(mkdtemp(&pattern[0]), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    for (const char* name : {"/data", "/fifo"}) unlink((dir_ + name).c_str());
    rmdir(dir_.c_str());
  }
  std::string dir_;
};

TEST_F(FileSourceTest, ReadsRegularFilesAndRefusesEverythingElseAtOnce) {
  const std::string path = dir_ + "/data";
  {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "0123456789", 10), 10);
    close(fd);
  }
  std::unique_ptr<ByteSource> source;
  ASSERT_TRUE(ByteSource::OpenFile(path, &source).ok());
  EXPECT_EQ(source->size(), 10u);
  char buf[8] = {};
  EXPECT_EQ(source->ReadAt(6, buf, 8), 4);
  EXPECT_EQ(std::string(buf, 4), "6789");
  EXPECT_EQ(source->ReadAt(10, buf, 8), 0);
  EXPECT_EQ(source->ReadAt(1000, buf, 8), 0);
  std::string all;
  EXPECT_TRUE(source->ReadAll(10, &all).ok());
  EXPECT_EQ(all, "0123456789");
  EXPECT_FALSE(source->ReadAll(9, &all).ok());

  std::unique_ptr<ByteSource> other;
  EXPECT_EQ(ByteSource::OpenFile(dir_ + "/missing", &other).code(), Status::Code::kNotFound);
  // A FIFO without a writer would block a plain open() forever.
  ASSERT_EQ(mkfifo((dir_ + "/fifo").c_str(), 0600), 0);
  EXPECT_EQ(ByteSource::OpenFile(dir_ + "/fifo", &other).code(), Status::Code::kInvalidArgument);
  EXPECT_EQ(ByteSource::OpenFile(dir_, &other).code(), Status::Code::kInvalidArgument);
  EXPECT_EQ(ByteSource::OpenFile("/dev/null", &other).code(), Status::Code::kInvalidArgument);
  EXPECT_EQ(other, nullptr);
}

}  // namespace
}  // namespace codec
}  // namespace tessera
