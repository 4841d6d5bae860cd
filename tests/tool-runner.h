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
//
// With TESSERA_WINDOWS_TOOL set in the environment, the tool is instead the
// Windows build named there, run under Wine (scripts/windows/wine-run.sh):
// every argument that is a path of this machine (or an option's inline value
// that is one) is handed over as the same path on Wine's Z: drive, and the
// Z: paths in what the tool prints are turned back into this machine's, so
// that a test's expectations hold for both builds. Tests that check what has
// no meaning there (signals, links, FIFOs, the modules' files, memory peaks)
// skip those checks when ToolUnderWine().
ProcessResult RunTool(const std::vector<std::string>& args);
StartedProcess StartTool(const std::vector<std::string>& args);
const char* ToolPath();
bool ToolUnderWine();

// Runs this build's own tool, whatever TESSERA_WINDOWS_TOOL says (for
// comparisons of the two).
ProcessResult RunBuiltTool(const std::vector<std::string>& args);

// Runs a copy of the tool at `path` (made from ToolPath(), named as
// ToolCopyName() says) as RunTool runs the tool itself.
ProcessResult RunToolCopy(const std::string& path, const std::vector<std::string>& args);
// The file names of a copy of the tool and of one of its modules (by stem,
// "tessera-tiff"), for the platform of the tool under test.
std::string ToolCopyName();
std::string ModuleFileName(const std::string& stem);

}  // namespace testing
}  // namespace tessera

#endif  // TESSERA_TESTS_TOOL_RUNNER_H_
