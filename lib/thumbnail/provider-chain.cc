#include "lib/thumbnail/provider-chain.h"

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>
#include <utility>

#include "lib/log/log.h"
#include "lib/thumbnail/thumbnail-job.h"
#include "lib/utility/com-init.h"
#include "lib/utility/run-deadline.h"
#include "lib/utility/text-conversion.h"

namespace tessera {
namespace thumbnail {
namespace {

constexpr char kComponent[] = "thumbnail_debug";
constexpr const char* kStepNames[] = {"", "item", "handler", "thumbnail"};

using Clock = std::chrono::steady_clock;

// How often a wait for a bounded step looks at the job's cancellation.
constexpr std::chrono::milliseconds kCancellationPoll{50};

// Paths whose bounded provider timed out in this process: every later
// request for them gives up at once.
class SlowPaths {
 public:
  void Add(const std::u16string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    paths_.insert(path);
  }
  bool Contains(const std::u16string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    return paths_.count(path) != 0;
  }

 private:
  std::mutex mutex_;
  std::set<std::u16string> paths_;
};

SlowPaths& TheSlowPaths() {
  static SlowPaths* paths = new SlowPaths;  // never destroyed: abandoned threads may outlive main
  return *paths;
}

}  // namespace

ProviderChain::ProviderChain(std::vector<ThumbnailProviderFactory> links) : links_(std::move(links)) {}

int32_t ProviderChain::CreateItem(const std::u16string& path) {
  path_ = path;
  current_ = 0;
  provider_.reset();
  if (links_.empty()) return kProviderNotReady;
  provider_ = links_[0]();
  const int32_t code = provider_ ? provider_->CreateItem(path) : kProviderNotReady;
  return code < 0 ? FallBack(1, code, 0, nullptr) : code;
}

int32_t ProviderChain::BindToHandler() {
  if (!provider_) return kProviderNotReady;
  const int32_t code = provider_->BindToHandler();
  return code < 0 ? FallBack(2, code, 0, nullptr) : code;
}

int32_t ProviderChain::GetThumbnail(uint32_t cx, image::Bitmap* out) {
  if (!provider_) return kProviderNotReady;
  const int32_t code = provider_->GetThumbnail(cx, out);
  return code < 0 ? FallBack(3, code, cx, out) : code;
}

int32_t ProviderChain::FallBack(int failed, int32_t code, uint32_t cx, image::Bitmap* out) {
  while (current_ + 1 < links_.size()) {
    LOG_INFO(kComponent, "thumbnail provider %zu of %zu failed at the %s step (%d) for '%s'; trying the next",
             current_ + 1, links_.size(), kStepNames[failed], static_cast<int>(code),
             utility::UTF16ToUTF8(path_).c_str());
    // The failed link goes first: what it holds (a Shell handler, an open
    // file) is let go before the next one starts on the same file.
    provider_.reset();
    provider_ = links_[++current_]();
    if (!provider_) {
      code = kProviderNotReady;
      continue;
    }
    code = provider_->CreateItem(path_);
    if (code >= 0 && failed >= 2) code = provider_->BindToHandler();
    if (code >= 0 && failed >= 3) code = provider_->GetThumbnail(cx, out);
    if (code >= 0) return code;
  }
  return code;
}

// The state a BoundedProvider shares with its thread, which may outlive it.
struct BoundedProvider::Worker {
  std::mutex mutex;
  std::condition_variable changed;
  // The step asked for (0: none), with its arguments.
  int step = 0;
  std::u16string path;
  uint32_t cx = 0;
  // The answer to it.
  bool answered = false;
  int32_t code = 0;
  image::Bitmap bitmap;
  bool stop = false;
  // A step that was given up on: the thread is still in it.
  bool stuck = false;
  std::thread thread;

