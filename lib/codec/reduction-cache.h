// Reductions made ahead of their request. The tool asks for one file at
// several sizes in a row; a decoder without shrink-on-load that reads the
// whole image for one size also reduces the same rows to the other sizes
// (ReducingSink::FanOut) and leaves those results here, so that the later
// requests take them instead of decoding the file again. Internal to
// lib/codec.
//
// Entries belong to one content key at a time (see
// ImageDecoder::SetContentKey): touching the cache under another key drops
// them. Each entry is handed out once. Thread-safe.
#ifndef TESSERA_LIB_CODEC_REDUCTION_CACHE_H_
#define TESSERA_LIB_CODEC_REDUCTION_CACHE_H_

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "lib/image/bitmap.h"

namespace tessera {
namespace codec {

class ReductionCache {
 public:
  // Moves the bitmap kept for (key, cx) into *out and forgets it; false
  // when there is none (*out untouched). Entries of another key (an empty
  // key counts as another) are dropped first.
  bool Take(const std::string& key, uint32_t cx, image::Bitmap* out);

  bool Contains(const std::string& key, uint32_t cx);

  // Keeps `bitmap` as the result for (key, cx), replacing an earlier one.
  // Entries of another key are dropped first; an empty key keeps nothing.
  void Keep(const std::string& key, uint32_t cx, image::Bitmap bitmap);

  // The number of entries kept.
  size_t size();

 private:
  // Drops the entries unless they belong to `key`. Called under the mutex.
  void SwitchTo(const std::string& key);

  std::mutex mutex_;
  std::string key_;
  std::vector<std::pair<uint32_t, image::Bitmap>> entries_;
};

// The process-wide cache. Never destroyed: a timed-out job's thread may
// still decode while the process exits.
ReductionCache& TheReductionCache();

}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_REDUCTION_CACHE_H_
