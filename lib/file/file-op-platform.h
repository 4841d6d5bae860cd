// The primitives each platform file (file-op-posix.cc, file-op-win.cc)
// provides to the portable operations in file-op.cc. Internal to the file
// layer. Both are thread-safe as far as the file system is.
#ifndef TESSERA_LIB_FILE_FILE_OP_PLATFORM_H_
#define TESSERA_LIB_FILE_FILE_OP_PLATFORM_H_

#include <string>

namespace tessera {
namespace file {
namespace platform {

// Deletes the regular file `path` (not a link or a directory); 0, or -1
// after an ERROR line. On POSIX a file that is already gone counts as
// deleted.
int DeleteRegularFile(const std::string& path);

// Creates `path` as an empty file, emptying one that is there; whether that
// worked. Nothing is logged.
bool CreateEmptyFile(const std::string& path);

}  // namespace platform
}  // namespace file
}  // namespace tessera

#endif  // TESSERA_LIB_FILE_FILE_OP_PLATFORM_H_
