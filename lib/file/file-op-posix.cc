// File operations on POSIX: lstat, opendir, unlink and rmdir on UTF-8 paths.
//
// The log texts are the ones the Windows layer writes, so that logs read the
// same on every platform; the codes are errno values here.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "lib/file/file-op.h"
#include "lib/file/file-op-platform.h"
#include "lib/log/log.h"

namespace tessera {
namespace file {
namespace {

constexpr char kComponent[] = "file_op_debug";

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};
using ScopedDir = std::unique_ptr<DIR, DirCloser>;

struct FreeDeleter {
  void operator()(char* p) const { free(p); }
};

bool IsNotFound(int error) { return error == ENOENT || error == ENOTDIR; }

// The path without trailing slashes ("/" stays "/"). A trailing slash would
// make the kernel resolve a final symbolic link, and every operation here
// must see the link itself.
std::string StripTrailingSlashes(const std::string& path) {
  size_t end = path.size();
  while (end > 1 && path[end - 1] == '/') --end;
  return path.substr(0, end);
}

// Splits a path without trailing slashes into its parent directory and last
// component: "a/b" -> ("a", "b"), "b" -> (".", "b"), "/b" -> ("/", "b").
void SplitPath(const std::string& path, std::string* parent, std::string* name) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) {
    *parent = ".";
    *name = path;
    return;
  }
  *name = path.substr(slash + 1);
  size_t end = slash;
  while (end > 0 && path[end - 1] == '/') --end;
  *parent = end == 0 ? "/" : path.substr(0, end);
}

bool IsDotOrDotDot(const std::string& name) { return name == "." || name == ".."; }

// Whether the parent directory lists an entry stored exactly as name. When
// the directory cannot be read, the lstat that already succeeded is trusted.
bool ParentListsExactName(const std::string& parent, const std::string& name) {
  ScopedDir dir(opendir(parent.c_str()));
  if (!dir) return true;
  while (const dirent* entry = readdir(dir.get())) {
    if (name == entry->d_name) return true;
  }
  return false;
}

// The full stored form: the parent directory made absolute and canonical
// (symbolic links among the directories resolved), joined with the last
// component as given, so that a final symbolic link is named, not followed.
// On failure the path stays as it is.
std::string FullStoredPath(const std::string& path) {
  LOG_DEBUG(kComponent, "Org path [%s]", path.c_str());
  if (path.empty()) return path;
  std::string stripped = StripTrailingSlashes(path);
  std::string parent;
  std::string name;
  SplitPath(stripped, &parent, &name);
  // "/", "." and ".." name directories: canonicalise them whole.
  const bool whole = name.empty() || IsDotOrDotDot(name) || stripped == "/";
  const std::string& looked_up = whole ? stripped : parent;
  std::unique_ptr<char, FreeDeleter> resolved(realpath(looked_up.c_str(), nullptr));
  if (!resolved) {
    // The same text as the Windows lookup, whatever the code.
    LOG_ERROR(kComponent, "FindFirstFile: %d [%s, %s]", errno, path.c_str(), looked_up.c_str());
    return path;
  }
  std::string result = resolved.get();
  if (!whole) {
    if (result.back() != '/') result += '/';
    result += name;
  }
  LOG_DEBUG(kComponent, "Get full path [%s].", result.c_str());
  return result;
}

std::string LastComponent(const std::string& path) {
  std::string stripped = StripTrailingSlashes(path);
  if (stripped == "/") return stripped;
  size_t slash = stripped.rfind('/');
  return slash == std::string::npos ? stripped : stripped.substr(slash + 1);
}

// Nesting bound of a tree walk: each level holds one open directory and a
// stack frame, so a hostile, absurdly deep tree ends in an error, not a crash.
constexpr int kMaxTreeDepth = 1024;

int RemoveTreeAt(int parent_fd, const char* name, int depth);

