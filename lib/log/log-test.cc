#include "lib/log/log.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gtest/gtest.h"
#include "lib/log/log-platform.h"

namespace tessera {
namespace log {
namespace {

constexpr int64_t kLimit = 0x500000;
const char kStamp[] = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d )";
const char kPrefix[] = R"(\(\s*\d+:\s*\d+\) )";

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

bool Exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

int64_t SizeOf(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? info.st_size : -1;
}

// Every test leaves the logger in its start-up state and its scratch
// directory removed.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* base = getenv("TESSERA_TEST_TMPDIR");
    std::string root = base != nullptr && *base != '\0' ? base : "/tmp";
    std::filesystem::create_directories(root);
    std::string pattern = root + "/log-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    LogResetForTesting();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  std::string dir_;
};

TEST_F(LogTest, StartUpStateWritesErrorsAndWarningsToStandardErrorOnly) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  LOG_ERROR("thumbnail_debug", "boom %d '%s'", 42, "x");
  LOG_WARNING("utility_debug", "careful");
  LOG_INFO("thumbnail_debug", "dropped");
  LOG_DEBUG("never_configured", "dropped");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

  std::vector<std::string> lines = Lines(err);
  ASSERT_EQ(lines.size(), 2u) << err;
  EXPECT_TRUE(std::regex_match(
      lines[0], std::regex(std::string(kStamp) + kPrefix + R"(\[ERROR\] log-test\.cc\(\d+\): boom 42 'x')")))
      << lines[0];
  EXPECT_TRUE(std::regex_match(
      lines[1], std::regex(std::string(kStamp) + kPrefix + R"(\[WARNING\] log-test\.cc\(\d+\): careful)")))
      << lines[1];
}

TEST_F(LogTest, ArgumentsAreEvaluatedOnlyWhenEnabled) {
  int calls = 0;
  auto count = [&calls] { return ++calls; };
  LOG_INFO("thumbnail_debug", "%d", count());
  LOG_DEBUG("thumbnail_debug", "%d", count());
  EXPECT_EQ(calls, 0);

  testing::internal::CaptureStderr();
  LOG_WARNING("thumbnail_debug", "%d", count());
  LogDeinit();
  LOG_ERROR("thumbnail_debug", "%d", count());
  EXPECT_FALSE(LogIsEnabled(kError, "thumbnail_debug"));
  EXPECT_EQ(Lines(testing::internal::GetCapturedStderr()).size(), 1u);
  EXPECT_EQ(calls, 1);
}

TEST_F(LogTest, PrefixCarriesWholeProcessIdAndThreadIdModulo) {
  // On Linux the main thread's id is the process id.
  EXPECT_EQ(ThreadId(), static_cast<unsigned long>(getpid()));
  EXPECT_EQ(ProcessId(), static_cast<int>(getpid()));

  unsigned long worker_id = 0;
  testing::internal::CaptureStderr();
  std::thread worker([&worker_id] {
    worker_id = ThreadId();
    LOG_ERROR_AT(1234, "thumbnail_debug", "from %s", "worker");
  });
  worker.join();
  std::vector<std::string> lines = Lines(testing::internal::GetCapturedStderr());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(worker_id, ThreadId());

  char expected[128];
  snprintf(expected, sizeof expected, "(%5d:%5d) [ERROR] log-test.cc(1234): from worker", static_cast<int>(getpid()),
           static_cast<int>(worker_id % 100000));
  EXPECT_EQ(lines[0].substr(20), expected);

  EXPECT_STREQ(BaseName("a/b\\c/name.cc"), "name.cc");
  EXPECT_STREQ(BaseName("name.cc"), "name.cc");
  EXPECT_STREQ(BaseName("dir\\"), "");
}

