#include "lib/image/transform.h"

#include <cstring>

#include "gtest/gtest.h"

namespace tessera {
namespace image {
namespace {

// Pixel (x, y) holds the bytes {x, y, 7, 255}, so every pixel says where it
// came from.
Bitmap Labelled(int width, int height) {
  Bitmap bitmap;
  EXPECT_TRUE(Bitmap::Create(width, height, &bitmap).ok());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t* p = bitmap.row(y) + x * 4;
      p[0] = static_cast<uint8_t>(x);
      p[1] = static_cast<uint8_t>(y);
      p[2] = 7;
      p[3] = 255;
    }
  }
  return bitmap;
}

// Where the stored pixel (x, y) of a w x h image with the given EXIF
// orientation is shown once upright.
void UprightPosition(int orientation, int w, int h, int x, int y, int* ux, int* uy) {
  switch (orientation) {
    case 2: *ux = w - 1 - x, *uy = y; break;
    case 3: *ux = w - 1 - x, *uy = h - 1 - y; break;
    case 4: *ux = x, *uy = h - 1 - y; break;
    case 5: *ux = y, *uy = x; break;
    case 6: *ux = h - 1 - y, *uy = x; break;
    case 7: *ux = h - 1 - y, *uy = w - 1 - x; break;
    case 8: *ux = y, *uy = w - 1 - x; break;
    default: *ux = x, *uy = y; break;
  }
}

void ExpectUpright(int orientation, int w, int h, const Bitmap& upright) {
  const bool swapped = OrientationSwapsAxes(orientation);
  ASSERT_EQ(upright.width(), swapped ? h : w) << orientation;
  ASSERT_EQ(upright.height(), swapped ? w : h) << orientation;
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      int ux = 0, uy = 0;
      UprightPosition(orientation, w, h, x, y, &ux, &uy);
      const uint8_t* p = upright.row(uy) + ux * 4;
      ASSERT_EQ(p[0], x) << "orientation " << orientation << " pixel " << x << "," << y;
      ASSERT_EQ(p[1], y) << "orientation " << orientation << " pixel " << x << "," << y;
    }
  }
}

// Every orientation, on a picture smaller than a tile and on sizes beyond
// the 64-pixel tiles, not multiples of them, both aspects.
TEST(TransformTest, EveryExifOrientationLandsUpright) {
  const int sizes[][2] = {{2, 3}, {150, 67}, {1, 131}};
  for (int orientation = 1; orientation <= 8; ++orientation) {
    for (const auto& size : sizes) {
      Bitmap bitmap = Labelled(size[0], size[1]);
      ASSERT_TRUE(ApplyExifOrientation(orientation, &bitmap).ok());
      ExpectUpright(orientation, size[0], size[1], bitmap);
    }
  }
}

TEST(TransformTest, RotationTakesQuarterTurnsModuloFour) {
  const Bitmap src = Labelled(5, 3);
  Bitmap turned;
  ASSERT_TRUE(RotateClockwise(src, 1, &turned).ok());
  ExpectUpright(6, 5, 3, turned);
  ASSERT_TRUE(RotateClockwise(src, -1, &turned).ok());
  ExpectUpright(8, 5, 3, turned);
  ASSERT_TRUE(RotateClockwise(src, 6, &turned).ok());
  ExpectUpright(3, 5, 3, turned);
  ASSERT_TRUE(RotateClockwise(src, 4, &turned).ok());
  ASSERT_EQ(0, std::memcmp(src.data(), turned.data(), src.byte_size()));
  // The source is left as it was.
  ExpectUpright(1, 5, 3, src);
}

TEST(TransformTest, UnknownOrientationAndEmptyBitmapAreLeftAlone) {
  Bitmap bitmap = Labelled(3, 2);
  ASSERT_TRUE(ApplyExifOrientation(9, &bitmap).ok());
  ExpectUpright(1, 3, 2, bitmap);
  Bitmap empty;
  EXPECT_TRUE(ApplyExifOrientation(6, &empty).ok());
  EXPECT_TRUE(empty.empty());
}

}  // namespace
}  // namespace image
}  // namespace tessera
