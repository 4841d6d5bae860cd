// A stop request for work that runs on threads nobody joins: a decode whose
// caller stopped waiting for it, or one that ran past the time a whole run
// may take. Long loops poll IsCancelled() and give up with a failure.
//
// Header-only on purpose: the codec modules carry their own copies of our
// libraries, and an object that is nothing but an atomic flag and a
// deadline means the same in every copy, whichever side created it.
#ifndef TESSERA_LIB_UTILITY_CANCELLATION_H_
#define TESSERA_LIB_UTILITY_CANCELLATION_H_

#include <atomic>
#include <chrono>

namespace tessera {
namespace utility {

class Cancellation {
 public:
  using Clock = std::chrono::steady_clock;

  // Cancelled by Cancel() or, by itself, once `deadline` has passed.
  explicit Cancellation(Clock::time_point deadline = Clock::time_point::max()) : deadline_(deadline) {}
  Cancellation(const Cancellation&) = delete;
  Cancellation& operator=(const Cancellation&) = delete;

  void Cancel() { cancelled_.store(true, std::memory_order_relaxed); }

  // Cheap enough for every row or read: one atomic load and one clock read
  // (a vDSO call on Linux).
  bool IsCancelled() const {
    return cancelled_.load(std::memory_order_relaxed) || Clock::now() >= deadline_;
  }

 private:
  std::atomic<bool> cancelled_{false};
  const Clock::time_point deadline_;
};

}  // namespace utility
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_CANCELLATION_H_
