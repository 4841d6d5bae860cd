// Termination handling on POSIX: handlers for SIGTERM, SIGINT and SIGHUP
// that remove the unreported files and then let the signal end the process.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include "lib/file/unreported-files.h"
#include "lib/file/unreported-files-platform.h"

namespace tessera {
namespace file {
namespace platform {

bool IsPathSeparator(char c) { return c == '/'; }

void DeleteOnTermination(const char* path) { unlink(path); }

void PauseBriefly() {
  struct timespec pause = {0, 1000000};
  nanosleep(&pause, nullptr);
}

}  // namespace platform

namespace {

constexpr int kTerminationSignals[] = {SIGTERM, SIGINT, SIGHUP};

// Async-signal-safe throughout: atomics, unlink, nanosleep, sigaction, raise.
void OnTermination(int signal_number) {
  RemoveUnreportedFiles();
  // End by the signal itself, so that the parent sees the real cause. The
  // handler runs with SA_NODEFER, so the signal is not blocked here and the
  // raise takes effect at once. A second signal that arrived meanwhile ran
  // this handler again (nested, or on another thread), which also removes
  // every file before it raises.
  struct sigaction default_action = {};
  default_action.sa_handler = SIG_DFL;
  sigemptyset(&default_action.sa_mask);
  sigaction(signal_number, &default_action, nullptr);
  raise(signal_number);
}

}  // namespace

void RemoveUnreportedFilesOnTermination() {
  for (int signal_number : kTerminationSignals) {
    // A signal the process was started with ignored (nohup, a background
    // job of a shell) stays ignored, as the starter asked.
    struct sigaction previous = {};
    if (sigaction(signal_number, nullptr, &previous) == 0 && previous.sa_handler == SIG_IGN) continue;
    struct sigaction action = {};
    action.sa_handler = &OnTermination;
    // The other termination signals wait while this one removes the files.
    sigemptyset(&action.sa_mask);
    for (int other : kTerminationSignals) {
      if (other != signal_number) sigaddset(&action.sa_mask, other);
    }
    action.sa_flags = SA_NODEFER | SA_RESTART;
    sigaction(signal_number, &action, nullptr);
  }
}

}  // namespace file
}  // namespace tessera
