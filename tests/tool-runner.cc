#include "tests/tool-runner.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

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

StartedProcess::StartedProcess(StartedProcess&& other) noexcept
    : pid_(other.pid_), out_fd_(other.out_fd_), err_fd_(other.err_fd_) {
  other.pid_ = other.out_fd_ = other.err_fd_ = -1;
}

StartedProcess::~StartedProcess() {
  if (started()) Wait();
}

bool StartedProcess::Signal(int signal_number) { return started() && kill(pid_, signal_number) == 0; }

ProcessResult StartedProcess::Wait() {
  ProcessResult result;
  if (!started()) return result;
  Drain(out_fd_, err_fd_, &result.out, &result.err);
  int wait_status = 0;
  struct rusage usage = {};
  while (wait4(pid_, &wait_status, 0, &usage) < 0 && errno == EINTR) {
  }
  result.peak_rss_kib = usage.ru_maxrss;
  pid_ = out_fd_ = err_fd_ = -1;
  if (WIFEXITED(wait_status)) {
    result.exited = true;
    result.status = WEXITSTATUS(wait_status);
  } else if (WIFSIGNALED(wait_status)) {
    result.status = WTERMSIG(wait_status);
  }
  return result;
}

StartedProcess StartProcess(const std::string& program, const std::vector<std::string>& args) {
  StartedProcess process;
  int out_pipe[2];
  int err_pipe[2];
  if (pipe2(out_pipe, O_CLOEXEC) != 0) return process;
  if (pipe2(err_pipe, O_CLOEXEC) != 0) {
    close(out_pipe[0]);
    close(out_pipe[1]);
    return process;
  }

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out_pipe[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err_pipe[1], 2);
  // A test runner started in the background may have them ignored, and an
  // ignored signal would stay ignored in the program.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (int signal_number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&defaults, signal_number);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);

  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);

  pid_t pid = 0;
  const int spawned = posix_spawnp(&pid, program.c_str(), &actions, &attributes, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  close(out_pipe[1]);
  close(err_pipe[1]);
  if (spawned != 0) {
    close(out_pipe[0]);
    close(err_pipe[0]);
    return process;
  }
  process.pid_ = pid;
  process.out_fd_ = out_pipe[0];
  process.err_fd_ = err_pipe[0];
  return process;
}

ProcessResult RunProcess(const std::string& program, const std::vector<std::string>& args) {
  return StartProcess(program, args).Wait();
}

namespace {

const char* WindowsTool() {
  const char* exe = std::getenv("TESSERA_WINDOWS_TOOL");
  return exe != nullptr && *exe != '\0' ? exe : nullptr;
}

// "/a/b" as Wine sees it: "Z:\a\b".
std::string ToWinePath(const std::string& path) {
  std::string wine = "Z:" + path;
  for (char& c : wine) {
    if (c == '/') c = '\\';
  }
  return wine;
}

// An argument with its path (or its inline value's path) on Wine's Z: drive.
std::string ToWineArgument(const std::string& arg) {
  if (!arg.empty() && arg[0] == '/') return ToWinePath(arg);
  const size_t equals = arg.find('=');
  if (arg.compare(0, 2, "--") == 0 && equals != std::string::npos && equals + 1 < arg.size() &&
      arg[equals + 1] == '/') {
    return arg.substr(0, equals + 1) + ToWinePath(arg.substr(equals + 1));
  }
  return arg;
}

// Turns every "Z:" path in `text` back into this machine's path. In the JSON
// report a separator is an escaped backslash (two bytes), in log lines a
// plain one; a path ends at a quote or white space.
std::string FromWinePaths(const std::string& text, bool json) {
  const std::string separator = json ? "\\\\" : "\\";
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    if (text.compare(i, 2 + separator.size(), "Z:" + separator) != 0) {
      out += text[i++];
      continue;
    }
    i += 2;
    while (i < text.size() && text[i] != '"' && text[i] != '\'' && text[i] != ' ' && text[i] != '\n') {
      if (text.compare(i, separator.size(), separator) == 0) {
        out += '/';
        i += separator.size();
      } else {
        out += text[i++];
      }
    }
  }
  return out;
}

StartedProcess StartWindowsTool(const std::string& exe, const std::vector<std::string>& args) {
  std::vector<std::string> wine_args = {exe};
  for (const std::string& arg : args) wine_args.push_back(ToWineArgument(arg));
  return StartProcess(TESSERA_SOURCE_DIR "/scripts/windows/wine-run.sh", wine_args);
}

}  // namespace

ProcessResult RunToolCopy(const std::string& path, const std::vector<std::string>& args) {
  if (!ToolUnderWine()) return RunProcess(path, args);
  ProcessResult result = StartWindowsTool(path, args).Wait();
  result.out = FromWinePaths(result.out, true);
  result.err = FromWinePaths(result.err, false);
  return result;
}

ProcessResult RunTool(const std::vector<std::string>& args) { return RunToolCopy(ToolPath(), args); }

ProcessResult RunBuiltTool(const std::vector<std::string>& args) { return RunProcess(TESSERA_TOOL_PATH, args); }

std::string ToolCopyName() { return ToolUnderWine() ? "thumbnail-tool.exe" : "thumbnail-tool"; }

std::string ModuleFileName(const std::string& stem) {
  return ToolUnderWine() ? stem + ".dll" : "lib" + stem + ".so";
}

StartedProcess StartTool(const std::vector<std::string>& args) {
  const char* exe = WindowsTool();
  return exe == nullptr ? StartProcess(ToolPath(), args) : StartWindowsTool(exe, args);
}

const char* ToolPath() {
  const char* exe = WindowsTool();
  return exe != nullptr ? exe : TESSERA_TOOL_PATH;
}

bool ToolUnderWine() { return WindowsTool() != nullptr; }

}  // namespace testing
}  // namespace tessera
