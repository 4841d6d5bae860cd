#include "lib/image/area-resample.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "lib/image/limits.h"

#if !defined(TESSERA_AREA_RESAMPLE_PORTABLE) && \
    (defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2))
#include <emmintrin.h>
#define TESSERA_AREA_RESAMPLE_SSE2 1
#endif

namespace tessera {
namespace image {
namespace {

constexpr int kChannels = Bitmap::kBytesPerPixel;

// Source rows that lie wholly inside one target row are summed in 16-bit
// integers; this many fit before a sum could overflow (257 * 255 = 65535).
constexpr int kMaxIntegerRows = 257;

// One pixel as four float channels, and the handful of operations the
// resampler needs on it. With SSE2 (every x86-64 target) a pixel is one
// register; elsewhere the portable form below is used. The compiler does not
// vectorise these loops on its own at -O2 (trip counts vary per column), and
// this keeps them at one vector operation per pixel.
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
inline Pixel PixelFromWords(const uint16_t* p) {
  const __m128i words = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(p));
  return Pixel{_mm_cvtepi32_ps(_mm_unpacklo_epi16(words, _mm_setzero_si128()))};
}
// Rounds to nearest; values are never negative.
inline void PixelToBytes(Pixel v, uint8_t* p) {
  const __m128i ints = _mm_cvttps_epi32(_mm_min_ps(_mm_add_ps(v.v, _mm_set1_ps(0.5f)), _mm_set1_ps(255.0f)));
  const __m128i words = _mm_packs_epi32(ints, ints);
  const int32_t bits = _mm_cvtsi128_si32(_mm_packus_epi16(words, words));
  std::memcpy(p, &bits, sizeof(bits));
}

// sums[i] (+)= bytes[i] for n values.
void AddBytes(const uint8_t* bytes, size_t n, bool first, uint16_t* sums) {
  const __m128i zero = _mm_setzero_si128();
  size_t i = 0;
  for (; i + 16 <= n; i += 16) {
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
    __m128i lo = _mm_unpacklo_epi8(b, zero);
    __m128i hi = _mm_unpackhi_epi8(b, zero);
    __m128i* s = reinterpret_cast<__m128i*>(sums + i);
    if (!first) {
      lo = _mm_add_epi16(lo, _mm_loadu_si128(s));
      hi = _mm_add_epi16(hi, _mm_loadu_si128(s + 1));
    }
    _mm_storeu_si128(s, lo);
    _mm_storeu_si128(s + 1, hi);
  }
  for (; i < n; ++i) sums[i] = static_cast<uint16_t>((first ? 0 : sums[i]) + bytes[i]);
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
inline Pixel PixelFromWords(const uint16_t* p) {
  return Pixel{{static_cast<float>(p[0]), static_cast<float>(p[1]), static_cast<float>(p[2]),
                static_cast<float>(p[3])}};
}
inline void PixelToBytes(Pixel v, uint8_t* p) {
  for (int i = 0; i < kChannels; ++i) p[i] = static_cast<uint8_t>(static_cast<int>(std::min(v.c[i] + 0.5f, 255.0f)));
}
void AddBytes(const uint8_t* bytes, size_t n, bool first, uint16_t* sums) {
  for (size_t i = 0; i < n; ++i) sums[i] = static_cast<uint16_t>((first ? 0 : sums[i]) + bytes[i]);
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

// `scale` multiplies every weight (the vertical normalisation, folded in).
void BuildColumnTable(int src, int dst, double scale, ColumnTable* table) {
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
          PixelSplat(static_cast<float>(static_cast<double>(right - left) / static_cast<double>(s) * scale));
    }
  }
}

// The horizontal pass. `Source` yields source pixel i as a Pixel: column
// sums in float, or in 16-bit integers when only whole rows were added (read
// directly, saving a conversion pass over the row).
struct FloatColumns {
  const Pixel* sums;
  Pixel operator[](int i) const { return sums[i]; }
};
struct IntegerColumns {
  const uint16_t* sums;
  Pixel operator[](int i) const { return PixelFromWords(sums + i * kChannels); }
};

template <int kTaps, typename Source>
void ReduceRowFixed(Source in, const ColumnTable& table, int dst_width, Pixel* out) {
  const int* starts = table.starts.data();
  const Pixel* w = table.weights.data();
  for (int x = 0; x < dst_width; ++x, w += kTaps) {
    const int p = starts[x];
    Pixel sum = PixelMul(w[0], in[p]);
    for (int k = 1; k < kTaps; ++k) sum = PixelAdd(sum, PixelMul(w[k], in[p + k]));
    out[x] = sum;
  }
}

// Any tap count; two running sums halve the dependency chain.
template <typename Source>
void ReduceRowAny(Source in, const ColumnTable& table, int dst_width, Pixel* out) {
  const int taps = table.taps;
  const int* starts = table.starts.data();
  const Pixel* w = table.weights.data();
  for (int x = 0; x < dst_width; ++x, w += taps) {
    const int p = starts[x];
    Pixel even = PixelMul(w[0], in[p]);
    Pixel odd = PixelMul(w[1], in[p + 1]);
    int k = 2;
    for (; k + 1 < taps; k += 2) {
      even = PixelAdd(even, PixelMul(w[k], in[p + k]));
      odd = PixelAdd(odd, PixelMul(w[k + 1], in[p + k + 1]));
    }
    if (k < taps) even = PixelAdd(even, PixelMul(w[k], in[p + k]));
    out[x] = PixelAdd(even, odd);
  }
}

template <typename Source>
void ReduceRow(Source in, const ColumnTable& table, int dst_width, Pixel* out) {
  switch (table.taps) {
    case 1: ReduceRowFixed<1>(in, table, dst_width, out); break;
    case 2: ReduceRowFixed<2>(in, table, dst_width, out); break;
    case 3: ReduceRowFixed<3>(in, table, dst_width, out); break;
    case 4: ReduceRowFixed<4>(in, table, dst_width, out); break;
    default: ReduceRowAny(in, table, dst_width, out); break;
  }
}

// The reduction engine, vertical pass first. Each pushed row is added, with
// its vertical coverage, into column sums for the one target row in
// progress: rows wholly inside that target row as 16-bit integers (the
// common case, and the cheapest), rows cut by a target row edge as floats.
// When a target row's footprint is complete, its column sums are reduced
// horizontally once and stored. Memory: the output plus a few source rows'
// worth of sums, for any ratio.
struct ReducerCore {
  int src_width = 0;
  int src_height = 0;
  int dst_width = 0;
  int dst_height = 0;
  int rows_pushed = 0;
  int next_dst_row = 0;     // target row being accumulated
  int integer_rows = 0;     // rows summed in `integer_sums` so far
  bool float_dirty = false;  // `float_sums` holds contributions
  ColumnTable columns;
  std::vector<uint16_t> integer_sums;  // src_width * 4
  std::vector<Pixel> float_sums;       // src_width pixels
  std::vector<Pixel> next_float_sums;  // src_width pixels: the next target row's share of a split row
  std::vector<Pixel> reduced;          // dst_width pixels
  Bitmap out;

