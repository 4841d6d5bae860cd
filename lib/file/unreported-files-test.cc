#include "lib/file/unreported-files.h"

#include <gtest/gtest.h>
#ifndef _WIN32
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "lib/file/file-op.h"
#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace file {
namespace {

using ::tessera::test::Exists;
using ::tessera::test::ReadAll;

TEST(UnreportedFilesTest, EachRegistrationIsForgottenOnItsOwn) {
  const std::string path = "out/Ab3-x_9Z";
  EXPECT_FALSE(IsUnreportedFile(path));
  ASSERT_TRUE(RegisterUnreportedFile(path));
  ASSERT_TRUE(RegisterUnreportedFile(path));
  EXPECT_FALSE(IsUnreportedFile("out/Ab3-x_9"));
  EXPECT_FALSE(IsUnreportedFile("out/Ab3-x_9Z0"));
  ForgetUnreportedFile(path);
  EXPECT_TRUE(IsUnreportedFile(path));
  ForgetUnreportedFile(path);
  EXPECT_FALSE(IsUnreportedFile(path));
  ForgetUnreportedFile(path);  // unknown: ignored

  EXPECT_FALSE(RegisterUnreportedFile(""));
  EXPECT_FALSE(RegisterUnreportedFile(std::string("a\0b", 3)));
  EXPECT_FALSE(RegisterUnreportedFile(std::string(kMaxUnreportedPathBytes + 1, 'p')));
  const std::string longest(kMaxUnreportedPathBytes, 'p');
  ASSERT_TRUE(RegisterUnreportedFile(longest));
  EXPECT_TRUE(IsUnreportedFile(longest));
  ForgetUnreportedFile(longest);
  EXPECT_FALSE(IsUnreportedFile(longest));
}

TEST(UnreportedFilesTest, SeparatorsCompareAsThePlatformReadsThem) {
  ASSERT_TRUE(RegisterUnreportedFile("out/sub/name"));
#ifdef _WIN32
  EXPECT_TRUE(IsUnreportedFile("out\\sub\\name"));
  ForgetUnreportedFile("out\\sub/name");
  EXPECT_FALSE(IsUnreportedFile("out/sub/name"));
#else
  // '\' is an ordinary byte of a POSIX file name.
  EXPECT_FALSE(IsUnreportedFile("out\\sub\\name"));
  ForgetUnreportedFile("out\\sub\\name");
  EXPECT_TRUE(IsUnreportedFile("out/sub/name"));
  ForgetUnreportedFile("out/sub/name");
#endif
}

TEST(UnreportedFilesTest, ConcurrentRegistrationsNeitherLoseNorMixPaths) {
  constexpr int kThreads = 4;
  constexpr int kRounds = 2000;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &failures] {
      for (int round = 0; round < kRounds; ++round) {
        // Lengths differ from round to round, so that a slot reused with a
        // torn copy would show as a wrong path.
        const std::string path = "race/" + std::to_string(t) + std::string(round % 7, 'x');
        if (!RegisterUnreportedFile(path) || !IsUnreportedFile(path)) ++failures;
        ForgetUnreportedFile(path);
        if (IsUnreportedFile(path)) ++failures;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
}

#ifndef _WIN32
// What a run does before it is stopped: makes two files, hands one over as
// a report would, registers a name the attacker turned into a link to
// `outside` and a frame it never got to write; then the signal comes.
[[noreturn]] void MakeFilesAndRaise(const std::string& out, const std::string& outside, int signal_number) {
  RemoveUnreportedFilesOnTermination();
  std::string made;
  std::string reported;
  OpenFile file;
  if (FSMktemp(out, &made, &file) != 0 || FSMktemp(out, &reported) != 0) _exit(1);
  ForgetUnreportedFile(reported);
  const std::string link = out + "/link";
  if (!RegisterUnreportedFile(link) || symlink(outside.c_str(), link.c_str()) != 0) _exit(1);
  RegisterUnreportedFile(out + "/never-made.jpg");
  raise(signal_number);
  _exit(2);  // not reached
}

// With SIGHUP ignored from the start, then terminating by hand: exits 0 when
// the ignored signal changed nothing and no file can be made afterwards.
[[noreturn]] void IgnoreHangUpThenTerminate(const std::string& dir) {
  signal(SIGHUP, SIG_IGN);
  RemoveUnreportedFilesOnTermination();
  std::string path;
  if (FSMktemp(dir, &path) != 0) _exit(1);
  raise(SIGHUP);
  if (!Exists(path)) _exit(2);
  RemoveUnreportedFiles();
  if (Exists(path)) _exit(3);
  // Once termination has begun, a file made now would outlive it.
  std::string late = "unchanged";
  OpenFile file;
  const bool refused = FSMktemp(dir, &late, &file) == -1 && late == "unchanged" &&
                       FSOpenForWriting(dir + "/late", &file) == -1 && !Exists(dir + "/late");
  _exit(refused ? 0 : 4);
}

class TerminationTest : public ::testing::TestWithParam<int> {
 protected:
  test::ScratchDir dir_;
};

// The process must die by the signal, leaving only the handed-over file
// (and what lies outside the directory).
TEST_P(TerminationTest, RemovesWhatWasNotHandedOverAndDiesByTheSignal) {
  const int signal_number = GetParam();
  const std::string out = dir_.Path("out");
  ASSERT_TRUE(std::filesystem::create_directory(out));
  const std::string outside = dir_.MakeFile("precious", "keep me");

  EXPECT_EXIT(MakeFilesAndRaise(out, outside, signal_number), ::testing::KilledBySignal(signal_number), "");

  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(out)) left.push_back(entry.path().string());
  ASSERT_EQ(left.size(), 1u);
  EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(left[0]))) << left[0];
  EXPECT_EQ(ReadAll(outside), "keep me");
}

INSTANTIATE_TEST_SUITE_P(Signals, TerminationTest, ::testing::Values(SIGTERM, SIGINT, SIGHUP));

TEST(TerminationHandlersTest, AnIgnoredSignalStaysIgnoredAndNothingIsCreatedAfterTermination) {
  test::ScratchDir dir;
  EXPECT_EXIT(IgnoreHangUpThenTerminate(dir.path()), ::testing::ExitedWithCode(0), "");
  EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}
#endif  // _WIN32

}  // namespace
}  // namespace file
}  // namespace tessera
