#include "lib/image/pipelined-reducer.h"

#include <cstring>
#include <utility>
#include <vector>

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

std::vector<AreaReducer> Reducers(int sw, int sh, const std::vector<std::pair<int, int>>& sizes) {
  std::vector<AreaReducer> reducers(sizes.size());
  for (size_t i = 0; i < sizes.size(); ++i) {
    EXPECT_TRUE(AreaReducer::Create(sw, sh, sizes[i].first, sizes[i].second, &reducers[i]).ok());
  }
  return reducers;
}

// Feeds the first `rows` rows of src through a PipelinedReducer to each of
// `sizes`, alternating between rows written in place and rows pushed.
std::vector<Bitmap> Pipelined(const Bitmap& src, const std::vector<std::pair<int, int>>& sizes, int rows,
                              bool threaded) {
  PipelinedReducer reducer;
  EXPECT_TRUE(reducer.Start(Reducers(src.width(), src.height(), sizes), threaded).ok());
  for (int y = 0; y < rows; ++y) {
    if (y % 3 == 0) {
      reducer.PushRow(src.row(y));
    } else {
      std::memcpy(reducer.NextRow(), src.row(y), src.stride());
      reducer.CommitRow();
    }
  }
  EXPECT_EQ(reducer.rows_committed(), rows);
  std::vector<Bitmap> out;
  EXPECT_TRUE(reducer.Finish(&out).ok());
  EXPECT_EQ(out.size(), sizes.size());
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

TEST(PipelinedReducerTest, GivesEachAreaReducersBytesOnEitherThread) {
  // 2048 x 1100 is over the threshold for a second thread; 300 x 200 is not.
  // Row counts cover whole chunks, a partial last chunk and a source cut
  // short (its missing rows are grey).
  const Bitmap large = Noise(2048, 1100);
  const std::vector<std::pair<int, int>> sizes = {{701, 377}, {64, 34}, {2048, 1100}};
  for (int rows : {1100, 1093, 517, 0}) {
    for (bool threaded : {true, false}) {
      const std::vector<Bitmap> got = Pipelined(large, sizes, rows, threaded);
      for (size_t i = 0; i < sizes.size() && i < got.size(); ++i) {
        EXPECT_TRUE(SameBytes(got[i], Direct(large, sizes[i].first, sizes[i].second, rows)))
            << rows << " rows, size " << i << (threaded ? ", threaded" : "");
      }
    }
  }
  const Bitmap small = Noise(300, 200);
  EXPECT_TRUE(SameBytes(Pipelined(small, {{97, 61}}, 200, true)[0], Direct(small, 97, 61, 200)));
}

TEST(PipelinedReducerTest, AbandonedMidwayStopsItsThreadAndRefusesBadInput) {
  const Bitmap large = Noise(2048, 1100);
  {
    PipelinedReducer reducer;
    ASSERT_TRUE(reducer.Start(Reducers(2048, 1100, {{100, 50}})).ok());
    for (int y = 0; y < 200; ++y) {
      std::memcpy(reducer.NextRow(), large.row(y), large.stride());
      reducer.CommitRow();
    }
  }  // destroyed without Finish: must neither hang nor leak
  PipelinedReducer reducer;
  EXPECT_FALSE(reducer.Start({}).ok());
  std::vector<AreaReducer> mixed = Reducers(2048, 1100, {{64, 32}});
  mixed.push_back(std::move(Reducers(1000, 1100, {{64, 32}})[0]));
  EXPECT_FALSE(reducer.Start(std::move(mixed)).ok());
  // Started again after a refusal, it works.
  ASSERT_TRUE(reducer.Start(Reducers(2048, 1100, {{64, 32}})).ok());
  for (int y = 0; y < 1100; ++y) {
    std::memcpy(reducer.NextRow(), large.row(y), large.stride());
    reducer.CommitRow();
  }
  std::vector<Bitmap> out;
  ASSERT_TRUE(reducer.Finish(&out).ok());
  ASSERT_EQ(out.size(), 1u);
  EXPECT_TRUE(SameBytes(out[0], Direct(large, 64, 32, 1100)));
}

}  // namespace
}  // namespace image
}  // namespace tessera
