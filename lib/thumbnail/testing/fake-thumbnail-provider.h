// A thumbnail provider for tests: returns a white bitmap of a chosen size,
// fails at a chosen step, or runs a hook inside GetThumbnail (to block on a
// Gate the test opens, or to throw). Every provider made by one
// FakeProviderFactory reports its calls to the same shared record.
#ifndef TESSERA_LIB_THUMBNAIL_TESTING_FAKE_THUMBNAIL_PROVIDER_H_
#define TESSERA_LIB_THUMBNAIL_TESTING_FAKE_THUMBNAIL_PROVIDER_H_

#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "lib/image/bitmap.h"
#include "lib/thumbnail/thumbnail-extraction.h"
#include "lib/thumbnail/thumbnail-provider.h"

namespace tessera {
namespace thumbnail {
namespace testing {

// A one-shot gate: Wait() blocks until Open().
class Gate {
 public:
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    opened_.notify_all();
  }
  void Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    opened_.wait(lock, [this] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  bool open_ = false;
};

struct FakeProviderConfig {
  int32_t item_result = 0;
  int32_t bind_result = 0;
  int32_t thumbnail_result = 0;
  // The bitmap handed out as it is, whatever cx was asked for.
  int width = 64;
  int height = 48;
  // When set, decides CreateItem's result by the path instead of item_result.
  std::function<int32_t(const std::u16string&)> item_result_for;
  // Runs inside GetThumbnail before the bitmap is made.
  std::function<void()> on_get_thumbnail;
};

// What the providers of one factory were asked.
struct FakeProviderRecord {
  std::mutex mutex;
  std::vector<std::u16string> items;
  int binds = 0;
  std::vector<uint32_t> requested_cx;
  int destroyed = 0;
  std::condition_variable destroyed_changed;

  // Blocks until `n` providers have been destroyed.
  void WaitDestroyed(int n) {
    std::unique_lock<std::mutex> lock(mutex);
    destroyed_changed.wait(lock, [this, n] { return destroyed >= n; });
  }
};

class FakeThumbnailProvider : public ThumbnailProvider {
 public:
  FakeThumbnailProvider(FakeProviderConfig config, std::shared_ptr<FakeProviderRecord> record)
      : config_(std::move(config)), record_(std::move(record)) {}
  ~FakeThumbnailProvider() override {
    std::lock_guard<std::mutex> lock(record_->mutex);
    ++record_->destroyed;
    record_->destroyed_changed.notify_all();
  }

  int32_t CreateItem(const std::u16string& path) override {
    std::lock_guard<std::mutex> lock(record_->mutex);
    record_->items.push_back(path);
    return config_.item_result_for ? config_.item_result_for(path) : config_.item_result;
  }
  int32_t BindToHandler() override {
    std::lock_guard<std::mutex> lock(record_->mutex);
    ++record_->binds;
    return config_.bind_result;
  }
  int32_t GetThumbnail(uint32_t cx, image::Bitmap* out) override {
    {
      std::lock_guard<std::mutex> lock(record_->mutex);
      record_->requested_cx.push_back(cx);
    }
    if (config_.on_get_thumbnail) config_.on_get_thumbnail();
    if (config_.thumbnail_result < 0) return config_.thumbnail_result;
    image::Bitmap bitmap;
    if (!image::Bitmap::Create(config_.width, config_.height, &bitmap).ok()) return kProviderTooLarge;
    std::memset(bitmap.data(), 0xFF, bitmap.byte_size());  // opaque white
    *out = std::move(bitmap);
    return 0;
  }

 private:
  FakeProviderConfig config_;
  std::shared_ptr<FakeProviderRecord> record_;
};

inline ThumbnailProviderFactory FakeProviderFactory(FakeProviderConfig config,
                                                    std::shared_ptr<FakeProviderRecord> record) {
  return [config, record]() -> std::unique_ptr<ThumbnailProvider> {
    return std::make_unique<FakeThumbnailProvider>(config, record);
  };
}

// Makes ExtractShellThumbnails use `factory` for the lifetime of the object.
class ScopedProviderFactory {
 public:
  explicit ScopedProviderFactory(ThumbnailProviderFactory factory)
      : previous_(SetThumbnailProviderFactory(std::move(factory))) {}
  ~ScopedProviderFactory() { SetThumbnailProviderFactory(std::move(previous_)); }
  ScopedProviderFactory(const ScopedProviderFactory&) = delete;
  ScopedProviderFactory& operator=(const ScopedProviderFactory&) = delete;

 private:
  ThumbnailProviderFactory previous_;
};

}  // namespace testing
}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_TESTING_FAKE_THUMBNAIL_PROVIDER_H_
