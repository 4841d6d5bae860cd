// Runs a program with arguments and captures what it writes and how it
// ends, for end-to-end tests of the tool.
#ifndef TESSERA_TESTS_TOOL_RUNNER_H_
#define TESSERA_TESTS_TOOL_RUNNER_H_

#include <string>
#include <vector>

namespace tessera {
namespace testing {

struct ProcessResult {
  std::string out;  // standard output, whole
  std::string err;  // standard error, whole
  bool exited = false;  // ended by exit (not by a signal)
  int status = -1;      // the exit status when exited, else the signal number
  long peak_rss_kib = 0;  // the largest resident size the process reached
};

// A program started and not yet waited for. Move-only.
class StartedProcess {
 public:
  StartedProcess() = default;
  StartedProcess(StartedProcess&& other) noexcept;
  StartedProcess& operator=(StartedProcess&& other) = delete;
  ~StartedProcess();  // waits for a program that was not waited for

  bool started() const { return pid_ > 0; }
  // Sends `signal_number` to the program; false once it was waited for.
  bool Signal(int signal_number);
  // Reads what the program writes until it ends, and how it ended. Once.
  ProcessResult Wait();

 private:
  friend StartedProcess StartProcess(const std::string& program, const std::vector<std::string>& args);
  int pid_ = -1;
  int out_fd_ = -1;
  int err_fd_ = -1;
};

// Starts `program` (looked up in PATH when it has no slash) with `args`
// (argv[1..]). Standard input is /dev/null; SIGTERM, SIGINT and SIGHUP are
// at their default actions whatever this process does with them. A program
// that cannot be started gives started() == false, and Wait() then gives
// exited == false and status -1.
StartedProcess StartProcess(const std::string& program, const std::vector<std::string>& args);

// Starts `program` like StartProcess and waits for it.
ProcessResult RunProcess(const std::string& program, const std::vector<std::string>& args);

// The thumbnail tool of this build, and its path (the modules it loads on
// demand are beside it).
ProcessResult RunTool(const std::vector<std::string>& args);
StartedProcess StartTool(const std::vector<std::string>& args);
const char* ToolPath();

}  // namespace testing
}  // namespace tessera

#endif  // TESSERA_TESTS_TOOL_RUNNER_H_
