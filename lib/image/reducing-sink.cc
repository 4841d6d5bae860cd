#include "lib/image/reducing-sink.h"

#include "lib/image/color-profile.h"
#include "lib/image/image-decoder.h"
#include "lib/image/limits.h"
#include "lib/image/transform.h"

namespace tessera {
namespace image {

Status ReducingSink::Init(uint64_t width, uint64_t height, uint32_t cx) {
  if (!WithinPixelLimits(width, height)) return ImageTooLargeError(width, height);
  if (cx == 0) return Status::InvalidArgument("thumbnail size 0");
  width_ = static_cast<int>(width);
  height_ = static_cast<int>(height);
  int dst_width = 0;
  int dst_height = 0;
  FitWithin(width_, height_, cx, &dst_width, &dst_height);
  return AreaReducer::Create(width_, height_, dst_width, dst_height, &reducer_);
}

void ReducingSink::PushStraightRow(uint8_t* bgra) {
  FlattenOverWhite(bgra, static_cast<size_t>(width_));
  reducer_.PushRow(bgra);
}

void ReducingSink::PushPremultipliedRow(uint8_t* bgra) {
  // Over white, a premultiplied colour just gains the uncovered share.
  for (int x = 0; x < width_; ++x) {
    uint8_t* p = bgra + x * 4;
    const int uncovered = 255 - p[3];
    for (int c = 0; c < 3; ++c) {
      const int v = p[c] + uncovered;
      p[c] = static_cast<uint8_t>(v > 255 ? 255 : v);
    }
    p[3] = 255;
  }
  reducer_.PushRow(bgra);
}

Status ReducingSink::Finish(int orientation, Bitmap* out) {
  Bitmap reduced;
  Status status = reducer_.Finish(&reduced);
  if (!status.ok()) return status;
  if (orientation != 1) {
    status = ApplyExifOrientation(orientation, &reduced);
    if (!status.ok()) return status;
  }
  *out = std::move(reduced);
  return Status::OK();
}

bool WithinDecodeBudget(uint64_t bytes) { return bytes <= kMaxDecodeBytes; }

}  // namespace image
}  // namespace tessera