TEST_F(LogTest, DestinationsChooseStreamAndTimeStamp) {
  LogConfig config;
  config.destination = 0;
  ASSERT_EQ(LogInit(config), 0);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  LOG_ERROR("c", "raw");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_TRUE(std::regex_match(testing::internal::GetCapturedStderr(),
                               std::regex(std::string(kPrefix) + R"(\[ERROR\] log-test\.cc\(\d+\): raw\n)")));

  config.destination = 1;
  ASSERT_EQ(LogInit(config), 0);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  LOG_WARNING("c", "out");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(std::regex_match(testing::internal::GetCapturedStdout(),
                               std::regex(std::string(kStamp) + kPrefix + R"(\[WARNING\] .*: out\n)")));

  // Above 3 the file is opened, yet messages go to standard error unstamped.
  config.destination = 4;
  config.log_path = Path("four.log");
  ASSERT_EQ(LogInit(config), 0);
  EXPECT_TRUE(Exists(config.log_path));
  testing::internal::CaptureStderr();
  LOG_ERROR("c", "four");
  EXPECT_TRUE(std::regex_match(testing::internal::GetCapturedStderr(), std::regex(std::string(kPrefix) + ".*four\n")));
  EXPECT_EQ(SizeOf(config.log_path), 0);
}

TEST_F(LogTest, LevelConfigGrammar) {
  const std::string path = Path("levels.conf");
  WriteFile(path,
            "# thresholds\n"
            "\n"
            "   \t\n"
            "  thumbnail_debug = 7   # debug on\n"
            "utility_debug=6\n"
            "quoted = \"a b # c\"  \n"
            "single='x' # done\n"
            "file-op.debug_1 = 3\r\n"
            "utility_debug = 5\n"
            "# last line without a line feed\n"
            "utf8 = caf\xc3\xa9");
  std::unordered_map<std::string, std::string> values;
  ASSERT_EQ(ReadLevelConfig(path, &values), 0);
  std::unordered_map<std::string, std::string> expected = {
      {"thumbnail_debug", "7"}, {"utility_debug", "5"},   {"quoted", "a b # c"},
      {"single", "x"},          {"file-op.debug_1", "3"}, {"utf8", "caf\xc3\xa9"}};
  EXPECT_EQ(values, expected);

  values.clear();
  ASSERT_EQ(ReadLevelConfig(path, &values, /*keep_quotes=*/true), 0);
  EXPECT_EQ(values["quoted"], "\"a b # c\"");
  EXPECT_EQ(values["single"], "'x'");

  values = {{"kept", "1"}};
  EXPECT_EQ(ReadLevelConfig(Path("missing.conf"), &values), -1);
  EXPECT_EQ(values.size(), 1u);

  const char* bad_lines[] = {
      "thumbnail debug = 7\n",  // blank inside the key
      "key = \"open\n",         // no closing quote
      "key = 'mixed\"\n",       // the other quote does not close
      "key = \"a\x01\"\n",      // a control character ends the quoted value
      "key 7\n",                // no '='
      "key: 7\n",               // not a key character, not '='
      "key =   \n",             // no value
      "key = 7 extra\n",        // text after the value
      "key = \"a\"b\n",         // text right after the closing quote
      "key = a\x7f\n",          // DEL ends the value, then junk
  };
  for (const char* bad : bad_lines) {
    WriteFile(path, std::string("good = 1\n") + bad + "later = 2\n");
    values = {{"previous", "1"}};
    EXPECT_EQ(ReadLevelConfig(path, &values), -1) << bad;
    EXPECT_TRUE(values.empty()) << bad;
  }
}

TEST_F(LogTest, LevelConfigSetsComponentThresholds) {
  LogConfig config;
  config.destination = 2;
  config.level_config_path = Path("levels.conf");
  WriteFile(config.level_config_path, "thumbnail_debug = 7\nutility_debug = 2\nfile_op_debug = none\n");
  ASSERT_EQ(LogInit(config), 0);
  EXPECT_TRUE(LogIsEnabled(kDebug, "thumbnail_debug"));
  EXPECT_FALSE(LogIsEnabled(kError, "utility_debug"));
  EXPECT_FALSE(LogIsEnabled(kError, "file_op_debug"));  // no number reads as 0
  EXPECT_TRUE(LogIsEnabled(kWarning, "other_debug"));
  EXPECT_FALSE(LogIsEnabled(kInfo, "other_debug"));

  testing::internal::CaptureStderr();
  LOG_DEBUG("thumbnail_debug", "shown");
  LOG_DEBUG("other_debug", "hidden");
  LOG_ERROR("utility_debug", "hidden");
  std::vector<std::string> lines = Lines(testing::internal::GetCapturedStderr());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("[DEBUG] log-test.cc("), std::string::npos);

  // A bad line leaves only the default, also after a good configuration.
  WriteFile(config.level_config_path, "thumbnail_debug = 7\nbroken = 'x\n");
  ASSERT_EQ(LogInit(config), 0);
  EXPECT_FALSE(LogIsEnabled(kInfo, "thumbnail_debug"));
  EXPECT_TRUE(LogIsEnabled(kError, "utility_debug"));
}

