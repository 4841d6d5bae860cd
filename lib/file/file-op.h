// File operations on narrow UTF-8 paths.
//
// Every operation reports failure by a negative return value and one log line
// under "file_op_debug"; none throws. "Not found" is never an error: it means
// the path is absent. One implementation per platform (file-op-posix.cc,
// file-op-win.cc); ToLongPath and the text form of FSStatInfo are portable.
//
// Thread-safety: no state between calls; callable from any thread.
#ifndef TESSERA_LIB_FILE_FILE_OP_H_
#define TESSERA_LIB_FILE_FILE_OP_H_

#include <cstdint>
#include <string>

namespace tessera {
namespace file {

// Type codes of FSStatInfo::type.
enum FileType : int {
  kDevice = 0,     // devices, FIFOs, sockets
  kRegular = 1,
  kDirectory = 2,
  kSymlink = 3,
};

struct FSStatInfo {
  std::string path;   // the path in its full stored form
  std::string name;   // last component
  int type = 0;
  uint32_t mtime = 0;  // seconds since 1970-01-01 UTC
  uint64_t size = 0;
  bool isExist = false;  // false: the path does not exist, other fields unset
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t mode = 0;
  uint64_t dev_id = 0;

  // One line: {"name": "...", "path": "...", "type": 1, ...} in the order
  // name, path, type, mtime, size, isExist, uid, gid, mode, dev_id.
  std::string ToString() const;
};

// Long-path form: "\\?\" prefixed to paths of 4 bytes or more that lack it,
// then every '/' turned into '\'. Pure string logic.
std::string ToLongPath(const std::string& path);

// The path as the platform's own file functions are to be given it, in
// UTF-8: on Windows made absolute (against the current directory) and in
// long-path form, so that it may exceed MAX_PATH; unchanged on POSIX.
std::string ToNativePath(const std::string& path);

// Identifies the regular file that `path` leads to (links followed), for
// caches keyed by content: *identity receives its device and file id, size
// and modification and change times as text, so that another file at the
// path, or this one changed, gives another identity. 0; -ENOENT when nothing
// is there; -EINVAL when it is no regular file. Nothing is logged.
int FSIdentifyRegularFile(const std::string& path, std::string* identity);

// Whether the path exists; with exact_case the stored name of the last
// component must match byte for byte.
bool FSExists(const std::string& path, bool exact_case);

// Fills *st. Returns 0 (also for a missing path: st->isExist false) or -1.
// A symbolic link is reported as itself (type 3), not as its target.
int FSStat(const std::string& path, FSStatInfo* st, bool exact_case);

// Deletes a regular file, or a directory tree. 0 on success or when nothing
// exists there; -1 on failure, for an empty path, and for devices and
// symbolic links (which are left alone).
int FSRemove(const std::string& path);

// Deletes a directory and everything in it. 0, or -1 when anything could not
// be deleted (the walk goes on past failures).
int RemoveDirectoryRecursive(const std::string& dir);

// A file this process opened for writing and holds on to, so that what is
// written goes into that very file whatever later happens to its name: a
// name swapped for a link then leads nowhere. Move-only; the handle is
// closed when the object goes away. On POSIX it holds the descriptor the
// file was opened with; the Windows layer keeps none (is_open() is false)
// and writers there go through the path, the only way its encoders write.
// Not thread-safe: one owner at a time.
class OpenFile {
 public:
  OpenFile() = default;
  // Takes `descriptor` over; -1 makes an object that holds nothing.
  explicit OpenFile(int descriptor) : descriptor_(descriptor) {}
  OpenFile(OpenFile&& other) noexcept;
  OpenFile& operator=(OpenFile&& other) noexcept;
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  ~OpenFile() { Close(); }

  bool is_open() const { return descriptor_ >= 0; }
  // The POSIX descriptor, still owned by this object; -1 when none is held.
  int descriptor() const { return descriptor_; }
  void Close();

 private:
  int descriptor_ = -1;
};

// Opens `path` for writing, creating it or emptying the regular file that is
// there (fopen's "w"), but never through a link: a symbolic link at the path
// (dangling or not), anything but a regular file, and a file with more than
// one hard link are refused, and nothing is created, emptied or written
// anywhere else; a FIFO at the path fails at once instead of blocking.
// 0 with *file holding the open file, or -1 (errno says why; nothing is
// logged). A call made after the process began to remove its unreported
// files on termination (unreported-files.h) creates nothing and fails.
// Thread-safe.
int FSOpenForWriting(const std::string& path, OpenFile* file);

// Replaces what the file holds with the `size` bytes at `data`: the file
// `file` holds open is emptied and written from its start; where the
// platform keeps no handle (Windows), the existing file at `path` is. 0, or
// -1 (errno says why; nothing is logged). Writes into one file must not
// overlap.
int FSWriteOpenFile(const std::string& path, const OpenFile& file, const void* data, size_t size);

// Whether `path` still names the file that `file` holds open: false when the
// name is gone or now names something else, such as a link put in its place.
// True when nothing is held (there is nothing to compare). Thread-safe.
bool FSNamesOpenFile(const std::string& path, const OpenFile& file);

// The prefix, "/" and eight random characters of the 64-character name
// alphabet; touches nothing on disk. Thread-safe.
std::string RandomPath(const std::string& prefix);

// Creates (or truncates) a file named RandomPath(prefix), by the rules of
// FSOpenForWriting. 0 with *path set to it, or -1 with *path unchanged. The
// path is registered as an unreported file (unreported-files.h) before the
// file is made, so that a termination signal removes it from then on; the
// caller forgets it once it has removed the file or handed its name on. With
// `file`, the file is handed back open (on POSIX) instead of being closed.
int FSMktemp(const std::string& prefix, std::string* path);
int FSMktemp(const std::string& prefix, std::string* path, OpenFile* file);

}  // namespace file
}  // namespace tessera

#endif  // TESSERA_LIB_FILE_FILE_OP_H_
