#include "tests/tool-runner.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace tessera {
namespace testing {
namespace {

// Reads both pipes until both are closed, so that neither can fill up.
void Drain(int out_fd, int err_fd, std::string* out, std::string* err) {
  struct pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
  std::string* sinks[2] = {out, err};
  int open_count = 2;
  char buffer[4096];
  while (open_count > 0) {
    if (poll(fds, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || fds[i].revents == 0) continue;
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open_count;
      }
    }
  }
}

}  // namespace

ProcessResult RunProcess(const std::string& program, const std::vector<std::string>& args) {
  ProcessResult result;
  int out_pipe[2];
  int err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0) return result;
  if (pipe2(err_pipe, O_CLOEXEC) != 0) {
    close(out_pipe[0]);
    close(out_pipe[1]);
    return result;
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err_pipe[1], 2);

  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);

  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(out_pipe[1]);
  close(err_pipe[1]);
  if (spawned != 0) {
    close(out_pipe[0]);
    close(err_pipe[0]);
    return result;
  }

  Drain(out_pipe[0], err_pipe[0], &result.out, &result.err);
  int wait_status = 0;
  struct rusage usage = {};
  while (wait4(pid, &wait_status, 0, &usage) < 0 && errno == EINTR) {
  }
  result.peak_rss_kib = usage.ru_maxrss;
  if (WIFEXITED(wait_status)) {
    result.exited = true;
    result.status = WEXITSTATUS(wait_status);
  } else if (WIFSIGNALED(wait_status)) {
    result.status = WTERMSIG(wait_status);
  }
  return result;
}

ProcessResult RunTool(const std::vector<std::string>& args) { return RunProcess(ToolPath(), args); }

const char* ToolPath() { return TESSERA_TOOL_PATH; }

}  // namespace testing
}  // namespace tessera
