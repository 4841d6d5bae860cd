#include "lib/image/reducing-sink.h"

#include <algorithm>

#include "lib/image/color-profile.h"
#include "lib/image/image-decoder.h"
#include "lib/image/limits.h"
#include "lib/image/reduction-cache.h"
#include "lib/image/transform.h"

namespace tessera {
namespace image {
namespace {

Status FinishUpright(AreaReducer* reducer, const ColorTransform* transform, int orientation, Bitmap* out) {
  Bitmap reduced;
  Status status = reducer->Finish(&reduced);
  if (!status.ok()) return status;
  if (transform != nullptr && !transform->is_identity()) {
    transform->Apply(reduced.data(), reduced.data(), static_cast<size_t>(reduced.width()) * reduced.height());
  }
  if (orientation != 1) {
    status = ApplyExifOrientation(orientation, &reduced);
    if (!status.ok()) return status;
  }
  *out = std::move(reduced);
  return Status::OK();
}

}  // namespace

Status ReducingSink::Init(uint64_t width, uint64_t height, uint32_t cx) {
  if (!WithinPixelLimits(width, height)) return ImageTooLargeError(width, height);
  if (cx == 0) return Status::InvalidArgument("thumbnail size 0");
  width_ = static_cast<int>(width);
  height_ = static_cast<int>(height);
  cx_ = cx;
  int dst_width = 0;
  int dst_height = 0;
  FitWithin(width_, height_, cx, &dst_width, &dst_height);
  output_bytes_ = uint64_t{static_cast<uint32_t>(dst_width)} * static_cast<uint32_t>(dst_height) * 4;
  return AreaReducer::Create(width_, height_, dst_width, dst_height, &reducer_);
}

void ReducingSink::FanOut(const FanOutRequest& request, uint64_t planned_bytes) {
  if (request.key.empty() || reducer_.source_width() == 0 || !extras_.empty()) return;
  ReductionCache* cache = request.cache != nullptr ? request.cache : &TheReductionCache();
  std::vector<uint32_t> sizes = request.cx_values;
  std::sort(sizes.begin(), sizes.end());
  sizes.erase(std::unique(sizes.begin(), sizes.end()), sizes.end());
  uint64_t outputs = output_bytes_;
  for (uint32_t cx : sizes) {
    if (cx == 0 || cx == cx_ || cache->Contains(request.key, cx)) continue;
    int dst_width = 0;
    int dst_height = 0;
    FitWithin(width_, height_, cx, &dst_width, &dst_height);
    const uint64_t bytes = uint64_t{static_cast<uint32_t>(dst_width)} * static_cast<uint32_t>(dst_height) * 4;
    // Sizes only grow from here.
    if (outputs + bytes > kMaxFanOutBytes || !WithinDecodeBudget(planned_bytes + outputs + bytes)) break;
    Extra extra;
    extra.cx = cx;
    if (!AreaReducer::Create(width_, height_, dst_width, dst_height, &extra.reducer).ok()) break;
    outputs += bytes;
    extras_.push_back(std::move(extra));
  }
  key_ = request.key;
  cache_ = cache;
}

void ReducingSink::PushFlattenedRow(const uint8_t* bgra) {
  reducer_.PushRow(bgra);
  for (Extra& extra : extras_) extra.reducer.PushRow(bgra);
}

void ReducingSink::PushStraightRow(uint8_t* bgra) {
  FlattenOverWhite(bgra, static_cast<size_t>(width_));
  PushFlattenedRow(bgra);
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
  PushFlattenedRow(bgra);
}

Status ReducingSink::Finish(int orientation, Bitmap* out) {
  Bitmap reduced;
  Status status = FinishUpright(&reducer_, transform_.get(), orientation, &reduced);
  if (!status.ok()) return status;
  // A fanned-out result that cannot be finished is simply not kept: its own
  // request then decodes the file.
  for (Extra& extra : extras_) {
    Bitmap bitmap;
    if (FinishUpright(&extra.reducer, transform_.get(), orientation, &bitmap).ok()) {
      cache_->Keep(key_, extra.cx, std::move(bitmap));
    }
  }
  extras_.clear();
  *out = std::move(reduced);
  return Status::OK();
}

bool ReducingDecoder::TakeKept(uint32_t cx, Bitmap* out) const {
  return TheReductionCache().Take(key_, cx, out);
}

FanOutRequest ReducingDecoder::AnticipatedRequests() const {
  return FanOutRequest{key_, anticipated_, &TheReductionCache()};
}

bool WithinDecodeBudget(uint64_t bytes) { return bytes <= kMaxDecodeBytes; }

}  // namespace image
}  // namespace tessera