// A line that pushes the running size past the limit goes to the old file;
// a line that reaches the limit exactly does not rotate.
TEST_F(LogTest, RotationMovesTheCrossingLineToOldFile) {
  LogConfig config;
  config.destination = 3;
  config.log_path = Path("app.log");
  config.rotation_count = 3;
  ASSERT_EQ(LogInit(config), 0);
  LOG_ERROR_AT(7, "c", "payload");
  const int64_t line_length = SizeOf(config.log_path);
  ASSERT_GT(line_length, 20);

  ASSERT_EQ(truncate(config.log_path.c_str(), kLimit - line_length), 0);
  ASSERT_EQ(LogInit(config), 0);
  LOG_ERROR_AT(7, "c", "payload");
  EXPECT_EQ(SizeOf(config.log_path), kLimit);
  EXPECT_FALSE(Exists(config.log_path + "_0"));

  LOG_ERROR_AT(7, "c", "payload");
  EXPECT_EQ(SizeOf(config.log_path + "_0"), kLimit + line_length);
  EXPECT_EQ(SizeOf(config.log_path), 0);
  LOG_WARNING("c", "after rotation");
  EXPECT_NE(ReadFile(config.log_path).find("after rotation"), std::string::npos);

  // The next rotation shifts the chain.
  ASSERT_EQ(truncate(config.log_path.c_str(), kLimit), 0);
  ASSERT_EQ(LogInit(config), 0);
  LOG_ERROR("c", "second crossing");
  EXPECT_EQ(SizeOf(config.log_path + "_1"), kLimit + line_length);
  std::string newest = ReadFile(config.log_path + "_0");
  EXPECT_GT(static_cast<int64_t>(newest.size()), kLimit);
  EXPECT_NE(newest.find("second crossing\n"), std::string::npos);
  EXPECT_EQ(SizeOf(config.log_path), 0);
}

TEST_F(LogTest, RotationFallsSilentWhenAllOldFilesExist) {
  LogConfig config;
  config.destination = 3;
  config.log_path = Path("app.log");
  config.rotation_count = 3;
  WriteFile(config.log_path + "_0", "zero");
  WriteFile(config.log_path + "_1", "one");
  WriteFile(config.log_path + "_2", "two");
  WriteFile(config.log_path, "");
  ASSERT_EQ(truncate(config.log_path.c_str(), kLimit), 0);
  ASSERT_EQ(LogInit(config), 0);

  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  LOG_ERROR("c", "crossing");
  LOG_ERROR("c", "lost");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  EXPECT_EQ(ReadFile(config.log_path + "_0"), "zero");
  EXPECT_EQ(ReadFile(config.log_path + "_1"), "one");
  EXPECT_FALSE(Exists(config.log_path + "_2"));
  std::string live = ReadFile(config.log_path);
  EXPECT_NE(live.find("crossing\n"), std::string::npos);
  EXPECT_EQ(live.find("lost"), std::string::npos);

  // A new initialisation writes again; its first line crosses the limit and,
  // with the oldest file gone, the rotation now succeeds.
  ASSERT_EQ(LogInit(config), 0);
  LOG_ERROR("c", "again");
  EXPECT_NE(ReadFile(config.log_path + "_0").find("crossing\n"), std::string::npos);
  EXPECT_NE(ReadFile(config.log_path + "_0").find("again\n"), std::string::npos);
  EXPECT_EQ(ReadFile(config.log_path + "_1"), "zero");
  EXPECT_EQ(SizeOf(config.log_path), 0);
}