  static void Main(std::shared_ptr<Worker> worker, ThumbnailProviderFactory inner);
};

void BoundedProvider::Worker::Main(std::shared_ptr<Worker> worker, ThumbnailProviderFactory inner) {
  // The Shell's objects live in this thread's apartment: made, used and
  // released here only.
  const int32_t com = utility::ComInitialize(utility::kCoinitApartmentThreaded | utility::kCoinitDisableOle1Dde);
  std::unique_ptr<ThumbnailProvider> provider;
  if (com >= 0) provider = inner();
  std::unique_lock<std::mutex> lock(worker->mutex);
  for (;;) {
    worker->changed.wait(lock, [&worker] { return worker->stop || worker->step != 0; });
    if (worker->stop) break;
    const int step = worker->step;
    worker->step = 0;
    const std::u16string path = worker->path;
    const uint32_t cx = worker->cx;
    lock.unlock();
    image::Bitmap bitmap;
    int32_t code = com < 0 ? com : kProviderNotReady;
    if (provider) {
      if (step == 1) code = provider->CreateItem(path);
      if (step == 2) code = provider->BindToHandler();
      if (step == 3) code = provider->GetThumbnail(cx, &bitmap);
    }
    lock.lock();
    worker->code = code;
    worker->bitmap = std::move(bitmap);
    worker->answered = true;
    worker->changed.notify_all();
  }
  lock.unlock();
  provider.reset();
  if (com >= 0) utility::ComUninitialize();
}

BoundedProvider::BoundedProvider(ThumbnailProviderFactory inner, Clock::duration bound)
    : inner_(std::move(inner)), bound_(bound) {}

BoundedProvider::~BoundedProvider() {
  if (!worker_) return;
  bool stuck = false;
  {
    std::lock_guard<std::mutex> lock(worker_->mutex);
    worker_->stop = true;
    stuck = worker_->stuck;
    worker_->changed.notify_all();
  }
  if (stuck) {
    worker_->thread.detach();
  } else {
    worker_->thread.join();
  }
}

int32_t BoundedProvider::CreateItem(const std::u16string& path) {
  path_ = path;
  if (TheSlowPaths().Contains(path)) return kProviderTimedOut;
  const Clock::time_point now = Clock::now();
  const Clock::time_point run_deadline = utility::RunDeadline();
  deadline_ = bound_ >= run_deadline - now ? run_deadline : now + bound_;
  if (!worker_) {
    worker_ = std::make_shared<Worker>();
    worker_->thread = std::thread(&Worker::Main, worker_, inner_);
  }
  return Run(1, 0, nullptr);
}

int32_t BoundedProvider::BindToHandler() { return worker_ ? Run(2, 0, nullptr) : kProviderNotReady; }

int32_t BoundedProvider::GetThumbnail(uint32_t cx, image::Bitmap* out) {
  return worker_ ? Run(3, cx, out) : kProviderNotReady;
}

int32_t BoundedProvider::Run(int step, uint32_t cx, image::Bitmap* out) {
  const std::shared_ptr<const utility::Cancellation> cancellation = CurrentJobCancellation();
  std::unique_lock<std::mutex> lock(worker_->mutex);
  if (worker_->stuck) return kProviderTimedOut;
  worker_->step = step;
  worker_->path = path_;
  worker_->cx = cx;
  worker_->answered = false;
  worker_->changed.notify_all();
  for (;;) {
    const Clock::time_point wake = std::min(deadline_, Clock::now() + kCancellationPoll);
    if (worker_->changed.wait_until(lock, wake, [this] { return worker_->answered; })) break;
    if (Clock::now() >= deadline_ || (cancellation && cancellation->IsCancelled())) {
      worker_->stuck = true;
      lock.unlock();
      LOG_WARNING(kComponent, "thumbnail provider did not answer the %s step for '%s' in time; not waiting for it",
                  kStepNames[step], utility::UTF16ToUTF8(path_).c_str());
      TheSlowPaths().Add(path_);
      RecordAbandonedWork();
      return kProviderTimedOut;
    }
  }
  if (out != nullptr && worker_->code >= 0) *out = std::move(worker_->bitmap);
  return worker_->code;
}

}  // namespace thumbnail
}  // namespace tessera