// Deletes every entry of the open directory dir_fd (which it takes over).
// Returns -1 when an entry other than a subdirectory could not be deleted; a
// subdirectory that stays behind shows up when its parent is removed.
int EmptyDirectory(int dir_fd, int depth) {
  ScopedDir dir(fdopendir(dir_fd));
  if (!dir) {
    LOG_ERROR(kComponent, "RemoveDirectoryRecursive: error code %d", errno);
    close(dir_fd);
    return -1;
  }
  int result = 0;
  while (true) {
    errno = 0;
    const dirent* entry = readdir(dir.get());
    if (entry == nullptr) {
      if (errno != 0) {
        LOG_ERROR(kComponent, "RemoveDirectoryRecursive: error code %d", errno);
        result = -1;
      }
      break;
    }
    const char* name = entry->d_name;
    if (IsDotOrDotDot(name)) continue;
    bool is_directory = entry->d_type == DT_DIR;
    if (entry->d_type == DT_UNKNOWN) {
      struct stat st;
      is_directory = fstatat(dirfd(dir.get()), name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(st.st_mode);
    }
    if (is_directory) {
      RemoveTreeAt(dirfd(dir.get()), name, depth + 1);
    } else if (unlinkat(dirfd(dir.get()), name, 0) != 0 && !IsNotFound(errno)) {
      // Symbolic links land here too: the link goes, its target stays.
      LOG_ERROR(kComponent, "DeleteFile: error code %d", errno);
      result = -1;
    }
  }
  return result;
}

// Removes the subdirectory name of parent_fd with everything in it. Works on
// descriptors, so that a directory swapped for a link during the walk is
// never followed into another tree.
int RemoveTreeAt(int parent_fd, const char* name, int depth) {
  if (depth > kMaxTreeDepth) {
    LOG_ERROR(kComponent, "RemoveDirectoryRecursive: error code %d", ELOOP);
    return -1;
  }
  int fd = openat(parent_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    int error = errno;
    if (error == ENOENT) return 0;
    if (error == ENOTDIR || error == ELOOP) {
      // Replaced by a file or a link since it was listed: delete it as such.
      if (unlinkat(parent_fd, name, 0) == 0 || IsNotFound(errno)) return 0;
      error = errno;
    }
    LOG_ERROR(kComponent, "RemoveDirectoryRecursive: error code %d", error);
    return -1;
  }
  int result = EmptyDirectory(fd, depth);
  if (unlinkat(parent_fd, name, AT_REMOVEDIR) != 0 && !IsNotFound(errno)) {
    LOG_ERROR(kComponent, "RemoveDirectory: error code %d", errno);
    return -1;
  }
  return result;
}

}  // namespace

std::string ToNativePath(const std::string& path) { return path; }

int FSIdentifyRegularFile(const std::string& path, std::string* identity) {
  struct stat info;
  if (stat(path.c_str(), &info) != 0) return IsNotFound(errno) ? -ENOENT : -EINVAL;
  if (!S_ISREG(info.st_mode)) return -EINVAL;
  char text[160];
  std::snprintf(text, sizeof(text), "%llu:%llu:%lld:%lld.%09ld:%lld.%09ld",
                static_cast<unsigned long long>(info.st_dev), static_cast<unsigned long long>(info.st_ino),
                static_cast<long long>(info.st_size), static_cast<long long>(info.st_mtim.tv_sec),
                info.st_mtim.tv_nsec, static_cast<long long>(info.st_ctim.tv_sec), info.st_ctim.tv_nsec);
  *identity = text;
  return 0;
}

bool FSExists(const std::string& path, bool exact_case) {
  if (path.empty()) return false;
  std::string stripped = StripTrailingSlashes(path);
  struct stat st;
  if (lstat(stripped.c_str(), &st) != 0) {
    int error = errno;
    if (!IsNotFound(error)) {
      LOG_ERROR(kComponent, "FindFirstFile: %d [%s, %s]", error, path.c_str(), stripped.c_str());
    }
    return false;
  }
  if (!exact_case) return true;
  std::string parent;
  std::string name;
  SplitPath(stripped, &parent, &name);
  if (name.empty() || IsDotOrDotDot(name)) return true;
  return ParentListsExactName(parent, name);
}

