// The thumbnail job: one extraction on a detached thread of its own, waited
// for at most kThumbnailTimeout. A job that does not finish in time is
// abandoned: the caller goes on, the thread runs to its end (or dies with the
// process) and keeps its own references to the output files.
#ifndef TESSERA_LIB_THUMBNAIL_THUMBNAIL_JOB_H_
#define TESSERA_LIB_THUMBNAIL_THUMBNAIL_JOB_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "lib/utility/cancellation.h"
#include "lib/utility/temp-file.h"

namespace tessera {
namespace thumbnail {

class ThumbnailHelper;

// How long a caller waits for one job, on the steady clock.
constexpr std::chrono::seconds kThumbnailTimeout{60};

// What the tool gives one run (utility::SetRunBudget), all sizes and attempts
// together: one attempt's time limit and a little more for the attempts that
// follow it. No job waits past the run's deadline, and the work of every job
// is cancelled when it comes, so that a run of several sizes, each with its
// own time limit, still ends within one bound.
constexpr std::chrono::seconds kRunBudget{62};

// Runs ExtractShellThumbnails(UTF-16 path, sizes, as_png, outputs) on a new,
// detached thread and waits for it at most kThumbnailTimeout, and never past
// the run's deadline (utility::SetRunBudget, lib/utility/run-deadline.h). When the wait ends the job's
// cancellation (CurrentJobCancellation on its thread) is cancelled, so the
// abandoned work stops at its next check instead of running on. The helper and
// the extension are accepted and not used. Returns 0 when the extraction
// returned true; 1 when it did not finish in time (WARNING "GenerateThumbnail
// timeout '<path>'"); -1 when it returned false (WARNING "GenerateThumbnail
// Failed '<path>'") or threw a std::exception (WARNING "GenerateThumbnail
// exception, reason '<what>', path '<path>'"). Other exceptions propagate,
// as does std::system_error when no thread can be started.
//
// The outputs are shared with the job's thread; after a time-out that thread
// keeps its copies until it ends. Callable from any thread.
int32_t GenerateThumbnail(const ThumbnailHelper& helper, const std::string& path, const std::string& extension,
                          std::vector<uint32_t> sizes, bool as_png,
                          std::vector<std::shared_ptr<utility::TempFile>> outputs);

// The same with another time limit (for tests).
int32_t GenerateThumbnail(const ThumbnailHelper& helper, const std::string& path, const std::string& extension,
                          std::vector<uint32_t> sizes, bool as_png,
                          std::vector<std::shared_ptr<utility::TempFile>> outputs,
                          std::chrono::steady_clock::duration timeout);

// GenerateThumbnail for one size and one output file.
int32_t GenerateOne(const ThumbnailHelper& helper, const std::string& path, const std::string& extension,
                    uint32_t size, bool as_png, std::shared_ptr<utility::TempFile> output);

// The cancellation of the job running on the calling thread: cancelled
// when the job's caller stops waiting for it (time-out or run deadline).
// nullptr outside a job. Work the job hands to other threads takes it along.
std::shared_ptr<const utility::Cancellation> CurrentJobCancellation();

// Whether any job of this process has been abandoned at its time limit. Its
// thread may still be running, so the process must not end by returning
// from main (static destructors would run under it): see
// ExitWithAbandonedJobs. Thread-safe.
bool HasAbandonedJobs();

// Records that a thread this process started is still in a call nobody
// waits for any more (a platform thumbnail handler, a platform media reader
// that did not return in time): the process must then end as it does after
// an abandoned job (HasAbandonedJobs is true from now on), removing `files`,
// which that thread may still write. Thread-safe.
void RecordAbandonedWork(const std::vector<std::string>& files = {});

// Runs `work` on a new, detached thread and waits for it no longer than the
// run's deadline. True when it ended in time; an exception it threw is then
// rethrown here. False when the deadline came first: the thread is left to
// end on its own and recorded as abandoned work with `files`. For platform
// calls that have no time limit of their own. Callable from any thread.
bool RunBeforeRunDeadline(std::function<void()> work, const std::vector<std::string>& files);

// Ends the process with `status` while abandoned jobs may still run: flushes
// standard output and standard error, waits for an output file being
// written to be finished, removes the output files of every abandoned job
// (all under OutputWriteMutex, so that none is being written or can be
// written afterwards), and leaves with utility::EndProcessNow, running no
// destructors. If a write does not finish within a few seconds the files
// are left behind rather than raced. Call from the main thread only.
//
// Those files are still unreported files (lib/file/unreported-files.h): a
// termination signal arriving meanwhile removes the same ones, and neither
// path touches a file that the report named (an abandoned job writes
// nothing once abandoned, so nothing rewrites such a file either).
[[noreturn]] void ExitWithAbandonedJobs(int status);

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_THUMBNAIL_JOB_H_
