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

// Creates `path` as an empty file, or empties the regular file that is
// there, by the rules of FSOpenForWriting; whether that worked (errno says
// why not). On POSIX *descriptor receives the open descriptor; the Windows
// layer closes the file again and sets -1. Nothing is logged.
bool OpenForWriting(const std::string& path, int* descriptor);

// Replaces the content of the file open as `descriptor` (POSIX) or, with
// -1, of the existing file at `path` (Windows) with `size` bytes at `data`;
// whether that worked (errno says why not).
bool WriteAll(const std::string& path, int descriptor, const void* data, size_t size);

// Closes a descriptor that OpenForWriting handed out.
void CloseDescriptor(int descriptor);

// Whether `path` (not followed if it is a link) is the file open as
// `descriptor`.
bool NamesDescriptor(const std::string& path, int descriptor);

}  // namespace platform
}  // namespace file
}  // namespace tessera

#endif  // TESSERA_LIB_FILE_FILE_OP_PLATFORM_H_
