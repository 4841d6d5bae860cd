// The deadline of the whole run, shared by everything that waits or reads
// on its behalf: the thumbnail jobs, which stop waiting at it, and the media
// sources, whose opens, seeks and reads fail as timed out past it.
//
// Process-wide; every function is thread-safe (one atomic, lock-free).
#ifndef TESSERA_LIB_UTILITY_RUN_DEADLINE_H_
#define TESSERA_LIB_UTILITY_RUN_DEADLINE_H_

#include <chrono>

namespace tessera {
namespace utility {

// Gives the whole run `budget` from now. Without a call there is no run
// deadline. Call before the first job.
void SetRunBudget(std::chrono::steady_clock::duration budget);

// The run's deadline (time_point::max() without a budget).
std::chrono::steady_clock::time_point RunDeadline();

}  // namespace utility
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_RUN_DEADLINE_H_
