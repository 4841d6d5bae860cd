// lib/thumbnail: the thumbnail generator — sizes (thumbnail-size.h),
// classification by extension, this per-size generator with its video
// fallback, the time-limited job (thumbnail-job.h), the extraction cascade
// (thumbnail-extraction.h) and the thumbnail providers behind it
// (thumbnail-provider.h: the Shell's on Windows, our own decoders'). It sits
// on lib/video and lib/codec.
//
// The per-size thumbnail generator: checks the source's type, creates the
// output file, runs the time-limited job and, for a video whose own
// thumbnail failed, retries through a frame exported from it.
#ifndef TESSERA_LIB_THUMBNAIL_THUMBNAIL_HELPER_H_
#define TESSERA_LIB_THUMBNAIL_THUMBNAIL_HELPER_H_

#include <cstdint>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "lib/thumbnail/thumbnail-size.h"

namespace tessera {
namespace thumbnail {

// What GenerateAllSizes made: (size name, path) pairs when ok, else the
// reason there are none.
struct AllSizesResult {
  bool ok = false;
  std::vector<std::pair<std::string, std::string>> paths;
  ThumbnailError error = kFailed;
};

// The path with its separators turned into the platform's own: '/' becomes
// '\' on Windows; on POSIX, where '/' is the only separator, the path is
// returned unchanged. Thread-safe.
std::string NormalizeSeparators(const std::string& path);

// Writes the frame at one second of the video at `src` as a JPEG at
// `frame_path` (both UTF-8), initialising COM on the calling thread for the
// call. Returns 0, or the failing code after ERROR "Failed to CoInitializeEx:
// %d". The frame reader's exceptions (std::runtime_error) pass to the caller
// after everything was released. Not for concurrent use with the same paths.
int32_t ExportVideoFrame(const std::string& src, const std::string& frame_path);

// One source file's thumbnails. Fields are UTF-8 text; the instance lives on
// the main thread (the jobs it starts get copies of what they need).
class ThumbnailHelper {
 public:
  explicit ThumbnailHelper(std::string output_dir) : output_dir_(std::move(output_dir)) {}

  void SetOutputDir(std::string dir) { output_dir_ = std::move(dir); }
  void SetSrc(std::string src) { src_ = std::move(src); }
  // When not empty, used instead of the extension of the source path.
  void SetExtension(std::string extension) { extension_ = std::move(extension); }
  void SetSize(ThumbnailSize size) { size_ = size; }
  void SetOptions(std::unordered_set<uint32_t> options) { options_ = std::move(options); }

  const std::string& output_dir() const { return output_dir_; }
  const std::string& src() const { return src_; }

  // Makes the thumbnail of the current size as a JPEG file with a random
  // name in the output directory. Returns its path (separators normalised),
  // the file then being kept, or an error code, nothing of it being left in
  // the directory (except the file that a timed-out job still holds). Never
  // throws for a failed thumbnail; std::system_error when no thread can be
  // started. Normalises the stored source path.
  ThumbnailResult GenerateForSize();

  // All four sizes with one job, largest first: ("large", path), ("medium",
  // path), ("small-medium", path), ("small", path), every file kept; or the
  // error code of the job. Not used by the tool.
  AllSizesResult GenerateAllSizes();

 private:
  // The lowercased extension: the override, else the source's.
  std::string LowercaseExtension() const;
  // Refuses unsupported types and options before any file is made.
  bool Refuse(const std::string& extension, ThumbnailError* error) const;
  // The video fallback: exports a frame beside the outputs and runs
  // `run_job` on it; returns `first_result` when the export throws or has
  // not ended by the run's deadline (its thread is then left behind). The
  // frame file is always removed. A source whose export failed is not read
  // again for the next size: the platform's reader fails the same way each
  // time, and a reader that may hang on a broken file gets one chance.
  template <typename RunJob>
  int32_t RetryFromFrame(int32_t first_result, RunJob run_job);

  std::string output_dir_;
  std::string src_;
  std::string extension_;
  // The source whose frame could not be exported, if any.
  std::string export_failed_for_;
  ThumbnailSize size_ = 0;
  std::unordered_set<uint32_t> options_;
};

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_THUMBNAIL_HELPER_H_
