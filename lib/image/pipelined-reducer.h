// Area reducers fed through a short queue of row buffers. One decode's rows
// can be reduced to several sizes at once; for a large source the reduction
// runs on a second thread, so that the decoder that produces the rows and the
// reducers share two cores. A small source is reduced on the calling thread,
// where a thread would cost more than it saves. Either way every result is
// exactly its AreaReducer's.
//
//   std::vector<AreaReducer> reducers = ...;  // all for one source size
//   PipelinedReducer pipeline;
//   Status s = pipeline.Start(std::move(reducers));
//   for each source row: write src_w BGRA pixels to pipeline.NextRow(),
//                        then pipeline.CommitRow();
//   s = pipeline.Finish(&bitmaps);  // one per reducer, in order
//
// Abandoning a pipeline (destroying it without Finish) stops its thread.
// Not thread-safe: one producer per pipeline.
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

  // Takes over `reducers` (at least one, all made for the same source size)
  // and prepares the row queue. `threaded` may turn the second thread off.
  Status Start(std::vector<AreaReducer> reducers, bool threaded = true);

  // The buffer for the next source row: source width x 4 bytes, valid until
  // CommitRow().
  uint8_t* NextRow() { return next_row_; }
  // Hands the row written to NextRow() to the reduction.
  void CommitRow();
  // The same for a row the caller holds: copied when the rows travel to the
  // other thread, reduced in place otherwise.
  void PushRow(const uint8_t* row);
  int rows_committed() const { return rows_committed_; }

  // Waits for the reduction and hands over the results, one per reducer in
  // the order given (rows never committed are mid grey, as with
  // AreaReducer). Fails, with *out untouched, when any reducer fails.
  Status Finish(std::vector<Bitmap>* out);

 private:
  static constexpr int kRowsPerChunk = 8;
  static constexpr int kChunks = 4;

  void Reduce(const uint8_t* row);
  void Run();
  void Publish();
  void Stop();

  std::vector<AreaReducer> reducers_;
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
