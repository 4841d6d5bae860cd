#include "lib/codec/reduction-cache.h"

namespace tessera {
namespace codec {

void ReductionCache::SwitchTo(const std::string& key) {
  if (key == key_) return;
  entries_.clear();
  key_ = key;
}

bool ReductionCache::Take(const std::string& key, uint32_t cx, image::Bitmap* out) {
  image::Bitmap taken;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    SwitchTo(key);
    if (key.empty()) return false;
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
      if (it->first != cx) continue;
      taken = std::move(it->second);
      entries_.erase(it);
      break;
    }
  }
  if (taken.empty()) return false;
  *out = std::move(taken);
  return true;
}

bool ReductionCache::Contains(const std::string& key, uint32_t cx) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (key.empty() || key != key_) return false;
  for (const auto& entry : entries_) {
    if (entry.first == cx) return true;
  }
  return false;
}

void ReductionCache::Keep(const std::string& key, uint32_t cx, image::Bitmap bitmap) {
  std::lock_guard<std::mutex> lock(mutex_);
  SwitchTo(key);
  if (key.empty()) return;
  for (auto& entry : entries_) {
    if (entry.first == cx) {
      entry.second = std::move(bitmap);
      return;
    }
  }
  entries_.emplace_back(cx, std::move(bitmap));
}

size_t ReductionCache::size() {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_.size();
}

ReductionCache& TheReductionCache() {
  static ReductionCache* cache = new ReductionCache();
  return *cache;
}

}  // namespace codec
}  // namespace tessera
