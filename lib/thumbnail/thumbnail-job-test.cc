#include "lib/thumbnail/thumbnail-job.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "lib/thumbnail/testing/count-of.h"
#include "lib/thumbnail/testing/fake-thumbnail-provider.h"
#include "lib/thumbnail/testing/image-size.h"
#include "lib/thumbnail/thumbnail-extraction.h"
#include "lib/thumbnail/thumbnail-helper.h"
#include "lib/utility/run-deadline.h"
#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace thumbnail {
namespace {

using ::testing::HasSubstr;
using testing::FakeProviderConfig;
using testing::FakeProviderFactory;
using testing::FakeProviderRecord;
using testing::Gate;
using testing::ScopedProviderFactory;

using testing::CountOf;

class JobTest : public ::testing::Test {
 protected:
  std::shared_ptr<utility::TempFile> MakeOutput() {
    auto output = std::make_shared<utility::TempFile>(dir_.path());
    EXPECT_EQ(0, output->Create());
    return output;
  }

  test::ScratchDir dir_;
  ThumbnailHelper helper_{dir_.path()};
  std::shared_ptr<FakeProviderRecord> record_ = std::make_shared<FakeProviderRecord>();
};

TEST_F(JobTest, FailureAndStandardExceptionsGiveMinusOneWithOneWarning) {
  FakeProviderConfig failing;
  failing.thumbnail_result = kProviderDecodeFailed;
  FakeProviderConfig throwing;
  throwing.on_get_thumbnail = [] { throw std::runtime_error("boom"); };
  struct Case {
    FakeProviderConfig config;
    std::string warning;
  };
  const Case cases[] = {
      {failing, "GenerateThumbnail Failed '/p/a.jpg'\n"},
      {throwing, "GenerateThumbnail exception, reason 'boom', path '/p/a.jpg'\n"},
  };
  for (const Case& c : cases) {
    ScopedProviderFactory fake(FakeProviderFactory(c.config, record_));
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(-1, GenerateOne(helper_, "/p/a.jpg", "jpg", 120, false, MakeOutput()));
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(1, CountOf(log, "[WARNING]")) << log;
    EXPECT_THAT(log, HasSubstr(c.warning));
  }
}

TEST_F(JobTest, OtherExceptionsPropagate) {
  FakeProviderConfig config;
  config.on_get_thumbnail = [] { throw 42; };
  ScopedProviderFactory fake(FakeProviderFactory(config, record_));
  EXPECT_THROW(GenerateOne(helper_, "/p/a.jpg", "jpg", 120, false, MakeOutput()), int);
}

// An abandoned job keeps its output (it may share it with a later attempt
// that completes it, as the video fallback does), but writes nothing more.
TEST_F(JobTest, BlockedExtractionIsAbandonedAtTheTimeLimitAndWritesNothingMore) {
  auto gate = std::make_shared<Gate>();
  FakeProviderConfig config;
  config.on_get_thumbnail = [gate] { gate->Wait(); };
  ScopedProviderFactory fake(FakeProviderFactory(config, record_));
  auto output = MakeOutput();

  ::testing::internal::CaptureStderr();
  EXPECT_EQ(1, GenerateThumbnail(helper_, "/p/slow.jpg", "jpg", {120}, false, {output},
                                 std::chrono::milliseconds(50)));
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(1, CountOf(log, "[WARNING]")) << log;
  EXPECT_THAT(log, HasSubstr("GenerateThumbnail timeout '/p/slow.jpg'\n"));
  EXPECT_TRUE(HasAbandonedJobs());
  EXPECT_GT(output.use_count(), 1);  // the abandoned thread still holds it

  // Released, the job runs to its end and its result is dropped.
  gate->Open();
  record_->WaitDestroyed(1);  // after its attempt to save
  EXPECT_EQ(0u, std::filesystem::file_size(output->GetPath()));
}

// Work that polls its job's cancellation stops once nobody waits for it,
// whether the job's own limit or the run's deadline ended the wait. It waits
// for the waiter to give up (Cancel), not for the deadline alone: work that
// ends right at the deadline may still be collected by a waiter that wakes a
// moment later, and the test would race it.
TEST_F(JobTest, AbandonedWorkIsCancelledAtTheJobLimitAndAtTheRunDeadline) {
  auto stopped = std::make_shared<std::atomic<int>>(0);
  FakeProviderConfig config;
  config.on_get_thumbnail = [stopped] {
    const std::shared_ptr<const utility::Cancellation> cancellation = CurrentJobCancellation();
    ASSERT_TRUE(cancellation);
    const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!cancellation->IsCancelled() && std::chrono::steady_clock::now() < give_up) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(cancellation->IsCancelled());
    stopped->fetch_add(1);
  };
  ScopedProviderFactory fake(FakeProviderFactory(config, record_));
  EXPECT_FALSE(CurrentJobCancellation());

