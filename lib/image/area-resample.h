// Exact area-average reduction: every target pixel is the coverage-weighted
// mean of the source pixels under it (a box filter over the exact footprint,
// as a halftone stretch does). Separable; all four channels are treated alike,
// so callers flatten alpha first when they want it gone.
#ifndef TESSERA_LIB_IMAGE_AREA_RESAMPLE_H_
#define TESSERA_LIB_IMAGE_AREA_RESAMPLE_H_

#include <cstdint>
#include <memory>

#include "lib/image/bitmap.h"
#include "lib/utility/status.h"

namespace tessera {
namespace image {

// Resamples src into a dst_width x dst_height bitmap in *out. Any ratio is
// accepted (a factor of 1 copies); sizes must be positive. On failure *out is
// untouched.
Status AreaResample(const Bitmap& src, int dst_width, int dst_height, Bitmap* out);

// Streaming form, for decoders that produce rows one at a time: memory is
// bounded by the output plus one row of accumulators, not by the source.
//
//   AreaReducer reducer;
//   Status s = AreaReducer::Create(src_w, src_h, dst_w, dst_h, &reducer);
//   for each source row y (top to bottom): reducer.PushRow(row_bgra);
//   s = reducer.Finish(&bitmap);
//
// Rows are src_w BGRA pixels (4 bytes each). dst sizes must not exceed the
// source sizes. Not thread-safe; one object per decode.
class AreaReducer {
 public:
  AreaReducer();
  AreaReducer(AreaReducer&&) noexcept;
  AreaReducer& operator=(AreaReducer&&) noexcept;
  ~AreaReducer();

  static Status Create(int src_width, int src_height, int dst_width, int dst_height,
                       AreaReducer* out);

  int source_width() const;
  int source_height() const;
  // Number of source rows pushed so far.
  int rows_pushed() const;

  // Adds the next source row. Rows beyond source_height() are ignored.
  void PushRow(const uint8_t* bgra_row);

  // Hands over the reduced bitmap. Rows never pushed count as mid grey, so a
  // truncated source still gives a whole picture. The reducer is spent.
  Status Finish(Bitmap* out);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// The largest size that fits a longer side of at most `cx`, keeping the
// aspect ratio and never enlarging: the contract of every thumbnail provider.
void FitWithin(int width, int height, uint32_t cx, int* out_width, int* out_height);

// The size a thumbnail whose shorter side is `edge` has when made from a
// width x height picture: the shorter side becomes `edge` and the longer one
// follows the aspect ratio, truncated (division first, in double). A
// picture whose shorter side is already at most `edge` keeps its size.
// Applied to its own result it changes nothing.
void ShorterSideTo(int width, int height, uint32_t edge, int* out_width, int* out_height);

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_AREA_RESAMPLE_H_
