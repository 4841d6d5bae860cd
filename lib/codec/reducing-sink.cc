#include "lib/codec/reducing-sink.h"

#include <algorithm>
#include <atomic>

#include "lib/codec/image-decoder.h"
#include "lib/codec/reduction-cache.h"
#include "lib/color/color-profile.h"
#include "lib/image/limits.h"
#include "lib/image/transform.h"

namespace tessera {
namespace codec {
namespace {

// SetDecodeBudget's limits.
std::atomic<uint64_t> max_decode_pixels{image::kMaxPixels};
std::atomic<uint64_t> max_decode_bytes{image::kMaxDecodeBytes};

Status Upright(const color::ColorTransform* transform, int orientation, image::Bitmap* bitmap) {
  if (transform != nullptr && !transform->is_identity()) {
    transform->Apply(bitmap->data(), bitmap->data(), static_cast<size_t>(bitmap->width()) * bitmap->height());
  }
  if (orientation == 1) return Status::OK();
  return image::ApplyExifOrientation(orientation, bitmap);
}

}  // namespace

void SetDecodeBudget(uint64_t max_pixels, uint64_t max_bytes) {
  max_decode_pixels = std::min(max_pixels, image::kMaxPixels);
  max_decode_bytes = std::min(max_bytes, image::kMaxDecodeBytes);
}

Status ReducingSink::Init(uint64_t width, uint64_t height, uint32_t cx) {
  // Sides within the limits first, so that the product cannot overflow.
  if (!image::WithinPixelLimits(width, height) || width * height > max_decode_pixels) {
    return ImageTooLargeError(width, height);
  }
  if (cx == 0) return Status::InvalidArgument("thumbnail size 0");
  width_ = static_cast<int>(width);
  height_ = static_cast<int>(height);
  cx_ = cx;
  int dst_width = 0;
  int dst_height = 0;
  output_bytes_ = ResultSize(cx, 0, &dst_width, &dst_height);
  reducers_.clear();
  extra_cx_.clear();
  started_ = false;
  reducers_.emplace_back();
  return image::AreaReducer::Create(width_, height_, dst_width, dst_height, &reducers_.back());
}

void RequestedSize(int width, int height, uint32_t cx, uint32_t edge_divisor, int* out_width, int* out_height) {
  image::FitWithin(width, height, cx, out_width, out_height);
  if (edge_divisor != 0) image::ShorterSideTo(*out_width, *out_height, cx / edge_divisor, out_width, out_height);
}

void ReducingSink::FanOut(const FanOutRequest& request, uint64_t planned_bytes) {
  if (started_ || reducers_.size() != 1 || reducers_[0].source_width() == 0) return;
  if (request.edge_divisor != 0) {
    int dst_width = 0;
    int dst_height = 0;
    const uint64_t bytes = ResultSize(cx_, request.edge_divisor, &dst_width, &dst_height);
    image::AreaReducer reducer;
    if (!image::AreaReducer::Create(width_, height_, dst_width, dst_height, &reducer).ok()) return;
    reducers_[0] = std::move(reducer);
    output_bytes_ = bytes;
  }
  if (request.key.empty()) return;
  ReductionCache* cache = request.cache != nullptr ? request.cache : &TheReductionCache();
  std::vector<uint32_t> sizes = request.cx_values;
  std::sort(sizes.begin(), sizes.end());
  sizes.erase(std::unique(sizes.begin(), sizes.end()), sizes.end());
  uint64_t outputs = output_bytes_;
  for (uint32_t cx : sizes) {
    if (cx == 0 || cx == cx_ || cache->Contains(request.key, cx)) continue;
    int dst_width = 0;
    int dst_height = 0;
    const uint64_t bytes = ResultSize(cx, request.edge_divisor, &dst_width, &dst_height);
    // Sizes only grow from here.
    if (outputs + bytes > kMaxFanOutBytes || !WithinDecodeBudget(planned_bytes + outputs + bytes)) break;
    image::AreaReducer reducer;
    if (!image::AreaReducer::Create(width_, height_, dst_width, dst_height, &reducer).ok()) break;
    outputs += bytes;
    reducers_.push_back(std::move(reducer));
    extra_cx_.push_back(cx);
  }
  key_ = request.key;
  cache_ = cache;
}

uint64_t ReducingSink::ResultSize(uint32_t cx, uint32_t edge_divisor, int* width, int* height) const {
  RequestedSize(width_, height_, cx, edge_divisor, width, height);
  return uint64_t{static_cast<uint32_t>(*width)} * static_cast<uint32_t>(*height) * 4;
}

bool ReducingSink::Started() {
  if (!started_) {
    started_ = true;
    start_status_ = pipeline_.Start(std::move(reducers_));
    reducers_.clear();
  }
  return start_status_.ok();
}

uint8_t* ReducingSink::NextRow() { return Started() ? pipeline_.NextRow() : nullptr; }

void ReducingSink::CommitRow() {
  if (Started()) pipeline_.CommitRow();
}

void ReducingSink::PushOpaqueRow(const uint8_t* row) {
  if (Started()) pipeline_.PushRow(row);
}

void ReducingSink::PushStraightRow(uint8_t* bgra) {
  color::FlattenOverWhite(bgra, static_cast<size_t>(width_));
  PushOpaqueRow(bgra);
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
  PushOpaqueRow(bgra);
}

Status ReducingSink::Finish(int orientation, image::Bitmap* out) {
  if (!Started()) return start_status_;
  std::vector<image::Bitmap> results;
  Status status = pipeline_.Finish(&results);
  if (!status.ok()) return status;
  status = Upright(transform_.get(), orientation, &results[0]);
  if (!status.ok()) return status;
  // A fanned-out result that cannot be finished is simply not kept: its own
  // request then decodes the file.
  for (size_t i = 1; i < results.size(); ++i) {
    if (Upright(transform_.get(), orientation, &results[i]).ok()) {
      cache_->Keep(key_, extra_cx_[i - 1], std::move(results[i]));
    }
  }
  extra_cx_.clear();
  *out = std::move(results[0]);
  return Status::OK();
}

bool ReducingDecoder::TakeKept(uint32_t cx, image::Bitmap* out) const {
  return TheReductionCache().Take(key_, cx, out);
}

FanOutRequest ReducingDecoder::AnticipatedRequests() const {
  return FanOutRequest{key_, anticipated_, edge_divisor_, &TheReductionCache()};
}

bool WithinDecodeBudget(uint64_t bytes) { return bytes <= max_decode_bytes; }

}  // namespace codec
}  // namespace tessera
