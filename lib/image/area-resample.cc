#include "lib/image/area-resample.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "lib/image/limits.h"

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#include <emmintrin.h>
#define TESSERA_AREA_RESAMPLE_SSE2 1
#endif

namespace tessera {
namespace image {
namespace {

constexpr int kChannels = Bitmap::kBytesPerPixel;

// One pixel as four float channels, and the handful of operations the
// resampler needs on it. With SSE2 (every x86-64 target) a pixel is one
// register; elsewhere the portable form below is used. The compiler does not
// vectorise the tap loops on its own at -O2 (trip counts vary per column), and
// this keeps the hot loops at one vector operation per source pixel.
#if defined(TESSERA_AREA_RESAMPLE_SSE2)
struct Pixel {
  __m128 v;
};
inline Pixel PixelSplat(float v) { return Pixel{_mm_set1_ps(v)}; }
inline Pixel PixelAdd(Pixel a, Pixel b) { return Pixel{_mm_add_ps(a.v, b.v)}; }
inline Pixel PixelMul(Pixel a, Pixel b) { return Pixel{_mm_mul_ps(a.v, b.v)}; }
inline Pixel PixelFromBytes(const uint8_t* p) {
  int32_t bits;
  std::memcpy(&bits, p, sizeof(bits));
  const __m128i zero = _mm_setzero_si128();
  const __m128i words = _mm_unpacklo_epi8(_mm_cvtsi32_si128(bits), zero);
  return Pixel{_mm_cvtepi32_ps(_mm_unpacklo_epi16(words, zero))};
}
// Rounds to nearest; values are never negative.
inline void PixelToBytes(Pixel v, uint8_t* p) {
  const __m128i ints = _mm_cvttps_epi32(_mm_min_ps(_mm_add_ps(v.v, _mm_set1_ps(0.5f)), _mm_set1_ps(255.0f)));
  const __m128i words = _mm_packs_epi32(ints, ints);
  const int32_t bits = _mm_cvtsi128_si32(_mm_packus_epi16(words, words));
  std::memcpy(p, &bits, sizeof(bits));
}
#else
struct Pixel {
  float c[kChannels];
};
inline Pixel PixelSplat(float v) { return Pixel{{v, v, v, v}}; }
inline Pixel PixelAdd(Pixel a, Pixel b) {
  return Pixel{{a.c[0] + b.c[0], a.c[1] + b.c[1], a.c[2] + b.c[2], a.c[3] + b.c[3]}};
}
inline Pixel PixelMul(Pixel a, Pixel b) {
  return Pixel{{a.c[0] * b.c[0], a.c[1] * b.c[1], a.c[2] * b.c[2], a.c[3] * b.c[3]}};
}
inline Pixel PixelFromBytes(const uint8_t* p) {
  return Pixel{{static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2]),
                static_cast<float>(p[3])}};
}
inline void PixelToBytes(Pixel v, uint8_t* p) {
  for (int i = 0; i < kChannels; ++i) p[i] = static_cast<uint8_t>(static_cast<int>(std::min(v.c[i] + 0.5f, 255.0f)));
}
#endif

// Coordinates are kept in integers scaled by src * dst, so that both source
// pixel edges (multiples of dst) and target pixel edges (multiples of src)
// are exact: source pixel i covers [i * dst, (i + 1) * dst) and target pixel
// x covers [x * src, (x + 1) * src). The overlap divided by src is the
// weight of source pixel i in target pixel x.
//
// Every target column gets the same number of taps (the largest footprint,
// padded with zero weights), so the tap loop runs a fixed count per row:
// no branch mispredictions on irregular ratios, and short counts get fully
// unrolled kernels.
struct ColumnTable {
  int taps = 0;
  std::vector<int> starts;     // first source pixel of each target column
  std::vector<Pixel> weights;  // taps per column, each weight splatted over the channels
};

void BuildColumnTable(int src, int dst, ColumnTable* table) {
  const uint64_t s = static_cast<uint64_t>(src);
  const uint64_t d = static_cast<uint64_t>(dst);
  uint64_t taps = 0;
  for (uint64_t x = 0; x < d; ++x) {
    const uint64_t first = x * s / d;
    const uint64_t end = ((x + 1) * s + d - 1) / d;
    taps = std::max(taps, end - first);
  }
  table->taps = static_cast<int>(taps);
  table->starts.resize(static_cast<size_t>(dst));
  table->weights.assign(static_cast<size_t>(dst) * taps, PixelSplat(0.0f));
  for (uint64_t x = 0; x < d; ++x) {
    const uint64_t lo = x * s;
    const uint64_t hi = lo + s;
    // A footprint always lies inside the row, so taps <= src and the padded
    // window can be moved left to stay inside it.
    const uint64_t start = std::min(lo / d, s - taps);
    table->starts[x] = static_cast<int>(start);
    for (uint64_t k = 0; k < taps; ++k) {
      const uint64_t i = start + k;
      const uint64_t left = std::max(i * d, lo);
      const uint64_t right = std::min((i + 1) * d, hi);
      if (right <= left) continue;
      table->weights[x * taps + k] =
          PixelSplat(static_cast<float>(static_cast<double>(right - left) / static_cast<double>(s)));
    }
  }
}

template <int kTaps>
void ReduceRowFixed(const uint8_t* row, const ColumnTable& table, int dst_width, Pixel* out) {
  const int* starts = table.starts.data();
  const Pixel* w = table.weights.data();
  for (int x = 0; x < dst_width; ++x, w += kTaps) {
    const uint8_t* p = row + static_cast<size_t>(starts[x]) * kChannels;
    Pixel sum = PixelMul(w[0], PixelFromBytes(p));
    for (int k = 1; k < kTaps; ++k) sum = PixelAdd(sum, PixelMul(w[k], PixelFromBytes(p + k * kChannels)));
    out[x] = sum;
  }
}

// Any tap count; two running sums halve the dependency chain.
void ReduceRowAny(const uint8_t* row, const ColumnTable& table, int dst_width, Pixel* out) {
  const int taps = table.taps;
  const int* starts = table.starts.data();
  const Pixel* w = table.weights.data();
  for (int x = 0; x < dst_width; ++x, w += taps) {
    const uint8_t* p = row + static_cast<size_t>(starts[x]) * kChannels;
    Pixel even = PixelMul(w[0], PixelFromBytes(p));
    Pixel odd = PixelMul(w[1], PixelFromBytes(p + kChannels));
    int k = 2;
    for (; k + 1 < taps; k += 2) {
      even = PixelAdd(even, PixelMul(w[k], PixelFromBytes(p + k * kChannels)));
      odd = PixelAdd(odd, PixelMul(w[k + 1], PixelFromBytes(p + (k + 1) * kChannels)));
    }
    if (k < taps) even = PixelAdd(even, PixelMul(w[k], PixelFromBytes(p + k * kChannels)));
    out[x] = PixelAdd(even, odd);
  }
}

// Converts a row of accumulated pixels to bytes. The weights sum to one (up
// to float error), so values stay within [0, 255.5).
void StoreRow(const Pixel* values, int pixels, uint8_t* out) {
  for (int x = 0; x < pixels; ++x) PixelToBytes(values[x], out + x * kChannels);
}

// The reduction engine. Each pushed row is reduced horizontally once into
// `reduced`, then added with its vertical coverage weight into `accum`, the
// one target row in progress. Target rows are finished as soon as their
// footprint has been covered, so one accumulator row suffices for any ratio.
struct ReducerCore {
  int src_width = 0;
  int src_height = 0;
  int dst_width = 0;
  int dst_height = 0;
  int rows_pushed = 0;
  int next_dst_row = 0;  // target row being accumulated
  bool accum_dirty = false;
  ColumnTable columns;
  std::vector<Pixel> reduced;  // dst_width pixels
  std::vector<Pixel> accum;    // dst_width pixels
  Bitmap out;

