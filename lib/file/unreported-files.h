// The files this process has made and not yet handed to its caller, and
// their removal when the process is told to terminate.
//
// A run creates its output files (and a video's frame file) long before it
// prints the report that names them. If it is stopped in between, nobody
// would ever learn those names, so the files must go with the process: on
// SIGTERM, SIGINT or SIGHUP (on Windows: Ctrl+C, Ctrl+Break, closing the
// console, logoff and shutdown) every file still registered here is removed
// before the process ends by that same signal.
//
// The registry is a fixed table written only through atomics, so that a
// signal handler can walk it without taking a lock or allocating: a path is
// published whole before the file exists, and a slot being reused while the
// handler reads it is recognised and skipped. Registering and forgetting are
// thread-safe; the table lives for the whole process and is never destroyed.
//
// Each copy of the file layer has a table of its own. Only the executable's
// code creates files; the codec modules, which carry their own copies, never
// do.
#ifndef TESSERA_LIB_FILE_UNREPORTED_FILES_H_
#define TESSERA_LIB_FILE_UNREPORTED_FILES_H_

#include <cstddef>
#include <string>

namespace tessera {
namespace file {

// Capacity of the table, and the longest path it holds (in bytes, without
// the terminating NUL; longer paths cannot be opened anyway).
constexpr int kMaxUnreportedFiles = 128;
constexpr size_t kMaxUnreportedPathBytes = 4095;

// Records `path` as a file of this process that its caller has not yet been
// told about. Register before creating the file, so that there is no moment
// when the file exists and a termination would leave it behind. The same
// path may be registered more than once; each registration is forgotten on
// its own. False, and nothing recorded, for an empty or overlong path or a
// full table: the file then outlives a termination.
bool RegisterUnreportedFile(const std::string& path);

// Forgets one registration of `path`: its file was removed, or its name was
// handed on (printed in the report and flushed). Paths are compared as the
// platform reads them: byte for byte on POSIX; on Windows '/' and '\' are
// the same separator, so a report path in either spelling matches.
// Unknown paths are ignored.
void ForgetUnreportedFile(const std::string& path);

// Whether `path` is registered (compared as above).
bool IsUnreportedFile(const std::string& path);

// Removes every registered file, without following links, and keeps any new
// file from being created by FSOpenForWriting or FSMktemp from then on. A
// creation already under way is waited for (up to half a second), so that a
// file appearing in the meantime goes too. Async-signal-safe: the
// termination handlers call it; after it, the process is meant to end.
void RemoveUnreportedFiles();

// Installs the termination handlers: on SIGTERM, SIGINT or SIGHUP,
// RemoveUnreportedFiles, then the signal's default action, so that the
// process ends by that very signal and whoever started it sees why. On
// Windows, a console control handler that removes the files and lets the
// default handler end the process. Call once, early in main, before any
// file is created; not thread-safe.
void RemoveUnreportedFilesOnTermination();

// Held by the file layer while it creates a file: a termination that begins
// meanwhile waits for the creation to end, and once termination has begun
// no creation is allowed to start. Internal to lib/file.
class ScopedFileCreation {
 public:
  ScopedFileCreation();
  ~ScopedFileCreation();
  ScopedFileCreation(const ScopedFileCreation&) = delete;
  ScopedFileCreation& operator=(const ScopedFileCreation&) = delete;

  // False once the process is removing its files: create nothing.
  bool allowed() const { return allowed_; }

 private:
  bool allowed_;
};

}  // namespace file
}  // namespace tessera

#endif  // TESSERA_LIB_FILE_UNREPORTED_FILES_H_
