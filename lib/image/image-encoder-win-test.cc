// GDI+ saving: files that read back at their size and colours, the encoder
// table, and failures reported rather than crashed on.
#include <windows.h>
// GDI+ needs the Windows types first.
#include <gdiplus.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "lib/image/bitmap.h"
#include "lib/image/image-encoder.h"

namespace tessera {
namespace image {
namespace {

namespace gdip = Gdiplus::DllExports;

struct Decoded {
  UINT width = 0;
  UINT height = 0;
  Gdiplus::ARGB top_left = 0;
  Gdiplus::ARGB bottom_right = 0;
};

// Reads a file back with GDI+ (already started by the encoder under test).
Decoded Load(const std::string& path) {
  Decoded decoded;
  std::wstring wide(path.begin(), path.end());  // ASCII test paths
  Gdiplus::GpBitmap* bitmap = nullptr;
  if (gdip::GdipCreateBitmapFromFile(wide.c_str(), &bitmap) != Gdiplus::Ok) return decoded;
  gdip::GdipGetImageWidth(bitmap, &decoded.width);
  gdip::GdipGetImageHeight(bitmap, &decoded.height);
  gdip::GdipBitmapGetPixel(bitmap, 0, 0, &decoded.top_left);
  gdip::GdipBitmapGetPixel(bitmap, decoded.width - 1, decoded.height - 1, &decoded.bottom_right);
  gdip::GdipDisposeImage(bitmap);
  return decoded;
}

// Red above the middle row, blue below; alpha 0 everywhere, which the saved
// file must ignore.
Bitmap TwoBands(int width, int height) {
  Bitmap bitmap;
  EXPECT_TRUE(Bitmap::Create(width, height, &bitmap).ok());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t* p = bitmap.row(y) + x * 4;
      const bool top = y < height / 2;
      p[0] = top ? 0 : 255;
      p[1] = 0;
      p[2] = top ? 255 : 0;
      p[3] = 0;
    }
  }
  return bitmap;
}

class ImageEncoderWinTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* base = getenv("TESSERA_TEST_TMPDIR");
    dir_ = std::filesystem::path(base && *base ? base : "/tmp") / ("encoder-" + std::to_string(GetCurrentProcessId()));
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  std::string Path(const char* name) const { return (dir_ / name).string(); }

  std::filesystem::path dir_;
};

TEST_F(ImageEncoderWinTest, SavedFilesReadBackOpaqueAtTheirSize) {
  const Bitmap bitmap = TwoBands(300, 200);
  ASSERT_TRUE(SaveJpeg(bitmap, Path("out.jpg")).ok());
  ASSERT_TRUE(SavePng(bitmap, Path("out.png")).ok());

  const Decoded png = Load(Path("out.png"));
  EXPECT_EQ(png.width, 300u);
  EXPECT_EQ(png.height, 200u);
  EXPECT_EQ(png.top_left, 0xFFFF0000u);  // red, opaque although alpha was 0
  EXPECT_EQ(png.bottom_right, 0xFF0000FFu);

  const Decoded jpeg = Load(Path("out.jpg"));
  EXPECT_EQ(jpeg.width, 300u);
  EXPECT_EQ(jpeg.height, 200u);
  EXPECT_GT((jpeg.top_left >> 16) & 0xFF, 200u);  // mostly red, not turned upside down
  EXPECT_GT(jpeg.bottom_right & 0xFF, 200u);      // mostly blue
}

TEST_F(ImageEncoderWinTest, EncoderTableAndFailures) {
  // Fetched in GDI+'s two steps, every time.
  uint32_t count = 0;
  uint32_t bytes = 0;
  ASSERT_EQ(PlatformEncoderTable().GetSize(&count, &bytes), 0);
  ASSERT_GE(count, 2u);
  std::vector<ImageEncoder> encoders;
  ASSERT_EQ(PlatformEncoderTable().GetEncoders(count, bytes, &encoders), 0);
  ASSERT_EQ(encoders.size(), 2u);
  EXPECT_STREQ(encoders[0].mime_type, "image/jpeg");  // GDI+ lists JPEG before PNG
  EXPECT_STREQ(encoders[1].mime_type, "image/png");
  EXPECT_NE(PlatformEncoderTable().GetEncoders(count, 0, &encoders), 0);  // a table too small for its entries

  const Bitmap bitmap = TwoBands(8, 8);
  EXPECT_FALSE(SaveJpeg(bitmap, Path("missing-dir/out.jpg")).ok());
  EXPECT_FALSE(SaveJpeg(bitmap, dir_.string() + "/bad-\xC3(.jpg").ok());  // not UTF-8
  EXPECT_FALSE(SaveJpeg(Bitmap(), Path("empty.jpg")).ok());
  EXPECT_FALSE(std::filesystem::exists(Path("empty.jpg")));
}

}  // namespace
}  // namespace image
}  // namespace tessera
