#include "lib/codec/reducing-sink.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/codec/reduction-cache.h"
#include "lib/image/limits.h"

namespace tessera {
namespace codec {
namespace {

image::Bitmap Filled(int width, int height, uint8_t value) {
  image::Bitmap bitmap;
  EXPECT_TRUE(image::Bitmap::Create(width, height, &bitmap).ok());
  std::fill(bitmap.data(), bitmap.data() + bitmap.byte_size(), value);
  return bitmap;
}

TEST(ReductionCacheTest, HandsOutOnceAndOnlyForTheLastKey) {
  ReductionCache cache;
  cache.Keep("a", 360, Filled(3, 2, 7));
  cache.Keep("a", 720, Filled(6, 4, 8));
  image::Bitmap bitmap;
  ASSERT_TRUE(cache.Take("a", 720, &bitmap));
  EXPECT_EQ(bitmap.width(), 6);
  EXPECT_EQ(bitmap.row(3)[23], 8);
  EXPECT_FALSE(cache.Take("a", 720, &bitmap));
  EXPECT_EQ(cache.size(), 1u);

  // Another content drops what was kept for the last one, whether it keeps
  // something or only asks.
  EXPECT_FALSE(cache.Take("b", 360, &bitmap));
  EXPECT_FALSE(cache.Take("a", 360, &bitmap));
  cache.Keep("a", 360, Filled(3, 2, 7));
  cache.Keep("b", 720, Filled(6, 4, 8));
  EXPECT_FALSE(cache.Contains("a", 360));
  EXPECT_TRUE(cache.Contains("b", 720));
  EXPECT_FALSE(cache.Take("", 720, &bitmap));
  EXPECT_EQ(cache.size(), 0u);

  // Without a key nothing is kept.
  cache.Keep("", 360, Filled(3, 2, 7));
  EXPECT_EQ(cache.size(), 0u);
  EXPECT_EQ(bitmap.width(), 6);  // untouched by the misses
}

// Which sizes a sink reduces to on the side, given what it may spend.
std::vector<uint32_t> KeptAfterFanOut(const std::string& key, uint32_t cx, const std::vector<uint32_t>& others,
                                      uint64_t planned_bytes, bool finish = true) {
  std::vector<uint32_t> kept;
  {
    ReducingSink sink;
    EXPECT_TRUE(sink.Init(8000, 8000, cx).ok());
    sink.FanOut(FanOutRequest{key, others}, planned_bytes);
    image::Bitmap bitmap;
    if (finish) {
      EXPECT_TRUE(sink.Finish(1, &bitmap).ok());
    }
  }
  for (uint32_t other : others) {
    if (TheReductionCache().Contains(key, other)) kept.push_back(other);
  }
  return kept;
}

TEST(ReducingSinkTest, FansOutSmallestFirstWithinTheBudgets) {
  using Sizes = std::vector<uint32_t>;
  // 3840 x 3840 (56 MiB) is the sink's own; 720 and 360 fit beside it,
  // 3600 (49 MiB) would not.
  EXPECT_EQ(KeptAfterFanOut("a", 3840, {3600, 3840, 720, 360}, 0), (Sizes{720, 360}));
  // Beside a small size even 3600 fits; what the key kept before stays.
  EXPECT_EQ(KeptAfterFanOut("a", 360, {720, 3600}, 0), (Sizes{720, 3600}));
  // The decoder's own buffers count against the decode budget.
  EXPECT_EQ(KeptAfterFanOut("b", 360, {720, 960}, image::kMaxDecodeBytes - (3u << 20)), (Sizes{720}));
  // Nothing is kept without a key, or from a decode that never finished.
  EXPECT_EQ(KeptAfterFanOut("", 360, {720, 960}, 0), Sizes{});
  EXPECT_EQ(KeptAfterFanOut("c", 360, {720, 960}, 0, false), Sizes{});
}

TEST(ReducingSinkTest, ADecodeBudgetLowersTheLimitsAndNeverRaisesThem) {
  const auto init = [](uint64_t width, uint64_t height) { return ReducingSink().Init(width, height, 360); };
  SetDecodeBudget(1 << 20, 1 << 26);
  EXPECT_TRUE(init(1024, 1024).ok());
  EXPECT_TRUE(IsImageTooLarge(init(1025, 1024)));
  EXPECT_FALSE(WithinDecodeBudget((1 << 26) + 1));
  SetDecodeBudget(UINT64_MAX, UINT64_MAX);  // limits.h again
  EXPECT_TRUE(init(1025, 1024).ok());
  EXPECT_TRUE(WithinDecodeBudget(image::kMaxDecodeBytes));
  EXPECT_FALSE(WithinDecodeBudget(image::kMaxDecodeBytes + 1));
}

}  // namespace
}  // namespace codec
}  // namespace tessera