int FSStat(const std::string& path, FSStatInfo* st, bool exact_case) {
  if (st == nullptr) return -1;
  if (!FSExists(path, exact_case)) {
    st->isExist = false;
    return 0;
  }
  struct stat info;
  if (lstat(StripTrailingSlashes(path).c_str(), &info) != 0) {
    int error = errno;
    if (IsNotFound(error)) {
      st->isExist = false;
      return 0;
    }
    LOG_ERROR(kComponent, "FSStat: Failed on %s. Error code %d", path.c_str(), error);
    return -1;
  }
  st->isExist = true;
  st->path = FullStoredPath(path);
  st->name = LastComponent(st->path);
  st->dev_id = static_cast<uint64_t>(info.st_dev);
  st->mtime = static_cast<uint32_t>(info.st_mtime);
  st->uid = static_cast<uint32_t>(info.st_uid);
  st->gid = static_cast<uint32_t>(info.st_gid);
  st->mode = static_cast<uint32_t>(info.st_mode);
  // A directory has no size of its own; the block size the kernel reports
  // for it says nothing about its contents.
  st->size = S_ISDIR(info.st_mode) ? 0 : static_cast<uint64_t>(info.st_size);
  if (S_ISLNK(info.st_mode)) {
    LOG_ERROR(kComponent, "FSStat (%s): is symlink", path.c_str());
    st->type = kSymlink;
  } else if (S_ISDIR(info.st_mode)) {
    st->type = kDirectory;
  } else if (S_ISREG(info.st_mode)) {
    st->type = kRegular;
  } else {
    st->type = kDevice;
  }
  return 0;
}

namespace platform {

int DeleteRegularFile(const std::string& path) {
  if (unlink(StripTrailingSlashes(path).c_str()) != 0) {
    int error = errno;
    if (IsNotFound(error)) return 0;
    LOG_ERROR(kComponent, "Failed to delete file on %s. error code %d", path.c_str(), error);
    return -1;
  }
  return 0;
}

bool OpenForWriting(const std::string& path, int* descriptor) {
  // O_NOFOLLOW: a link at the name, dangling or not, fails with ELOOP rather
  // than creating or opening its target. No O_TRUNC: a hard link to a file
  // elsewhere would be emptied before it could be looked at; the file is
  // emptied below, once it is known to be ours to empty. O_NONBLOCK: a FIFO
  // without a reader fails at once (ENXIO) instead of blocking the open.
  // Created with the permissions fopen(..., "w") gives: 0666 less the umask.
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  struct stat st;
  int error = 0;
  if (fstat(fd, &st) != 0) {
    error = errno;
  } else if (!S_ISREG(st.st_mode)) {
    error = EINVAL;  // a FIFO with a reader, a device
  } else if (st.st_nlink > 1) {
    error = EMLINK;  // also reachable from elsewhere
  } else if (ftruncate(fd, 0) != 0) {
    error = errno;
  } else {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) error = errno;
  }
  if (error != 0) {
    close(fd);
    errno = error;
    return false;
  }
  *descriptor = fd;
  return true;
}

bool WriteAll(const std::string& /*path*/, int descriptor, const void* data, size_t size) {
  if (descriptor < 0) {
    errno = EBADF;
    return false;
  }
  if (ftruncate(descriptor, 0) != 0) return false;
  const auto* bytes = static_cast<const uint8_t*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t written = pwrite(descriptor, bytes + done, size - done, static_cast<off_t>(done));
    if (written < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    done += static_cast<size_t>(written);
  }
  return true;
}

void CloseDescriptor(int descriptor) { close(descriptor); }

bool NamesDescriptor(const std::string& path, int descriptor) {
  struct stat named;
  struct stat held;
  if (lstat(path.c_str(), &named) != 0 || fstat(descriptor, &held) != 0) return false;
  return named.st_dev == held.st_dev && named.st_ino == held.st_ino;
}

}  // namespace platform

int RemoveDirectoryRecursive(const std::string& dir) {
  std::string stripped = StripTrailingSlashes(dir);
  // O_NOFOLLOW: a link to a directory is not a directory to empty.
  // A directory that cannot be opened, a missing one included, is a failure
  // here: FSRemove only comes this way for a directory it has just seen.
  int fd = open(stripped.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    LOG_ERROR(kComponent, "RemoveDirectoryRecursive: error code %d", errno);
    return -1;
  }
  int result = EmptyDirectory(fd, 0);
  if (rmdir(stripped.c_str()) != 0 && errno != ENOENT) {
    LOG_ERROR(kComponent, "RemoveDirectory: error code %d", errno);
    return -1;
  }
  return result;
}

}  // namespace file
}  // namespace tessera
