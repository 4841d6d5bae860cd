// The portable part of the unreported-files registry: the table and the walk
// that the termination handlers run.
#include "lib/file/unreported-files.h"

#include <atomic>
#include <cstdint>

#include "lib/file/unreported-files-platform.h"

namespace tessera {
namespace file {
namespace {

// A slot's state word: its phase in the two low bits, above them a count of
// the times the slot was taken. A reader that finds the same word before and
// after copying the path has copied one path whole, even if the slot was
// freed and taken again meanwhile.
constexpr uint32_t kFree = 0;
constexpr uint32_t kFilling = 1;  // taken; the path is being written
constexpr uint32_t kPublished = 2;
constexpr uint32_t kPhaseMask = 3;
constexpr uint32_t kTakenOnce = 4;

// How long termination waits for file creations under way, in pauses of
// about a millisecond. It waits in vain only when the handler interrupted
// the creating thread itself, which then creates nothing more.
constexpr int kCreationWaitPauses = 500;

struct Slot {
  std::atomic<uint32_t> state;
  std::atomic<char> path[kMaxUnreportedPathBytes + 1];
};

static_assert(std::atomic<uint32_t>::is_always_lock_free && std::atomic<char>::is_always_lock_free &&
                  std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "a signal handler may only use lock-free atomics");

// Zero (every slot free) before any code runs, and never destroyed: a
// handler may walk the table at any moment, during exit included.
Slot slots[kMaxUnreportedFiles];
std::atomic<int> creations_under_way{0};
std::atomic<bool> terminating{false};

uint32_t Phase(uint32_t state) { return state & kPhaseMask; }
uint32_t WithPhase(uint32_t state, uint32_t phase) { return (state & ~kPhaseMask) | phase; }

bool Fits(const std::string& path) { return !path.empty() && path.size() <= kMaxUnreportedPathBytes; }

// Whether the slot's path is `path`, separators compared as the platform
// reads them. The caller checks afterwards that the slot did not change.
bool Holds(const Slot& slot, const std::string& path) {
  for (size_t i = 0; i <= path.size(); ++i) {
    const char stored = slot.path[i].load(std::memory_order_relaxed);
    const char wanted = i < path.size() ? path[i] : '\0';
    if (stored == wanted) continue;
    if (stored == '\0' || wanted == '\0') return false;
    if (!platform::IsPathSeparator(stored) || !platform::IsPathSeparator(wanted)) return false;
  }
  return true;
}

}  // namespace

bool RegisterUnreportedFile(const std::string& path) {
  if (!Fits(path) || path.find('\0') != std::string::npos) return false;
  for (Slot& slot : slots) {
    uint32_t state = slot.state.load(std::memory_order_relaxed);
    if (Phase(state) != kFree) continue;
    const uint32_t filling = WithPhase(state + kTakenOnce, kFilling);
    if (!slot.state.compare_exchange_strong(state, filling, std::memory_order_acquire)) continue;
    // The phase change comes before the bytes for anyone who reads them.
    std::atomic_thread_fence(std::memory_order_release);
    for (size_t i = 0; i < path.size(); ++i) slot.path[i].store(path[i], std::memory_order_relaxed);
    slot.path[path.size()].store('\0', std::memory_order_relaxed);
    slot.state.store(WithPhase(filling, kPublished), std::memory_order_release);
    return true;
  }
  return false;
}

void ForgetUnreportedFile(const std::string& path) {
  if (!Fits(path)) return;
  for (Slot& slot : slots) {
    uint32_t state = slot.state.load(std::memory_order_acquire);
    if (Phase(state) != kPublished || !Holds(slot, path)) continue;
    // Fails when the slot changed while it was compared: look further.
    if (slot.state.compare_exchange_strong(state, WithPhase(state, kFree), std::memory_order_acq_rel)) return;
  }
}

bool IsUnreportedFile(const std::string& path) {
  if (!Fits(path)) return false;
  for (const Slot& slot : slots) {
    const uint32_t state = slot.state.load(std::memory_order_acquire);
    if (Phase(state) != kPublished) continue;
    const bool holds = Holds(slot, path);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (holds && slot.state.load(std::memory_order_relaxed) == state) return true;
  }
  return false;
}

void RemoveUnreportedFiles() {
  // No creation starts from here on; those under way are waited for, so
  // that the walk below finds every file that will ever exist.
  terminating.store(true);
  for (int pauses = 0; creations_under_way.load() > 0 && pauses < kCreationWaitPauses; ++pauses) {
    platform::PauseBriefly();
  }
  char path[kMaxUnreportedPathBytes + 1];
  for (const Slot& slot : slots) {
    const uint32_t state = slot.state.load(std::memory_order_acquire);
    // A slot being filled belongs to a file that can no longer be created.
    if (Phase(state) != kPublished) continue;
    size_t length = 0;
    while (length < kMaxUnreportedPathBytes &&
           (path[length] = slot.path[length].load(std::memory_order_relaxed)) != '\0') {
      ++length;
    }
    path[length] = '\0';
    std::atomic_thread_fence(std::memory_order_acquire);
    // Changed while copied: forgotten meanwhile, so its file was removed or
    // reported; a registration that took the slot since creates nothing.
    if (slot.state.load(std::memory_order_relaxed) != state) continue;
    platform::DeleteOnTermination(path);
  }
}

ScopedFileCreation::ScopedFileCreation() {
  // Counted before the check, so that a termination either sees this
  // creation and waits for it, or is seen here and prevents it.
  creations_under_way.fetch_add(1);
  allowed_ = !terminating.load();
  if (!allowed_) creations_under_way.fetch_sub(1);
}

ScopedFileCreation::~ScopedFileCreation() {
  if (allowed_) creations_under_way.fetch_sub(1);
}

}  // namespace file
}  // namespace tessera
