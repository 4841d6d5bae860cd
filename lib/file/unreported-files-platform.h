// The primitives each platform file (unreported-files-posix.cc,
// unreported-files-win.cc) provides to the portable registry in
// unreported-files.cc. Internal to the file layer.
#ifndef TESSERA_LIB_FILE_UNREPORTED_FILES_PLATFORM_H_
#define TESSERA_LIB_FILE_UNREPORTED_FILES_PLATFORM_H_

namespace tessera {
namespace file {
namespace platform {

// Whether `c` separates path components.
bool IsPathSeparator(char c);

// Deletes the file `path` names (a link itself, never its target); a failure
// is ignored. Async-signal-safe on POSIX.
void DeleteOnTermination(const char* path);

// Sleeps about a millisecond. Async-signal-safe on POSIX.
void PauseBriefly();

}  // namespace platform
}  // namespace file
}  // namespace tessera

#endif  // TESSERA_LIB_FILE_UNREPORTED_FILES_PLATFORM_H_
