// Area-average resampling at the sizes the thumbnail cascade meets: a
// handler bitmap of 3x the edge reduced to the edge, and large decodes
// reduced on load.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "lib/image/area-resample.h"
#include "lib/image/bitmap.h"

namespace tessera {
namespace image {
namespace {

Bitmap NoiseBitmap(int width, int height) {
  Bitmap bitmap;
  if (!Bitmap::Create(width, height, &bitmap).ok()) return bitmap;
  uint32_t state = 12345;
  for (size_t i = 0; i < bitmap.byte_size(); ++i) {
    state = state * 1664525u + 1013904223u;
    bitmap.data()[i] = static_cast<uint8_t>(state >> 24);
  }
  return bitmap;
}

// Arguments: source width, height, target width, height.
void BM_AreaResample(benchmark::State& state) {
  const Bitmap src = NoiseBitmap(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  const int dw = static_cast<int>(state.range(2));
  const int dh = static_cast<int>(state.range(3));
  for (auto _ : state) {
    Bitmap out;
    if (!AreaResample(src, dw, dh, &out).ok()) state.SkipWithError("AreaResample failed");
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * src.width() * src.height());
}
BENCHMARK(BM_AreaResample)
    ->Args({3840, 2560, 1920, 1280})
    ->Args({6000, 4000, 1920, 1280})
    ->Args({6000, 4000, 360, 240})
    ->Args({3840, 2160, 2275, 1280})
    ->Unit(benchmark::kMillisecond);

// Row-by-row reduction as a decoder drives it.
void BM_AreaReducerStreaming(benchmark::State& state) {
  const Bitmap src = NoiseBitmap(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
  const int dw = static_cast<int>(state.range(2));
  const int dh = static_cast<int>(state.range(3));
  for (auto _ : state) {
    AreaReducer reducer;
    if (!AreaReducer::Create(src.width(), src.height(), dw, dh, &reducer).ok()) {
      state.SkipWithError("AreaReducer::Create failed");
      break;
    }
    for (int y = 0; y < src.height(); ++y) reducer.PushRow(src.row(y));
    Bitmap out;
    if (!reducer.Finish(&out).ok()) state.SkipWithError("AreaReducer::Finish failed");
    benchmark::DoNotOptimize(out.data());
  }
  state.SetItemsProcessed(state.iterations() * src.width() * src.height());
}
BENCHMARK(BM_AreaReducerStreaming)->Args({6000, 4000, 360, 240})->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace image
}  // namespace tessera

BENCHMARK_MAIN();
