// The thumbnail extraction: one bitmap from the platform's thumbnail provider,
// reduced size by size (each size from the one before) and saved into the
// given output files.
#ifndef TESSERA_LIB_THUMBNAIL_THUMBNAIL_EXTRACTION_H_
#define TESSERA_LIB_THUMBNAIL_THUMBNAIL_EXTRACTION_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "lib/thumbnail/thumbnail-provider.h"
#include "lib/utility/temp-file.h"

namespace tessera {
namespace thumbnail {

// Deferred clean-up actions, run last-registered first when the list is
// destroyed, so that every return path releases what was acquired before it
// in reverse order. Not copyable; not thread-safe.
class CleanupList {
 public:
  CleanupList() = default;
  CleanupList(const CleanupList&) = delete;
  CleanupList& operator=(const CleanupList&) = delete;
  ~CleanupList();

  void Add(std::function<void()> action) { actions_.push_back(std::move(action)); }

 private:
  std::vector<std::function<void()>> actions_;
};

// Asks the provider once for a bitmap of longer side 3 * sizes[0] and writes
// output i as that bitmap reduced so that its shorter side is sizes[i] (never
// enlarged; output i+1 is reduced from output i). as_png chooses PNG over
// JPEG. Each output is written through the file it holds open
// (TempFile::GetFile), its path only when it holds none, and fails to save
// if its path no longer names that file; the caller keeps ownership of the
// files. A job that its caller stopped waiting for (CurrentJobCancellation)
// saves nothing more.
//
// Returns true when every output was written; false after exactly one ERROR
// line under "thumbnail_debug" on the first failure, leaving the outputs
// written before it on disk. Throws std::out_of_range("invalid vector
// subscript") for an empty size list (once the handler is bound) and when
// output i has no size i.
//
// Thread-safe: calls on different threads share nothing but the process-wide
// provider factory and the output write lock below.
bool ExtractShellThumbnails(const std::u16string& path, std::vector<uint32_t> sizes, bool as_png,
                            std::vector<std::shared_ptr<utility::TempFile>> outputs);

// The same with the provider made by `factory` instead of the current one.
bool ExtractShellThumbnails(const ThumbnailProviderFactory& factory, const std::u16string& path,
                            std::vector<uint32_t> sizes, bool as_png,
                            std::vector<std::shared_ptr<utility::TempFile>> outputs);

// Replaces the process-wide factory that ExtractShellThumbnails takes its
// provider from and returns the previous one; an empty factory restores the
// platform's (CreatePlatformThumbnailProvider). Meant for tests. Thread-safe;
// an extraction already running keeps the provider it made.
ThumbnailProviderFactory SetThumbnailProviderFactory(ThumbnailProviderFactory factory);

// Held by the extraction while it writes an output file. Whoever holds it
// knows that no output file is being written, and none will be until it is
// released: the process uses this to remove the files of abandoned jobs
// right before it ends.
std::timed_mutex& OutputWriteMutex();

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_THUMBNAIL_EXTRACTION_H_
