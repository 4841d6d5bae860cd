#include "lib/image/pipelined-reducer.h"

#include <cstring>
#include <new>
#include <system_error>
#include <utility>

namespace tessera {
namespace image {

PipelinedReducer::~PipelinedReducer() { Stop(); }

Status PipelinedReducer::Start(std::vector<AreaReducer> reducers, bool threaded) {
  Stop();
  if (reducers.empty() || reducers[0].source_width() <= 0) return Status::InvalidArgument("nothing to reduce");
  const int src_width = reducers[0].source_width();
  const int src_height = reducers[0].source_height();
  for (const AreaReducer& reducer : reducers) {
    if (reducer.source_width() != src_width || reducer.source_height() != src_height) {
      return Status::InvalidArgument("reducers of different sources");
    }
  }
  reducers_ = std::move(reducers);
  row_bytes_ = static_cast<size_t>(src_width) * Bitmap::kBytesPerPixel;
  rows_committed_ = 0;
  closing_ = false;
  threaded = threaded && static_cast<uint64_t>(src_width) * static_cast<uint64_t>(src_height) >= kThreadedPixels;
  try {
    if (threaded) {
      chunks_.resize(kChunks);
      for (Chunk& chunk : chunks_) chunk.rows.resize(row_bytes_ * kRowsPerChunk);
      for (size_t i = 1; i < chunks_.size(); ++i) free_.push_back(&chunks_[i]);
      filling_ = &chunks_[0];
      worker_ = std::thread(&PipelinedReducer::Run, this);
      next_row_ = filling_->rows.data();
      return Status::OK();
    }
  } catch (const std::bad_alloc&) {
    return Status::Internal("out of memory for resampler rows");
  } catch (const std::system_error&) {
    // No thread to be had: reduce inline.
  }
  chunks_.clear();
  free_.clear();
  filling_ = nullptr;
  try {
    inline_row_.resize(row_bytes_);
  } catch (const std::bad_alloc&) {
    return Status::Internal("out of memory for resampler rows");
  }
  next_row_ = inline_row_.data();
  return Status::OK();
}

void PipelinedReducer::Reduce(const uint8_t* row) {
  for (AreaReducer& reducer : reducers_) reducer.PushRow(row);
}

void PipelinedReducer::PushRow(const uint8_t* row) {
  if (filling_ == nullptr) {
    ++rows_committed_;
    Reduce(row);
    return;
  }
  std::memcpy(next_row_, row, row_bytes_);
  CommitRow();
}

void PipelinedReducer::CommitRow() {
  ++rows_committed_;
  if (filling_ == nullptr) {
    Reduce(inline_row_.data());
    return;
  }
  if (++filling_->count < kRowsPerChunk) {
    next_row_ = filling_->rows.data() + row_bytes_ * static_cast<size_t>(filling_->count);
    return;
  }
  Publish();
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return !free_.empty(); });
  filling_ = free_.front();
  free_.pop_front();
  filling_->count = 0;
  next_row_ = filling_->rows.data();
}

void PipelinedReducer::Publish() {
  std::lock_guard<std::mutex> lock(mutex_);
  full_.push_back(filling_);
  changed_.notify_all();
}

void PipelinedReducer::Run() {
  for (;;) {
    Chunk* chunk = nullptr;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      changed_.wait(lock, [this] { return !full_.empty() || closing_; });
      if (full_.empty()) return;
      chunk = full_.front();
      full_.pop_front();
    }
    for (int i = 0; i < chunk->count; ++i) Reduce(chunk->rows.data() + row_bytes_ * static_cast<size_t>(i));
    std::lock_guard<std::mutex> lock(mutex_);
    free_.push_back(chunk);
    changed_.notify_all();
  }
}

void PipelinedReducer::Stop() {
  if (worker_.joinable()) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      closing_ = true;
      changed_.notify_all();
    }
    worker_.join();
  }
  full_.clear();
  free_.clear();
  filling_ = nullptr;
}

Status PipelinedReducer::Finish(std::vector<Bitmap>* out) {
  if (filling_ != nullptr && filling_->count > 0) Publish();
  // The worker drains what is queued before it sees the close.
  Stop();
  std::vector<Bitmap> results(reducers_.size());
  for (size_t i = 0; i < reducers_.size(); ++i) {
    Status status = reducers_[i].Finish(&results[i]);
    if (!status.ok()) return status;
  }
  *out = std::move(results);
  return Status::OK();
}

}  // namespace image
}  // namespace tessera
