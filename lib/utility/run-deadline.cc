#include "lib/utility/run-deadline.h"

#include <atomic>

namespace tessera {
namespace utility {
namespace {

using Clock = std::chrono::steady_clock;

// RunDeadline() as ticks of the steady clock, for a lock-free read.
std::atomic<Clock::rep> run_deadline_ticks{Clock::time_point::max().time_since_epoch().count()};

}  // namespace

void SetRunBudget(Clock::duration budget) {
  run_deadline_ticks.store((Clock::now() + budget).time_since_epoch().count());
}

Clock::time_point RunDeadline() { return Clock::time_point(Clock::duration(run_deadline_ticks.load())); }

}  // namespace utility
}  // namespace tessera
