// The operating-system primitives under the logger. log.cc holds the logic
// (state, thresholds, size accounting, rotation order) and calls only these;
// each platform file (log-posix.cc, and on Windows its own file) defines them
// together with ProcessId() and ThreadId() of log.h.
//
// Paths are UTF-8; a platform that names files in UTF-16 converts them here.
// Internal to lib/log: no other library includes this header.
#ifndef TESSERA_LIB_LOG_LOG_PLATFORM_H_
#define TESSERA_LIB_LOG_LOG_PLATFORM_H_

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>

namespace tessera {
namespace log {
namespace internal {

// Opens `path` for appending UTF-8 text, creating it when missing. The handle
// is not inherited by child processes. Returns nullptr on failure; the caller
// owns the stream and closes it with fclose.
FILE* OpenForAppend(const std::string& path);

// Opens `path` for reading text. Returns nullptr on failure; the caller owns
// the stream.
FILE* OpenForReading(const std::string& path);

// Renames `from` to `to` but never replaces an existing `to`. Returns false
// (and changes nothing) when `to` exists or the rename fails otherwise.
bool RenameNoReplace(const std::string& from, const std::string& to);

// Deletes the file `path`. Returns false when it could not be deleted.
bool RemoveFile(const std::string& path);

// Which step of FileSize failed.
enum class FileSizeStep { kNone, kOpen, kQuery };

// The size of `path` in bytes, creating an empty file when it is missing.
// On failure returns the failing step, stores the OS error code in
// *error_code and leaves *size untouched.
FileSizeStep FileSize(const std::string& path, uint64_t* size, long* error_code);

// Writes the current local time as "%Y-%m-%dT%H:%M:%S " (with the trailing
// blank) into buffer, always NUL-terminated.
void FormatTimeStamp(char* buffer, size_t buffer_size);

// Prints UTF-8 text, or a UTF-8 printf format with its arguments, to stream.
// Returns the number of characters printed, negative on an output error.
int PrintText(FILE* stream, const char* text);
int VPrintFormat(FILE* stream, const char* format, va_list args);

// Holds the stream's own lock so that a time stamp and its message stay
// together on one line. Recursive with the runtime's per-call locking.
void LockStream(FILE* stream);
void UnlockStream(FILE* stream);

}  // namespace internal
}  // namespace log
}  // namespace tessera

#endif  // TESSERA_LIB_LOG_LOG_PLATFORM_H_
