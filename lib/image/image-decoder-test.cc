#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "gtest/gtest.h"
#include "lib/image/byte-source.h"
#include "lib/image/image-decoder.h"

namespace tessera {
namespace image {
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
}  // namespace image
}  // namespace tessera