  Status Init(int sw, int sh, int dw, int dh) {
    src_width = sw;
    src_height = sh;
    dst_width = dw;
    dst_height = dh;
    Status status = Bitmap::Create(dw, dh, &out);
    if (!status.ok()) return status;
    try {
      BuildColumnTable(sw, dw, &columns);
      reduced.resize(static_cast<size_t>(dw));
      accum.resize(static_cast<size_t>(dw));
    } catch (const std::bad_alloc&) {
      return Status::Internal("out of memory for the resampler's row buffers");
    }
    return Status::OK();
  }

  void ReduceRow(const uint8_t* row) {
    Pixel* out_values = reduced.data();
    if (src_width == dst_width) {
      for (int x = 0; x < src_width; ++x) out_values[x] = PixelFromBytes(row + x * kChannels);
      return;
    }
    switch (columns.taps) {
      case 1: ReduceRowFixed<1>(row, columns, dst_width, out_values); break;
      case 2: ReduceRowFixed<2>(row, columns, dst_width, out_values); break;
      case 3: ReduceRowFixed<3>(row, columns, dst_width, out_values); break;
      case 4: ReduceRowFixed<4>(row, columns, dst_width, out_values); break;
      default: ReduceRowAny(row, columns, dst_width, out_values); break;
    }
  }

