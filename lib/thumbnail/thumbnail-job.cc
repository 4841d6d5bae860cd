#include "lib/thumbnail/thumbnail-job.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <future>
#include <iostream>
#include <mutex>
#include <thread>
#include <utility>

#include "lib/file/file-op.h"
#include "lib/log/log.h"
#include "lib/thumbnail/thumbnail-extraction.h"
#include "lib/utility/process-exit.h"
#include "lib/utility/run-deadline.h"
#include "lib/utility/text-conversion.h"

namespace tessera {
namespace thumbnail {
namespace {

constexpr char kComponent[] = "thumbnail_debug";

// How long the exit path waits for an output file that is being written.
constexpr std::chrono::seconds kExitWriteWait{5};

using ExtractionTask = std::packaged_task<bool(const std::u16string&, std::vector<uint32_t>, bool,
                                               std::vector<std::shared_ptr<utility::TempFile>>)>;

using Clock = std::chrono::steady_clock;

// Set on a job's thread for the length of its extraction.
thread_local std::shared_ptr<const utility::Cancellation> current_job_cancellation;

// Paths of the output files of abandoned jobs, for ExitWithAbandonedJobs.
struct AbandonedJobs {
  std::mutex mutex;
  bool any = false;
  std::vector<std::string> paths;
};

AbandonedJobs& Abandoned() {
  static AbandonedJobs* jobs = new AbandonedJobs;  // never destroyed: threads may outlive main
  return *jobs;
}

void RecordAbandoned(const std::vector<std::shared_ptr<utility::TempFile>>& outputs) {
  AbandonedJobs& jobs = Abandoned();
  std::lock_guard<std::mutex> lock(jobs.mutex);
  jobs.any = true;
  for (const auto& output : outputs) {
    if (output && !output->GetPath().empty()) jobs.paths.push_back(output->GetPath());
  }
}

// A later job that wrote the same outputs (the video fallback reuses the
// output file of a timed-out first attempt) hands them back to the caller.
void ForgetAbandoned(const std::vector<std::shared_ptr<utility::TempFile>>& outputs) {
  AbandonedJobs& jobs = Abandoned();
  std::lock_guard<std::mutex> lock(jobs.mutex);
  for (const auto& output : outputs) {
    if (!output) continue;
    jobs.paths.erase(std::remove(jobs.paths.begin(), jobs.paths.end(), output->GetPath()), jobs.paths.end());
  }
}

}  // namespace

int32_t GenerateThumbnail(const ThumbnailHelper& helper, const std::string& path, const std::string& extension,
                          std::vector<uint32_t> sizes, bool as_png,
                          std::vector<std::shared_ptr<utility::TempFile>> outputs) {
  return GenerateThumbnail(helper, path, extension, std::move(sizes), as_png, std::move(outputs),
                           kThumbnailTimeout);
}

int32_t GenerateThumbnail(const ThumbnailHelper& /*helper*/, const std::string& path,
                          const std::string& /*extension*/, std::vector<uint32_t> sizes, bool as_png,
                          std::vector<std::shared_ptr<utility::TempFile>> outputs,
                          std::chrono::steady_clock::duration timeout) {
  // The task's shared state is held by the future here and by the task on
  // the thread, so whichever side finishes last frees it.
  ExtractionTask task(
      static_cast<bool (*)(const std::u16string&, std::vector<uint32_t>, bool,
                           std::vector<std::shared_ptr<utility::TempFile>>)>(&ExtractShellThumbnails));
  std::future<bool> result = task.get_future();
  std::u16string wide_path = utility::UTF8ToUTF16(path);
  const Clock::time_point now = Clock::now();
  const Clock::time_point run_deadline = utility::RunDeadline();
  const Clock::time_point deadline =
      timeout >= run_deadline - now ? run_deadline : now + std::chrono::duration_cast<Clock::duration>(timeout);
  // Cancelled by this side once it stops waiting, so the work never sees a
  // cancellation before the wait has ended.
  auto cancellation = std::make_shared<utility::Cancellation>();

  // The thread owns its own copies of every argument.
  std::thread worker(
      [cancellation](ExtractionTask job, std::u16string wide, std::vector<uint32_t> edges, bool png,
                     std::vector<std::shared_ptr<utility::TempFile>> files) {
        current_job_cancellation = cancellation;
        job(wide, std::move(edges), png, std::move(files));
        current_job_cancellation.reset();
      },
      std::move(task), std::move(wide_path), sizes, as_png, outputs);
  worker.detach();

  if (result.wait_until(deadline) != std::future_status::ready) {
    cancellation->Cancel();
    LOG_WARNING(kComponent, "GenerateThumbnail timeout '%s'", path.c_str());
    RecordAbandoned(outputs);
    return 1;
  }

  bool done = false;
  try {
    done = result.get();
  } catch (const std::exception& e) {
    LOG_WARNING(kComponent, "GenerateThumbnail exception, reason '%s', path '%s'", e.what(), path.c_str());
    return -1;
  }
  if (!done) {
    LOG_WARNING(kComponent, "GenerateThumbnail Failed '%s'", path.c_str());
    return -1;
  }
  ForgetAbandoned(outputs);
  return 0;
}

int32_t GenerateOne(const ThumbnailHelper& helper, const std::string& path, const std::string& extension,
                    uint32_t size, bool as_png, std::shared_ptr<utility::TempFile> output) {
  return GenerateThumbnail(helper, path, extension, std::vector<uint32_t>{size}, as_png,
                           std::vector<std::shared_ptr<utility::TempFile>>{std::move(output)});
}

std::shared_ptr<const utility::Cancellation> CurrentJobCancellation() { return current_job_cancellation; }

void RecordAbandonedWork(const std::vector<std::string>& files) {
  AbandonedJobs& jobs = Abandoned();
  std::lock_guard<std::mutex> lock(jobs.mutex);
  jobs.any = true;
  jobs.paths.insert(jobs.paths.end(), files.begin(), files.end());
}

bool RunBeforeRunDeadline(std::function<void()> work, const std::vector<std::string>& files) {
  std::packaged_task<void()> task(std::move(work));
  std::future<void> done = task.get_future();
  std::thread(std::move(task)).detach();
  if (done.wait_until(utility::RunDeadline()) != std::future_status::ready) {
    RecordAbandonedWork(files);
    return false;
  }
  done.get();
  return true;
}

bool HasAbandonedJobs() {
  AbandonedJobs& jobs = Abandoned();
  std::lock_guard<std::mutex> lock(jobs.mutex);
  return jobs.any;
}

void ExitWithAbandonedJobs(int status) {
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);

  std::vector<std::string> paths;
  {
    AbandonedJobs& jobs = Abandoned();
    std::lock_guard<std::mutex> lock(jobs.mutex);
    paths = jobs.paths;
  }
  // Taken even when no file is left to remove: an abandoned job may be
  // rewriting an output that a later attempt completed and the report names
  // (the video fallback reuses the output file), and ending the process in
  // the middle of that write would leave the reported file cut short. Held
  // until the process is gone: no job can start writing a file again.
  if (OutputWriteMutex().try_lock_for(kExitWriteWait)) {
    for (const std::string& path : paths) file::FSRemove(path);
  }
  utility::EndProcessNow(status);
}

}  // namespace thumbnail
}  // namespace tessera
