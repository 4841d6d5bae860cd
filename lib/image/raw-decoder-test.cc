#include <tiffio.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/image/decoders.h"
#include "lib/image/testing/bitmap-probe.h"

namespace tessera {
namespace image {
namespace {

using testing::MeanColor;

// A linear (demosaiced) DNG, 96x64, top half bright and bottom half black,
// whose orientation tag turns it a quarter clockwise. Written with libtiff
// through a scratch file.
std::string MakeDng() {
  const char* base = std::getenv("TESSERA_TEST_TMPDIR");
  std::string path = std::string(base != nullptr ? base : "/tmp") + "/raw-test-XXXXXX";
  const int fd = mkstemp(&path[0]);
  if (fd < 0) return "";
  close(fd);
  const int width = 96;
  const int height = 64;
  TIFF* tif = TIFFOpen(path.c_str(), "w");
  TIFFSetField(tif, TIFFTAG_SUBFILETYPE, 0);
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, height);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 16);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, 3);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, 34892);  // linear raw
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
  TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_RIGHTTOP);
  TIFFSetField(tif, TIFFTAG_MAKE, "Tessera");
  TIFFSetField(tif, TIFFTAG_MODEL, "Test");
  static const uint8_t kVersion[4] = {1, 4, 0, 0};
  TIFFSetField(tif, TIFFTAG_DNGVERSION, kVersion);
  TIFFSetField(tif, TIFFTAG_UNIQUECAMERAMODEL, "Tessera Test");
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, height);
  std::vector<uint16_t> row(width * 3);
  for (int y = 0; y < height; ++y) {
    row.assign(row.size(), y < height / 2 ? 60000 : 0);
    TIFFWriteScanline(tif, row.data(), y, 0);
  }
  TIFFClose(tif);
  std::ifstream in(path, std::ios::binary);
  std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  unlink(path.c_str());
  return bytes;
}

Status Decode(const std::string& bytes, uint32_t cx, Bitmap* out) {
  auto source = ByteSource::FromMemory(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  // A DNG sniffs as TIFF; the TIFF decoder hands it to the RAW path.
  return CreateTiffDecoder()->Decode(source.get(), cx, out);
}

TEST(RawDecoderTest, DngDevelopsUpright) {
  const std::string dng = MakeDng();
  ASSERT_FALSE(dng.empty());
  Bitmap bitmap;
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

TEST(RawDecoderTest, RawWithoutImageDataFailsCleanly) {
  const std::string dng = MakeDng();
  ASSERT_GT(dng.size(), 1000u);
  Bitmap bitmap;
  // The pixel data follows the header: cutting it leaves a RAW that names
  // its size but cannot back it.
  for (size_t n : {size_t{8}, size_t{200}, size_t{700}, dng.size() / 2}) {
    EXPECT_FALSE(Decode(dng.substr(0, n), 200, &bitmap).ok()) << n;
  }
  auto source = ByteSource::FromMemory(reinterpret_cast<const uint8_t*>(dng.data()), 16);
  EXPECT_FALSE(CreateRawDecoder()->Decode(source.get(), 200, &bitmap).ok());
}

}  // namespace
}  // namespace image
}  // namespace tessera
