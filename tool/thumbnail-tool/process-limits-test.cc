#include "tool/thumbnail-tool/process-limits.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace tool {
namespace {

// Runs `body` in a forked child (limits cannot be undone) and returns its
// wait status; the body's return value is the exit code.
template <typename Body>
int InChild(Body body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return status;
}

TEST(ProcessLimitsTest, WritePastTheFileCapFailsInsteadOfKillingTheProcess) {
  const test::ScratchDir dir;
  const std::string path = dir.Path("capped");
  const int status = InChild([&] {
    ApplyProcessLimits();
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return 10;
    std::vector<char> block(1 << 20, 'x');
    uint64_t written = 0;
    int error = 0;
    while (written <= kMaxOutputFileBytes) {
      const ssize_t n = write(fd, block.data(), block.size());
      if (n < 0) {
        error = errno;
        break;
      }
      written += static_cast<uint64_t>(n);
    }
    close(fd);
    if (error != EFBIG) return 11;
    return written == kMaxOutputFileBytes ? 0 : 12;
  });
  ASSERT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(ProcessLimitsTest, AddressSpaceCapMakesAHugeAllocationFailButNeverRaisesALimit) {
  const uint64_t limit = AddressSpaceLimit();
  if (limit == 0) GTEST_SKIP() << "no address-space limit in this build";
  // Room for a 200-megapixel photo decoded whole, with a working copy.
  EXPECT_GE(limit, uint64_t{200'000'000} * 4 * 2);

  int status = InChild([&] {
    ApplyProcessLimits();
    struct rlimit as;
    getrlimit(RLIMIT_AS, &as);
    if (as.rlim_cur != limit) return 20;
    void* huge = std::malloc(static_cast<size_t>(limit));
    const bool refused = huge == nullptr;
    std::free(huge);
    return refused ? 0 : 21;
  });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);

  // A caller's tighter limit stays.
  status = InChild([&] {
    struct rlimit tight = {1 << 20, 1 << 20};
    setrlimit(RLIMIT_FSIZE, &tight);
    ApplyProcessLimits();
    struct rlimit now;
    getrlimit(RLIMIT_FSIZE, &now);
    return now.rlim_cur == (1 << 20) ? 0 : 22;
  });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace tool
}  // namespace tessera