  void Accumulate(const Pixel* values, float weight) {
    Pixel* acc = accum.data();
    const Pixel w = PixelSplat(weight);
    if (accum_dirty) {
      for (int x = 0; x < dst_width; ++x) acc[x] = PixelAdd(acc[x], PixelMul(w, values[x]));
    } else {
      for (int x = 0; x < dst_width; ++x) acc[x] = PixelMul(w, values[x]);
      accum_dirty = true;
    }
  }

  void EmitAccumulated() {
    StoreRow(accum.data(), dst_width, out.row(next_dst_row));
    accum_dirty = false;
    ++next_dst_row;
  }

  // Adds source row `src_y`, already reduced horizontally into `values`, to
  // every target row it overlaps.
  void AddSourceRow(int src_y, const Pixel* values) {
    const uint64_t s = static_cast<uint64_t>(src_height);
    const uint64_t d = static_cast<uint64_t>(dst_height);
    const uint64_t top = static_cast<uint64_t>(src_y) * d;
    const uint64_t bottom = top + d;
    while (next_dst_row < dst_height) {
      const uint64_t row_top = static_cast<uint64_t>(next_dst_row) * s;
      const uint64_t row_bottom = row_top + s;
      const uint64_t overlap = std::min(bottom, row_bottom) - std::max(top, row_top);
      if (overlap == s) {
        // The target row lies wholly inside this source row.
        StoreRow(values, dst_width, out.row(next_dst_row));
        ++next_dst_row;
      } else {
        Accumulate(values, static_cast<float>(static_cast<double>(overlap) / static_cast<double>(s)));
        if (row_bottom > bottom) return;  // continues into the next source row
        EmitAccumulated();
      }
      if (row_bottom == bottom) return;
    }
  }

  void PushRow(const uint8_t* row) {
    if (rows_pushed >= src_height) return;
    ReduceRow(row);
    AddSourceRow(rows_pushed, reduced.data());
    ++rows_pushed;
  }

  // Completes the target with mid grey for the source rows never pushed.
  // Done in bulk rather than row by row, so a source that stops early costs
  // no more than the rows it delivered.
  void FillMissingRows() {
    if (rows_pushed >= src_height || next_dst_row >= dst_height) return;
    const uint64_t s = static_cast<uint64_t>(src_height);
    const uint64_t d = static_cast<uint64_t>(dst_height);
    std::fill(reduced.begin(), reduced.end(), PixelSplat(128.0f));
    if (accum_dirty) {
      const uint64_t row_top = static_cast<uint64_t>(next_dst_row) * s;
      const uint64_t missing_top = static_cast<uint64_t>(rows_pushed) * d;
      const uint64_t missing = row_top + s - std::max(row_top, missing_top);
      Accumulate(reduced.data(), static_cast<float>(static_cast<double>(missing) / static_cast<double>(s)));
      EmitAccumulated();
    }
    if (next_dst_row < dst_height) {
      StoreRow(reduced.data(), dst_width, out.row(next_dst_row));
      const uint8_t* grey = out.row(next_dst_row);
      for (int y = next_dst_row + 1; y < dst_height; ++y) std::memcpy(out.row(y), grey, out.stride());
      next_dst_row = dst_height;
    }
  }
};

Status CheckSourceSize(int sw, int sh) {
  if (sw <= 0 || sh <= 0 || !WithinPixelLimits(static_cast<uint64_t>(sw), static_cast<uint64_t>(sh))) {
    return Status::InvalidArgument("resample source size " + std::to_string(sw) + "x" + std::to_string(sh) +
                                   " is out of range");
  }
  return Status::OK();
}

}  // namespace

