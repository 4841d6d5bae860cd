// What a run leaves in the output directory when it is stopped, and when
// someone who can write there interferes with it. The source is a large PNG
// that the test writes itself: decoding it keeps the tool busy long enough
// to be caught with its first output file made and not yet written.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <thread>

#include "lib/utility/testing/scratch-dir.h"
#include "tests/clean-run.h"
#include "tests/image-bytes.h"
#include "tests/tool-runner.h"

namespace tessera {
namespace {

using test::ScratchDir;
using testing::ExpectCleanRun;
using testing::ListNames;
using testing::ProcessResult;
using testing::RunTool;
using testing::StartedProcess;
using testing::StartTool;

// 256 megapixels of grey: a few hundred kilobytes on disk, a second or more
// of inflating (far more in the sanitizer build).
constexpr uint32_t kLargeSide = 16000;

// Generous bounds for a loaded machine; a run normally takes seconds.
constexpr auto kFirstFileWait = std::chrono::seconds(60);
constexpr int kAttempts = 5;

class TerminationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(scratch_.path().empty());
    out_ = scratch_.Path("out");
    src_ = scratch_.Path("large.png");
    std::ofstream(src_, std::ios::binary) << testing::ZeroPng(kLargeSide, kLargeSide);
    ClearOutput();
  }

  void ClearOutput() {
    std::filesystem::remove_all(out_);
    ASSERT_EQ(mkdir(out_.c_str(), 0755), 0);
  }

  // Waits until the run has made its first output file; false if it did
  // not within kFirstFileWait.
  bool WaitForFirstFile() {
    const auto give_up = std::chrono::steady_clock::now() + kFirstFileWait;
    while (ListNames(out_).empty()) {
      if (std::chrono::steady_clock::now() > give_up) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
  }

  ScratchDir scratch_;
  std::string out_;
  std::string src_;
};

class StoppedRunTest : public TerminationTest, public ::testing::WithParamInterface<int> {};

// Stopped with its first output made, the run must die by the very signal
// and take every file it made with it: none of them was reported.
TEST_P(StoppedRunTest, DiesByTheSignalAndLeavesNothing) {
  const int signal_number = GetParam();
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    SCOPED_TRACE("attempt " + std::to_string(attempt));
    ClearOutput();
    StartedProcess tool = StartTool({"--output_dir", out_, "--src", src_});
    ASSERT_TRUE(tool.started());
    ASSERT_TRUE(WaitForFirstFile());
    tool.Signal(signal_number);
    const ProcessResult run = tool.Wait();
    // Finished before the signal arrived (a very fast machine): once more.
    if (run.exited && run.status == 0) continue;
    EXPECT_FALSE(run.exited) << "exit status " << run.status << "\n" << run.err;
    EXPECT_EQ(run.status, signal_number) << run.err;
    EXPECT_EQ(run.out, "");  // no report: nothing was handed over
    EXPECT_TRUE(ListNames(out_).empty());
    return;
  }
  ADD_FAILURE() << "every run finished before it could be stopped";
}

INSTANTIATE_TEST_SUITE_P(Signals, StoppedRunTest, ::testing::Values(SIGTERM, SIGINT, SIGHUP),
                         [](const ::testing::TestParamInfo<int>& info) {
                           return std::string(info.param == SIGTERM  ? "Term"
                                              : info.param == SIGINT ? "Int"
                                                                     : "Hup");
                         });

TEST_F(TerminationTest, AnUndisturbedRunLeavesExactlyTheFilesItReports) {
  EXPECT_EQ(ExpectCleanRun(RunTool({"--output_dir", out_, "--src", src_}), out_), 4);
}

// While the run goes on, every new entry of the output directory is
// replaced by a link to a file elsewhere (the original kept under another
// name, to see how far it was written). Nothing may be written through the
// links, and a size whose file was taken away before it was written must
// fail rather than report a name that now leads elsewhere.
TEST_F(TerminationTest, OutputsSwappedForLinksMidRunAreNeverWrittenThrough) {
  const std::string precious = scratch_.Path("precious");
  std::ofstream(precious) << "precious";
  const std::string parked = scratch_.Path("parked");
  ASSERT_EQ(mkdir(parked.c_str(), 0755), 0);
  std::atomic<bool> done{false};
  std::set<std::string> swapped_while_empty;  // read after the join only
  std::thread attacker([&] {
    std::set<std::string> seen;
    const std::string staged = scratch_.Path("staged-link");
    while (!done.load()) {
      for (const std::string& name : ListNames(out_)) {
        if (!seen.insert(name).second) continue;
        const std::string original = parked + "/" + name;
        if (link((out_ + "/" + name).c_str(), original.c_str()) != 0) continue;
        // rename() puts the link in place in one step.
        if (symlink(precious.c_str(), staged.c_str()) != 0 ||
            rename(staged.c_str(), (out_ + "/" + name).c_str()) != 0) {
          continue;
        }
        // Empty now: whatever the tool writes comes after the swap.
        struct stat st;
        if (stat(original.c_str(), &st) == 0 && st.st_size == 0) swapped_while_empty.insert(name);
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
  });
  const ProcessResult run = RunTool({"--output_dir", out_, "--src", src_});
  done = true;
  attacker.join();

  // The links stay behind (they are the attacker's), so the directory is
  // not compared with the report here.
  ExpectCleanRun(run, "");
  std::ifstream in(precious);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()), "precious");
  // The first output waits through the whole decode: it is caught empty.
  EXPECT_FALSE(swapped_while_empty.empty());
  for (const std::string& name : swapped_while_empty) {
    EXPECT_EQ(run.out.find(out_ + "/" + name), std::string::npos) << name << " was reported:\n" << run.out;
  }
}

}  // namespace
}  // namespace tessera