  Status Init(int sw, int sh, int dw, int dh) {
    src_width = sw;
    src_height = sh;
    dst_width = dw;
    dst_height = dh;
    Status status = Bitmap::Create(dw, dh, &out);
    if (!status.ok()) return status;
    try {
      // Vertical weights count a whole source row as 1, so a target row's
      // weights add up to sh / dh; the horizontal weights undo that.
      BuildColumnTable(sw, dw, static_cast<double>(dh) / static_cast<double>(sh), &columns);
      integer_sums.resize(static_cast<size_t>(sw) * kChannels);
      float_sums.resize(static_cast<size_t>(sw));
      next_float_sums.resize(static_cast<size_t>(sw));
      reduced.resize(static_cast<size_t>(dw));
    } catch (const std::bad_alloc&) {
      return Status::Internal("out of memory for the resampler's row buffers");
    }
    return Status::OK();
  }

  void FoldIntegersIntoFloats() {
    for (int x = 0; x < src_width; ++x) {
      const Pixel v = PixelFromWords(integer_sums.data() + x * kChannels);
      float_sums[x] = float_dirty ? PixelAdd(float_sums[x], v) : v;
    }
    float_dirty = true;
    integer_rows = 0;
  }

  void AddWholeRow(const uint8_t* row) {
    if (integer_rows == kMaxIntegerRows) FoldIntegersIntoFloats();
    AddBytes(row, static_cast<size_t>(src_width) * kChannels, integer_rows == 0, integer_sums.data());
    ++integer_rows;
  }

  void AddPartialRow(const uint8_t* row, float weight) {
    const Pixel w = PixelSplat(weight);
    Pixel* sums = float_sums.data();
    if (float_dirty) {
      for (int x = 0; x < src_width; ++x) sums[x] = PixelAdd(sums[x], PixelMul(w, PixelFromBytes(row + x * kChannels)));
    } else {
      for (int x = 0; x < src_width; ++x) sums[x] = PixelMul(w, PixelFromBytes(row + x * kChannels));
      float_dirty = true;
    }
  }