struct AreaReducer::Impl : ReducerCore {};

AreaReducer::AreaReducer() = default;
AreaReducer::AreaReducer(AreaReducer&&) noexcept = default;
AreaReducer& AreaReducer::operator=(AreaReducer&&) noexcept = default;
AreaReducer::~AreaReducer() = default;

Status AreaReducer::Create(int src_width, int src_height, int dst_width, int dst_height, AreaReducer* out) {
  if (dst_width <= 0 || dst_height <= 0 || dst_width > src_width || dst_height > src_height) {
    return Status::InvalidArgument("cannot reduce " + std::to_string(src_width) + "x" +
                                   std::to_string(src_height) + " to " + std::to_string(dst_width) + "x" +
                                   std::to_string(dst_height));
  }
  Status status = CheckSourceSize(src_width, src_height);
  if (!status.ok()) return status;
  std::unique_ptr<Impl> impl(new (std::nothrow) Impl);
  if (!impl) return Status::Internal("out of memory for the resampler");
  status = impl->Init(src_width, src_height, dst_width, dst_height);
  if (!status.ok()) return status;
  out->impl_ = std::move(impl);
  return Status::OK();
}

int AreaReducer::source_width() const { return impl_ ? impl_->src_width : 0; }
int AreaReducer::source_height() const { return impl_ ? impl_->src_height : 0; }
int AreaReducer::rows_pushed() const { return impl_ ? impl_->rows_pushed : 0; }

void AreaReducer::PushRow(const uint8_t* bgra_row) {
  if (impl_) impl_->PushRow(bgra_row);
}

Status AreaReducer::Finish(Bitmap* out) {
  if (!impl_) return Status::InvalidArgument("the area reducer was not created or is already spent");
  impl_->FillMissingRows();
  *out = std::move(impl_->out);
  impl_.reset();
  return Status::OK();
}

Status AreaResample(const Bitmap& src, int dst_width, int dst_height, Bitmap* out) {
  if (src.empty()) return Status::InvalidArgument("cannot resample an empty bitmap");
  if (dst_width <= 0 || dst_height <= 0) {
    return Status::InvalidArgument("resample target size " + std::to_string(dst_width) + "x" +
                                   std::to_string(dst_height) + " is out of range");
  }
  if (dst_width == src.width() && dst_height == src.height()) return src.Clone(out);
  ReducerCore core;
  Status status = core.Init(src.width(), src.height(), dst_width, dst_height);
  if (!status.ok()) return status;
  for (int y = 0; y < src.height(); ++y) core.PushRow(src.row(y));
  *out = std::move(core.out);
  return Status::OK();
}

void FitWithin(int width, int height, uint32_t cx, int* out_width, int* out_height) {
  if (width <= 0 || height <= 0) {
    *out_width = 0;
    *out_height = 0;
    return;
  }
  const uint64_t w = static_cast<uint64_t>(width);
  const uint64_t h = static_cast<uint64_t>(height);
  const uint64_t limit = std::max<uint64_t>(cx, 1);
  const uint64_t longer = std::max(w, h);
  if (longer <= limit) {
    *out_width = width;
    *out_height = height;
    return;
  }
  // Shorter side rounded to nearest, never below one pixel.
  const uint64_t shorter = std::max<uint64_t>((std::min(w, h) * limit + longer / 2) / longer, 1);
  *out_width = static_cast<int>(w >= h ? limit : shorter);
  *out_height = static_cast<int>(w >= h ? shorter : limit);
}

}  // namespace image
}  // namespace tessera