TEST_F(LogTest, ConcurrentWritersKeepEveryLineWholeAcrossRotation) {
  LogConfig config;
  config.destination = 3;
  config.log_path = Path("app.log");
  config.rotation_count = 4;
  config.lock_mode = 2;
  WriteFile(config.log_path, "");
  ASSERT_EQ(truncate(config.log_path.c_str(), kLimit - 4000), 0);
  ASSERT_EQ(LogInit(config), 0);

  constexpr int kThreads = 4;
  constexpr int kLinesPerThread = 250;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      for (int i = 0; i < kLinesPerThread; ++i) LOG_WARNING("c", "writer %d line %d", t, i);
    });
  }
  for (std::thread& thread : threads) thread.join();

  ASSERT_TRUE(Exists(config.log_path + "_0"));
  std::string text = ReadFile(config.log_path + "_0") + ReadFile(config.log_path);
  text.erase(0, text.find_first_not_of('\0'));
  std::set<std::string> seen;
  const std::regex line_pattern(std::string(kStamp) + kPrefix + R"(\[WARNING\] log-test\.cc\(\d+\): (writer \d+ line \d+))");
  for (const std::string& line : Lines(text)) {
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, line_pattern)) << line;
    EXPECT_TRUE(seen.insert(match[1]).second) << line;
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kLinesPerThread));
}

TEST_F(LogTest, FileHandleIsNotInherited) {
  LogConfig config;
  config.destination = 3;
  config.log_path = Path("app.log");
  ASSERT_EQ(LogInit(config), 0);
  const std::string target = std::filesystem::canonical(config.log_path).string();

  int found = 0;
  DIR* fds = opendir("/proc/self/fd");
  ASSERT_NE(fds, nullptr);
  while (dirent* entry = readdir(fds)) {
    std::error_code error;
    std::string link = std::filesystem::read_symlink(std::string("/proc/self/fd/") + entry->d_name, error).string();
    if (error || link != target) continue;
    ++found;
    EXPECT_NE(fcntl(atoi(entry->d_name), F_GETFD) & FD_CLOEXEC, 0);
  }
  closedir(fds);
  EXPECT_EQ(found, 1);
}

TEST_F(LogTest, DeinitOfFileModeLeavesStandardOutputAsStream) {
  LogConfig config;
  config.destination = 3;
  config.log_path = Path("app.log");
  ASSERT_EQ(LogInit(config), 0);
  LogDeinit();
  EXPECT_FALSE(LogIsEnabled(kError, "c"));

  testing::internal::CaptureStdout();
  LogRaw("own error %d\n", 5);
  EXPECT_TRUE(std::regex_match(testing::internal::GetCapturedStdout(), std::regex(std::string(kStamp) + "own error 5\n")));

  // A failed initialisation leaves the logger uninitialised.
  config.log_path.clear();
  EXPECT_EQ(LogInit(config), -1);
  EXPECT_FALSE(LogIsEnabled(kError, "c"));
  config.log_path = Path("no-such-dir/app.log");
  EXPECT_EQ(LogInit(config), -1);
}

TEST_F(LogTest, RenameNeverReplacesItsTarget) {
  const std::string a = Path("a");
  const std::string b = Path("b");
  WriteFile(a, "first");
  WriteFile(b, "second");
  EXPECT_FALSE(internal::RenameNoReplace(a, b));
  EXPECT_EQ(ReadFile(a), "first");
  EXPECT_EQ(ReadFile(b), "second");

  ASSERT_TRUE(internal::RemoveFile(b));
  EXPECT_TRUE(internal::RenameNoReplace(a, b));
  EXPECT_FALSE(Exists(a));
  EXPECT_EQ(ReadFile(b), "first");
  EXPECT_FALSE(internal::RenameNoReplace(Path("missing"), Path("c")));
}

}  // namespace
}  // namespace log
}  // namespace tessera