  ::testing::internal::CaptureStderr();
  EXPECT_EQ(1, GenerateThumbnail(helper_, "/p/slow.jpg", "jpg", {120}, false, {MakeOutput()},
                                 std::chrono::milliseconds(20)));
  record_->WaitDestroyed(1);
  EXPECT_EQ(1, stopped->load());

  // A run budget shorter than the job's own limit ends the wait early; once
  // it is spent, later jobs do not wait at all.
  utility::SetRunBudget(std::chrono::milliseconds(30));
  EXPECT_EQ(1, GenerateThumbnail(helper_, "/p/slow.jpg", "jpg", {120}, false, {MakeOutput()}));
  EXPECT_EQ(1, GenerateThumbnail(helper_, "/p/slow.jpg", "jpg", {120}, false, {MakeOutput()}));
  utility::SetRunBudget(std::chrono::hours(24));
  record_->WaitDestroyed(3);
  EXPECT_EQ(3, stopped->load());
  EXPECT_EQ(3, CountOf(::testing::internal::GetCapturedStderr(), "GenerateThumbnail timeout '/p/slow.jpg'"));
}

// Guards the frame export's bound: a platform call that never returns holds
// the caller up until the run's deadline, no longer.
TEST_F(JobTest, WorkPastTheRunDeadlineIsLeftBehindAndWorkInTimeAnswers) {
  EXPECT_THROW(RunBeforeRunDeadline([] { throw std::runtime_error("boom"); }, {}), std::runtime_error);
  int answer = 0;
  EXPECT_TRUE(RunBeforeRunDeadline([&answer] { answer = 42; }, {}));
  EXPECT_EQ(42, answer);

  auto never = std::make_shared<Gate>();
  utility::SetRunBudget(std::chrono::milliseconds(30));
  EXPECT_FALSE(RunBeforeRunDeadline([never] { never->Wait(); }, {"/p/frame.jpg"}));
  utility::SetRunBudget(std::chrono::hours(24));
  EXPECT_TRUE(HasAbandonedJobs());
  never->Open();
}

TEST_F(JobTest, ExitWithAbandonedJobsRemovesTheirOutputs) {
#ifdef _WIN32
  GTEST_SKIP() << "the death test's child shares the parent's files only where it is forked";
#endif
  // The forked child runs the job on these very files.
  auto gate = std::make_shared<Gate>();  // never opened
  FakeProviderConfig config;
  config.on_get_thumbnail = [gate] { gate->Wait(); };
  ScopedProviderFactory fake(FakeProviderFactory(config, record_));
  auto output = MakeOutput();
  const std::string abandoned = output->GetPath();
  auto kept = MakeOutput();
  kept->Keep();

  EXPECT_EXIT(
      {
        GenerateThumbnail(helper_, "/p/slow.jpg", "jpg", {120}, false, {output}, std::chrono::milliseconds(10));
        ExitWithAbandonedJobs(3);
      },
      ::testing::ExitedWithCode(3), "GenerateThumbnail timeout '/p/slow.jpg'");
  EXPECT_FALSE(std::filesystem::exists(abandoned));
  EXPECT_TRUE(std::filesystem::exists(kept->GetPath()));
  gate->Open();
}

TEST_F(JobTest, ExitWaitsForAnOutputBeingWrittenEvenWithNothingToRemove) {
#ifdef _WIN32
  GTEST_SKIP() << "the death test's child shares the parent's files only where it is forked";
#endif
  // The first job is abandoned and a second one completes the same output, as
  // the video fallback does; the abandoned job may then be rewriting that
  // reported file when the process ends, which must not cut the write short.
  auto gate = std::make_shared<Gate>();  // never opened
  auto calls = std::make_shared<std::atomic<int>>(0);
  FakeProviderConfig config;
  config.on_get_thumbnail = [gate, calls] {
    if (calls->fetch_add(1) == 0) gate->Wait();
  };
  ScopedProviderFactory fake(FakeProviderFactory(config, record_));
  auto output = MakeOutput();
  const std::string written = dir_.Path("written");

  EXPECT_EXIT(
      {
        GenerateThumbnail(helper_, "/p/a.mp4", "mp4", {120}, false, {output}, std::chrono::milliseconds(10));
        if (GenerateThumbnail(helper_, "/p/frame.jpg", "mp4", {120}, false, {output}) != 0) std::_Exit(1);
        Gate holding;
        std::thread writer([&holding, &written] {
          std::lock_guard<std::timed_mutex> lock(OutputWriteMutex());
          holding.Open();
          std::this_thread::sleep_for(std::chrono::milliseconds(200));
          std::ofstream(written) << "done";
        });
        holding.Wait();
        ExitWithAbandonedJobs(3);
      },
      ::testing::ExitedWithCode(3), "GenerateThumbnail timeout ./p/a.mp4.");
  EXPECT_TRUE(std::filesystem::exists(written));
  EXPECT_TRUE(std::filesystem::exists(output->GetPath()));
  gate->Open();
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
