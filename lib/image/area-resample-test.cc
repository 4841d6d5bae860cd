#include "lib/image/area-resample.h"

#include <cstdlib>
#include <cstring>
#include <vector>

#include "gtest/gtest.h"

namespace tessera {
namespace image {
namespace {

Bitmap MakeBitmap(int width, int height) {
  Bitmap bitmap;
  EXPECT_TRUE(Bitmap::Create(width, height, &bitmap).ok());
  return bitmap;
}

Bitmap Filled(int width, int height, uint8_t b, uint8_t g, uint8_t r, uint8_t a) {
  Bitmap bitmap = MakeBitmap(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t* p = bitmap.row(y) + x * 4;
      p[0] = b, p[1] = g, p[2] = r, p[3] = a;
    }
  }
  return bitmap;
}

// Deterministic noise, different per channel.
Bitmap Noise(int width, int height, uint32_t seed) {
  Bitmap bitmap = MakeBitmap(width, height);
  uint32_t state = seed;
  for (size_t i = 0; i < bitmap.byte_size(); ++i) {
    state = state * 1664525u + 1013904223u;
    bitmap.data()[i] = static_cast<uint8_t>(state >> 24);
  }
  return bitmap;
}

std::vector<double> ChannelMeans(const Bitmap& bitmap) {
  std::vector<double> sums(4, 0.0);
  for (int y = 0; y < bitmap.height(); ++y) {
    for (int x = 0; x < bitmap.width(); ++x) {
      for (int c = 0; c < 4; ++c) sums[c] += bitmap.row(y)[x * 4 + c];
    }
  }
  for (double& s : sums) s /= static_cast<double>(bitmap.width()) * bitmap.height();
  return sums;
}

// Straightforward double-precision box filter over the exact footprint.
double ReferenceValue(const Bitmap& src, int dw, int dh, int x, int y, int c) {
  const double fx = static_cast<double>(src.width()) / dw;
  const double fy = static_cast<double>(src.height()) / dh;
  double sum = 0.0;
  for (int sy = 0; sy < src.height(); ++sy) {
    const double wy = std::max(0.0, std::min(sy + 1.0, (y + 1) * fy) - std::max<double>(sy, y * fy));
    if (wy == 0.0) continue;
    for (int sx = 0; sx < src.width(); ++sx) {
      const double wx = std::max(0.0, std::min(sx + 1.0, (x + 1) * fx) - std::max<double>(sx, x * fx));
      sum += wx * wy * src.row(sy)[sx * 4 + c];
    }
  }
  return sum / (fx * fy);
}

void ExpectMatchesReference(const Bitmap& src, const Bitmap& out) {
  for (int y = 0; y < out.height(); ++y) {
    for (int x = 0; x < out.width(); ++x) {
      for (int c = 0; c < 4; ++c) {
        const double expected = ReferenceValue(src, out.width(), out.height(), x, y, c);
        ASSERT_NEAR(out.row(y)[x * 4 + c], expected, 0.51)
            << src.width() << "x" << src.height() << " -> " << out.width() << "x" << out.height() << " at " << x
            << "," << y << " channel " << c;
      }
    }
  }
}

TEST(AreaResampleTest, ConstantImageStaysConstantAtAnyRatio) {
  const Bitmap src = Filled(37, 23, 10, 128, 255, 0);
  for (const auto& size : std::vector<std::pair<int, int>>{{1, 1}, {5, 3}, {36, 22}, {37, 1}, {80, 41}}) {
    Bitmap out;
    ASSERT_TRUE(AreaResample(src, size.first, size.second, &out).ok());
    ASSERT_EQ(out.width(), size.first);
    ASSERT_EQ(out.height(), size.second);
    for (int y = 0; y < out.height(); ++y) {
      for (int x = 0; x < out.width(); ++x) {
        const uint8_t* p = out.row(y) + x * 4;
        ASSERT_EQ(p[0], 10);
        ASSERT_EQ(p[1], 128);
        ASSERT_EQ(p[2], 255);
        ASSERT_EQ(p[3], 0);
      }
    }
  }
}

TEST(AreaResampleTest, MatchesExactBoxFilterForOddSizesAndStrips) {
  struct Case {
    int sw, sh, dw, dh;
  };
  for (const Case& c : std::vector<Case>{{31, 17, 7, 5},
                                         {17, 31, 16, 30},
                                         {100, 1, 33, 1},
                                         {1, 100, 1, 7},
                                         {9, 9, 4, 4},
                                         {5, 4, 13, 9},  // enlarging
                                         {64, 48, 21, 16},
                                         {3, 700, 2, 2}}) {  // > 257 whole rows per target row
    const Bitmap src = Noise(c.sw, c.sh, static_cast<uint32_t>(c.sw * 131 + c.sh));
    Bitmap out;
    ASSERT_TRUE(AreaResample(src, c.dw, c.dh, &out).ok());
    ExpectMatchesReference(src, out);
  }
}

TEST(AreaResampleTest, KeepsTheMeanWhenTheRatioDividesEvenly) {
  const Bitmap src = Noise(120, 90, 7);
  Bitmap out;
  ASSERT_TRUE(AreaResample(src, 40, 30, &out).ok());
  const std::vector<double> before = ChannelMeans(src);
  const std::vector<double> after = ChannelMeans(out);
  for (int c = 0; c < 4; ++c) EXPECT_NEAR(before[c], after[c], 0.5) << c;
}

TEST(AreaResampleTest, ThreeToTwoUsesFractionalCoverage) {
  // Target pixel 0 covers source [0, 1.5): 2/3 of pixel 0 and 1/3 of pixel 1;
  // target pixel 1 covers [1.5, 3): 1/3 of pixel 1 and 2/3 of pixel 2.
  Bitmap src = MakeBitmap(3, 1);
  const uint8_t values[3] = {0, 90, 240};
  for (int x = 0; x < 3; ++x) std::memset(src.row(0) + x * 4, values[x], 4);
  Bitmap out;
  ASSERT_TRUE(AreaResample(src, 2, 1, &out).ok());
  EXPECT_EQ(out.row(0)[0], 30);   // 90 / 3
  EXPECT_EQ(out.row(0)[4], 190);  // 90 / 3 + 240 * 2 / 3

  // The same vertically, combined with a horizontal halving.
  Bitmap column = MakeBitmap(2, 3);
  for (int y = 0; y < 3; ++y) std::memset(column.row(y), values[y], 8);
  ASSERT_TRUE(AreaResample(column, 1, 2, &out).ok());
  EXPECT_EQ(out.row(0)[1], 30);
  EXPECT_EQ(out.row(1)[1], 190);
}

TEST(AreaResampleTest, FactorOneIsACopy) {
  const Bitmap src = Noise(13, 7, 3);
  Bitmap out;
  ASSERT_TRUE(AreaResample(src, 13, 7, &out).ok());
  ASSERT_EQ(0, std::memcmp(src.data(), out.data(), src.byte_size()));
  // One axis unchanged: that axis must pass through exactly.
  ASSERT_TRUE(AreaResample(src, 13, 1, &out).ok());
  ExpectMatchesReference(src, out);
}

TEST(AreaResampleTest, RejectsBadSizesAndLeavesOutputAlone) {
  const Bitmap src = Noise(4, 4, 1);
  Bitmap out = Filled(2, 2, 1, 2, 3, 4);
  EXPECT_FALSE(AreaResample(src, 0, 3, &out).ok());
  EXPECT_FALSE(AreaResample(src, 3, -1, &out).ok());
  EXPECT_FALSE(AreaResample(Bitmap(), 3, 3, &out).ok());
  EXPECT_EQ(out.width(), 2);
  EXPECT_EQ(out.row(0)[3], 4);

  AreaReducer reducer;
  EXPECT_FALSE(AreaReducer::Create(10, 10, 11, 5, &reducer).ok());
  EXPECT_FALSE(AreaReducer::Create(0, 10, 1, 1, &reducer).ok());
  EXPECT_FALSE(reducer.Finish(&out).ok());
}

TEST(AreaReducerTest, StreamingEqualsOneShot) {
  const Bitmap src = Noise(97, 61, 11);
  for (const auto& size : std::vector<std::pair<int, int>>{{97, 61}, {30, 20}, {1, 1}, {96, 7}}) {
    Bitmap expected;
    ASSERT_TRUE(AreaResample(src, size.first, size.second, &expected).ok());
    AreaReducer reducer;
    ASSERT_TRUE(AreaReducer::Create(97, 61, size.first, size.second, &reducer).ok());
    for (int y = 0; y < src.height(); ++y) reducer.PushRow(src.row(y));
    reducer.PushRow(src.row(0));  // beyond the source height: ignored
    EXPECT_EQ(reducer.rows_pushed(), 61);
    Bitmap out;
    ASSERT_TRUE(reducer.Finish(&out).ok());
    ASSERT_EQ(out.width(), size.first);
    ASSERT_EQ(out.height(), size.second);
    EXPECT_EQ(0, std::memcmp(expected.data(), out.data(), out.byte_size()));
  }
}

TEST(AreaReducerTest, TruncatedStreamEndsInMidGrey) {
  // 10 rows reduced to 4: target rows cover 2.5 source rows each. Pushing 5
  // black rows fills rows 0 and 1 with black; rows 2 and 3 are grey.
  const Bitmap black = Filled(8, 10, 0, 0, 0, 0);
  AreaReducer reducer;
  ASSERT_TRUE(AreaReducer::Create(8, 10, 4, 4, &reducer).ok());
  for (int y = 0; y < 5; ++y) reducer.PushRow(black.row(y));
  Bitmap out;
  ASSERT_TRUE(reducer.Finish(&out).ok());
  EXPECT_EQ(out.row(1)[0], 0);
  EXPECT_EQ(out.row(2)[0], 128);
  EXPECT_EQ(out.row(3)[3], 128);

  // Stopping inside a target row blends: row 1 covers source [2.5, 5); with
  // 4 rows pushed it is 1.5/2.5 black and 1/2.5 grey.
  ASSERT_TRUE(AreaReducer::Create(8, 10, 4, 4, &reducer).ok());
  for (int y = 0; y < 4; ++y) reducer.PushRow(black.row(y));
  ASSERT_TRUE(reducer.Finish(&out).ok());
  EXPECT_EQ(out.row(1)[0], 51);  // 128 * 0.4 = 51.2
  EXPECT_EQ(out.row(2)[0], 128);

  // Nothing pushed at all.
  ASSERT_TRUE(AreaReducer::Create(8, 10, 3, 2, &reducer).ok());
  ASSERT_TRUE(reducer.Finish(&out).ok());
  EXPECT_EQ(ChannelMeans(out), std::vector<double>(4, 128.0));
}

TEST(FitWithinTest, KeepsAspectNeverEnlargesAndRoundsTheShorterSide) {
  struct Case {
    int w, h;
    uint32_t cx;
    int ew, eh;
  };
  for (const Case& c : std::vector<Case>{{4000, 3000, 960, 960, 720},
                                         {3000, 4000, 960, 720, 960},
                                         {1000, 333, 500, 500, 167},  // 166.5 rounds up
                                         {100, 50, 100, 100, 50},     // fits already
                                         {100, 50, 3000, 100, 50},    // never enlarged
                                         {500, 500, 256, 256, 256},
                                         {10000, 1, 100, 100, 1},  // at least one pixel
                                         {1, 10000, 100, 1, 100},
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
