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

// Runs `program` (looked up in PATH when it has no slash) with `args`
// (argv[1..]) and waits for it. Standard input is
// /dev/null. A program that cannot be started gives exited == false and
// status -1.
ProcessResult RunProcess(const std::string& program, const std::vector<std::string>& args);

// The thumbnail tool of this build, and its path (the modules it loads on
// demand are beside it).
ProcessResult RunTool(const std::vector<std::string>& args);
const char* ToolPath();

}  // namespace testing
}  // namespace tessera

#endif  // TESSERA_TESTS_TOOL_RUNNER_H_
