#include "lib/image/pipelined-reducer.h"

#include <cstring>

#include "gtest/gtest.h"
#include "lib/image/area-resample.h"

namespace tessera {
namespace image {
namespace {

Bitmap Noise(int width, int height) {
  Bitmap bitmap;
  EXPECT_TRUE(Bitmap::Create(width, height, &bitmap).ok());
  uint32_t seed = static_cast<uint32_t>(width * 7919 + height);
  for (size_t i = 0; i < bitmap.byte_size(); ++i) {
    seed = seed * 1664525u + 1013904223u;
    bitmap.data()[i] = static_cast<uint8_t>(seed >> 24);
  }
  return bitmap;
}

// Feeds the first `rows` rows of src through a PipelinedReducer.
Bitmap Pipelined(const Bitmap& src, int dw, int dh, int rows, bool threaded) {
  PipelinedReducer reducer;
  EXPECT_TRUE(reducer.Start(src.width(), src.height(), dw, dh, threaded).ok());
  for (int y = 0; y < rows; ++y) {
    std::memcpy(reducer.NextRow(), src.row(y), src.stride());
    reducer.CommitRow();
  }
  EXPECT_EQ(reducer.rows_committed(), rows);
  Bitmap out;
  EXPECT_TRUE(reducer.Finish(&out).ok());
  return out;
}

Bitmap Direct(const Bitmap& src, int dw, int dh, int rows) {
  AreaReducer reducer;
  EXPECT_TRUE(AreaReducer::Create(src.width(), src.height(), dw, dh, &reducer).ok());
  for (int y = 0; y < rows; ++y) reducer.PushRow(src.row(y));
  Bitmap out;
  EXPECT_TRUE(reducer.Finish(&out).ok());
  return out;
}

bool SameBytes(const Bitmap& a, const Bitmap& b) {
  return a.width() == b.width() && a.height() == b.height() &&
         std::memcmp(a.data(), b.data(), a.byte_size()) == 0;
}

TEST(PipelinedReducerTest, GivesTheAreaReducersBytesOnEitherThread) {
  // 2048 x 1100 is over the threshold for a second thread; 300 x 200 is not.
  // Row counts cover whole chunks, a partial last chunk and a source cut
  // short (its missing rows are grey).
  const Bitmap large = Noise(2048, 1100);
  for (int rows : {1100, 1093, 517, 0}) {
    const Bitmap expected = Direct(large, 701, 377, rows);
    EXPECT_TRUE(SameBytes(Pipelined(large, 701, 377, rows, true), expected)) << rows << " rows";
    EXPECT_TRUE(SameBytes(Pipelined(large, 701, 377, rows, false), expected)) << rows << " rows";
  }
  const Bitmap small = Noise(300, 200);
  EXPECT_TRUE(SameBytes(Pipelined(small, 97, 61, 200, true), Direct(small, 97, 61, 200)));
}

TEST(PipelinedReducerTest, AbandonedMidwayStopsItsThreadAndRefusesBadSizes) {
  const Bitmap large = Noise(2048, 1100);
  {
    PipelinedReducer reducer;
    ASSERT_TRUE(reducer.Start(2048, 1100, 100, 50).ok());
    for (int y = 0; y < 200; ++y) {
      std::memcpy(reducer.NextRow(), large.row(y), large.stride());
      reducer.CommitRow();
    }
  }  // destroyed without Finish: must neither hang nor leak
  PipelinedReducer reducer;
  EXPECT_FALSE(reducer.Start(100, 100, 200, 50).ok());  // enlarging
  EXPECT_FALSE(reducer.Start(0, 100, 1, 1).ok());
  // Started again after a refusal, it works.
  ASSERT_TRUE(reducer.Start(2048, 1100, 64, 32).ok());
  for (int y = 0; y < 1100; ++y) {
    std::memcpy(reducer.NextRow(), large.row(y), large.stride());
    reducer.CommitRow();
  }
  Bitmap out;
  ASSERT_TRUE(reducer.Finish(&out).ok());
  EXPECT_TRUE(SameBytes(out, Direct(large, 64, 32, 1100)));
}

}  // namespace
}  // namespace image
}  // namespace tessera