  // A row cut by the edge between the current target row and the next: one
  // conversion feeds both, the next row's share going into `next_float_sums`.
  void AddSplitRow(const uint8_t* row, float weight, float next_weight) {
    const Pixel w = PixelSplat(weight);
    const Pixel next_w = PixelSplat(next_weight);
    Pixel* sums = float_sums.data();
    Pixel* next = next_float_sums.data();
    for (int x = 0; x < src_width; ++x) {
      const Pixel v = PixelFromBytes(row + x * kChannels);
      sums[x] = float_dirty ? PixelAdd(sums[x], PixelMul(w, v)) : PixelMul(w, v);
      next[x] = PixelMul(next_w, v);
    }
    float_dirty = true;
  }

  void AddConstant(float value) {
    const Pixel v = PixelSplat(value);
    for (Pixel& sum : float_sums) sum = float_dirty ? PixelAdd(sum, v) : v;
    float_dirty = true;
  }

  // Reduces the finished column sums horizontally into the next target row.
  void EmitRow() {
    Pixel* values = reduced.data();
    if (!float_dirty) {
      // Every row is whole (or, at Finish, nothing was added at all).
      if (integer_rows == 0) std::fill(integer_sums.begin(), integer_sums.end(), 0);
      ReduceRow(IntegerColumns{integer_sums.data()}, columns, dst_width, values);
    } else {
      if (integer_rows > 0) FoldIntegersIntoFloats();
      ReduceRow(FloatColumns{float_sums.data()}, columns, dst_width, values);
    }
    uint8_t* bytes = out.row(next_dst_row);
    for (int x = 0; x < dst_width; ++x) PixelToBytes(values[x], bytes + x * kChannels);
    float_dirty = false;
    integer_rows = 0;
    ++next_dst_row;
  }

  // Adds source row `rows_pushed` to every target row it overlaps. Source
  // row j covers [j * dh, (j + 1) * dh) and target row y covers
  // [y * sh, (y + 1) * sh); the weight is the overlap over dh.
  void PushRow(const uint8_t* row) {
    if (rows_pushed >= src_height) return;
    const uint64_t s = static_cast<uint64_t>(src_height);
    const uint64_t d = static_cast<uint64_t>(dst_height);
    const uint64_t top = static_cast<uint64_t>(rows_pushed) * d;
    const uint64_t bottom = top + d;
    ++rows_pushed;
    while (next_dst_row < dst_height) {
      const uint64_t row_top = static_cast<uint64_t>(next_dst_row) * s;
      const uint64_t row_bottom = row_top + s;
      const uint64_t overlap = std::min(bottom, row_bottom) - std::max(top, row_top);
      if (row_bottom < bottom && bottom < row_bottom + s && next_dst_row + 1 < dst_height) {
        // Split between this target row and the next, ending inside the next.
        AddSplitRow(row, static_cast<float>(static_cast<double>(overlap) / static_cast<double>(d)),
                    static_cast<float>(static_cast<double>(bottom - row_bottom) / static_cast<double>(d)));
        EmitRow();
        float_sums.swap(next_float_sums);
        float_dirty = true;
        return;
      }
      if (overlap == d) {
        AddWholeRow(row);
      } else {
        AddPartialRow(row, static_cast<float>(static_cast<double>(overlap) / static_cast<double>(d)));
      }
      if (row_bottom > bottom) return;  // the target row continues below
      EmitRow();
      if (row_bottom == bottom) return;
    }
  }

  // Completes the target with mid grey for the source rows never pushed.
  // Done in bulk, so a source that stops early costs no more than the rows
  // it delivered.
  void FillMissingRows() {
    if (rows_pushed >= src_height || next_dst_row >= dst_height) return;
    if (integer_rows > 0 || float_dirty) {
      const uint64_t s = static_cast<uint64_t>(src_height);
      const uint64_t d = static_cast<uint64_t>(dst_height);
      const uint64_t row_bottom = static_cast<uint64_t>(next_dst_row + 1) * s;
      const uint64_t missing = row_bottom - static_cast<uint64_t>(rows_pushed) * d;
      AddConstant(static_cast<float>(128.0 * static_cast<double>(missing) / static_cast<double>(d)));
      EmitRow();
    }
    for (int y = next_dst_row; y < dst_height; ++y) std::memset(out.row(y), 128, out.stride());
    next_dst_row = dst_height;
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

void ShorterSideTo(int width, int height, uint32_t edge, int* out_width, int* out_height) {
  const int64_t s = edge;
  if (width > s && height > s) {
    if (width < height) {
      *out_width = static_cast<int>(s);
      *out_height = static_cast<int>(static_cast<double>(edge) / width * height);
    } else {
      *out_width = static_cast<int>(static_cast<double>(edge) / height * width);
      *out_height = static_cast<int>(s);
    }
  } else {
    *out_width = width;
    *out_height = height;
  }
}

}  // namespace image
}  // namespace tessera
