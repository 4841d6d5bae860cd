#include "lib/image/area-resample.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "gtest/gtest.h"

namespace tessera {
namespace image {
namespace {

// Deterministic noise; with `constant` set, every byte is that value.
Bitmap MakeBitmap(int width, int height, uint32_t seed, int constant = -1) {
  Bitmap bitmap;
  EXPECT_TRUE(Bitmap::Create(width, height, &bitmap).ok());
  for (size_t i = 0; i < bitmap.byte_size(); ++i) {
    seed = seed * 1664525u + 1013904223u;
    bitmap.data()[i] = static_cast<uint8_t>(constant >= 0 ? constant : seed >> 24);
  }
  return bitmap;
}

// Straightforward double-precision box filter over the exact footprint.
double Reference(const Bitmap& src, int dw, int dh, int x, int y, int c) {
  const double fx = static_cast<double>(src.width()) / dw;
  const double fy = static_cast<double>(src.height()) / dh;
  double sum = 0.0;
  for (int sy = 0; sy < src.height(); ++sy) {
    const double wy = std::max(0.0, std::min(sy + 1.0, (y + 1) * fy) - std::max<double>(sy, y * fy));
    for (int sx = 0; wy > 0 && sx < src.width(); ++sx) {
      const double wx = std::max(0.0, std::min(sx + 1.0, (x + 1) * fx) - std::max<double>(sx, x * fx));
      sum += wx * wy * src.row(sy)[sx * 4 + c];
    }
  }
  return sum / (fx * fy);
}

TEST(AreaResampleTest, MatchesExactBoxFilterAtAnyRatio) {
  struct Case {
    int sw, sh, dw, dh;
  };
  for (const Case& c : std::vector<Case>{{31, 17, 7, 5},
                                         {17, 31, 16, 30},
                                         {100, 1, 33, 1},
                                         {1, 100, 1, 7},
                                         {9, 9, 1, 1},
                                         {3, 1, 2, 1},    // each target pixel 1.5 source pixels
                                         {13, 7, 13, 1},  // one axis unchanged
                                         {5, 4, 13, 9},   // enlarging
                                         {3, 700, 2, 2}}) {  // > 257 whole rows per target row
    const Bitmap src = MakeBitmap(c.sw, c.sh, static_cast<uint32_t>(c.sw * 131 + c.sh));
    Bitmap out;
    ASSERT_TRUE(AreaResample(src, c.dw, c.dh, &out).ok());
    ASSERT_EQ(out.width(), c.dw);
    ASSERT_EQ(out.height(), c.dh);
    for (int y = 0; y < c.dh; ++y) {
      for (int x = 0; x < c.dw * 4; ++x) {
        ASSERT_NEAR(out.row(y)[x], Reference(src, c.dw, c.dh, x / 4, y, x % 4), 0.51)
            << c.sw << "x" << c.sh << " -> " << c.dw << "x" << c.dh << " at " << x / 4 << "," << y;
      }
    }
    // A constant picture stays exactly constant, whatever the weights.
    ASSERT_TRUE(AreaResample(MakeBitmap(c.sw, c.sh, 0, 255), c.dw, c.dh, &out).ok());
    EXPECT_EQ(*std::min_element(out.data(), out.data() + out.byte_size()), 255);
  }
}

TEST(AreaResampleTest, FactorOneCopiesAndBadSizesFailWithoutTouchingOutput) {
  const Bitmap src = MakeBitmap(13, 7, 3);
  Bitmap out;
  ASSERT_TRUE(AreaResample(src, 13, 7, &out).ok());
  ASSERT_EQ(0, std::memcmp(src.data(), out.data(), src.byte_size()));
  EXPECT_FALSE(AreaResample(src, 0, 3, &out).ok());
  EXPECT_FALSE(AreaResample(Bitmap(), 3, 3, &out).ok());
  EXPECT_EQ(out.width(), 13);

  AreaReducer reducer;
  EXPECT_FALSE(AreaReducer::Create(10, 10, 11, 5, &reducer).ok());  // would enlarge
  EXPECT_FALSE(reducer.Finish(&out).ok());
}

TEST(AreaReducerTest, StreamingEqualsOneShot) {
  const Bitmap src = MakeBitmap(97, 61, 11);
  for (const auto& size : std::vector<std::pair<int, int>>{{97, 61}, {30, 20}, {1, 1}, {96, 7}}) {
    Bitmap expected;
    ASSERT_TRUE(AreaResample(src, size.first, size.second, &expected).ok());
    AreaReducer reducer;
    ASSERT_TRUE(AreaReducer::Create(97, 61, size.first, size.second, &reducer).ok());
    for (int y = 0; y <= src.height(); ++y) reducer.PushRow(src.row(y % src.height()));  // one too many
    EXPECT_EQ(reducer.rows_pushed(), 61);
    Bitmap out;
    ASSERT_TRUE(reducer.Finish(&out).ok());
    EXPECT_EQ(0, std::memcmp(expected.data(), out.data(), out.byte_size()));
  }
}

TEST(AreaReducerTest, TruncatedStreamEndsInMidGrey) {
  // 10 rows to 4: each target row covers 2.5 source rows.
  const Bitmap black = MakeBitmap(8, 10, 0, 0);
  for (int pushed : {0, 4, 5}) {
    AreaReducer reducer;
    ASSERT_TRUE(AreaReducer::Create(8, 10, 4, 4, &reducer).ok());
    for (int y = 0; y < pushed; ++y) reducer.PushRow(black.row(y));
    Bitmap out;
    ASSERT_TRUE(reducer.Finish(&out).ok());
    // Row 1 covers [2.5, 5): black when 5 rows came, 1.5 black + 1 grey of
    // 2.5 when 4 came (128 * 0.4 = 51.2), grey when none came.
    EXPECT_EQ(out.row(1)[0], pushed == 5 ? 0 : pushed == 4 ? 51 : 128) << pushed;
    EXPECT_EQ(out.row(2)[0], 128);
    EXPECT_EQ(out.row(3)[15], 128);
  }
}

TEST(FitWithinTest, KeepsAspectNeverEnlargesAndRoundsTheShorterSide) {
  struct Case {
    int w, h;
    uint32_t cx;
    int ew, eh;
  };
  for (const Case& c : std::vector<Case>{{3000, 4000, 960, 720, 960},
                                         {1000, 333, 500, 500, 167},  // 166.5 rounds up
                                         {100, 50, 3000, 100, 50},    // never enlarged
                                         {10000, 1, 100, 100, 1},     // at least one pixel
                                         {7, 5, 0, 1, 1}}) {
    int w = -1, h = -1;
    FitWithin(c.w, c.h, c.cx, &w, &h);
    EXPECT_EQ(w, c.ew) << c.w << "x" << c.h << " in " << c.cx;
    EXPECT_EQ(h, c.eh) << c.w << "x" << c.h << " in " << c.cx;
  }
}

}  // namespace
}  // namespace image
}  // namespace tessera
