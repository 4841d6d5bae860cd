// An AreaReducer fed through a short queue of row buffers. For a large
// source the reduction runs on a second thread, so that the decoder that
// produces the rows and the reducer share two cores; a small source is
// reduced on the calling thread, where a thread would cost more than it
// saves. Either way the result is exactly the AreaReducer's.
//
//   PipelinedReducer reducer;
//   Status s = reducer.Start(src_w, src_h, dst_w, dst_h);
//   for each source row: write src_w BGRA pixels to reducer.NextRow(), then
//                        reducer.CommitRow();
//   s = reducer.Finish(&bitmap);
//
// Abandoning a reducer (destroying it without Finish) stops its thread.
// Not thread-safe: one producer per reducer.
#ifndef TESSERA_LIB_IMAGE_PIPELINED_REDUCER_H_
#define TESSERA_LIB_IMAGE_PIPELINED_REDUCER_H_

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "lib/image/area-resample.h"
#include "lib/image/bitmap.h"
#include "lib/utility/status.h"

namespace tessera {
namespace image {

class PipelinedReducer {
 public:
  // Sources of at least this many pixels are reduced on a second thread.
  static constexpr uint64_t kThreadedPixels = uint64_t{2} << 20;

  PipelinedReducer() = default;
  PipelinedReducer(const PipelinedReducer&) = delete;
  PipelinedReducer& operator=(const PipelinedReducer&) = delete;
  ~PipelinedReducer();

  // Prepares the reduction (see AreaReducer::Create for the sizes accepted).
  // `threaded` may turn the second thread off, for callers that know better.
  Status Start(int src_width, int src_height, int dst_width, int dst_height, bool threaded = true);

  // The buffer for the next source row: source width x 4 bytes, valid until
  // CommitRow().
  uint8_t* NextRow() { return next_row_; }
  // Hands the row written to NextRow() to the reduction.
  void CommitRow();
  int rows_committed() const { return rows_committed_; }

  // Waits for the reduction and hands over its result (rows never
  // committed are mid grey, as with AreaReducer).
  Status Finish(Bitmap* out);

 private:
  static constexpr int kRowsPerChunk = 8;
  static constexpr int kChunks = 4;

  void Run();
  void Publish();
  void Stop();

  AreaReducer reducer_;
  size_t row_bytes_ = 0;
  int rows_committed_ = 0;
  uint8_t* next_row_ = nullptr;

  // Inline mode: one row buffer, reduced on CommitRow().
  std::vector<uint8_t> inline_row_;

  // Threaded mode: chunks of rows travel from the producer to the worker in
  // `full_` and back in `free_`.
  struct Chunk {
    std::vector<uint8_t> rows;
    int count = 0;
  };
  std::vector<Chunk> chunks_;
  Chunk* filling_ = nullptr;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Chunk*> full_;
  std::deque<Chunk*> free_;
  bool closing_ = false;
  std::thread worker_;
};

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_PIPELINED_REDUCER_H_
