// File operations on Windows: the wide Win32 functions on "\\?\" long paths.
//
// Paths arrive as UTF-8 and go to Win32 as UTF-16 in their long form
// (ToLongPath). A long-form path is taken literally by Win32 — no "." or ".."
// processing, no current directory — so a path that is not anchored to a
// drive or a share is first made absolute with GetFullPathNameW; anchored
// paths are passed exactly as given.
#include <windows.h>
#include <io.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "lib/file/file-op.h"
#include "lib/file/file-op-platform.h"
#include "lib/log/log.h"
#include "lib/utility/text-conversion.h"

namespace tessera {
namespace file {
namespace {

constexpr char kComponent[] = "file_op_debug";

// CreateFileW flags: backup semantics (directories can be opened), open the
// reparse point itself, POSIX semantics (exact case).
constexpr DWORD kStatOpenFlags = 0x2300000;
constexpr DWORD kReparseTagSymlink = 0xA000000C;
constexpr DWORD kAttributeDevice = 0x40;
constexpr DWORD kAttributeDirectory = 0x10;
constexpr DWORD kAttributeReparsePoint = 0x400;
// Length of a long-form drive root such as \\?\C:\ .
constexpr size_t kLongDriveRootLength = 7;
// FILETIME of 1970-01-01 in 100-ns ticks since 1601.
constexpr uint64_t kUnixEpochTicks = 116444736000000000ull;
// Nesting bound of a tree walk, so that an absurdly deep tree ends in an
// error and not in a stack overflow.
constexpr int kMaxTreeDepth = 1024;

struct FindCloser {
  void operator()(HANDLE handle) const { FindClose(handle); }
};
using ScopedFind = std::unique_ptr<void, FindCloser>;

struct HandleCloser {
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using ScopedHandle = std::unique_ptr<void, HandleCloser>;

const wchar_t* Wide(const std::u16string& text) { return reinterpret_cast<const wchar_t*>(text.c_str()); }

std::u16string FromWide(const wchar_t* text) { return std::u16string(reinterpret_cast<const char16_t*>(text)); }

bool IsSeparator(char c) { return c == '/' || c == '\\'; }

// "C:\..." or "C:/...", "\\server\share", "\\?\...", "\\.\...".
bool IsAnchored(const std::string& path) {
  if (path.size() >= 3 && path[1] == ':' && IsSeparator(path[2])) return true;
  return path.size() >= 2 && IsSeparator(path[0]) && IsSeparator(path[1]);
}

// The UTF-8 path made absolute when it is not anchored; unchanged otherwise
// and when it cannot be resolved.
std::string Anchored(const std::string& path) {
  if (path.size() < 4 || IsAnchored(path)) return path;
  std::u16string wide = utility::UTF8ToUTF16(path);
  if (wide.empty()) return path;
  DWORD needed = GetFullPathNameW(Wide(wide), 0, nullptr, nullptr);
  if (needed == 0) return path;
  std::vector<wchar_t> buffer(needed + 1);
  DWORD length = GetFullPathNameW(Wide(wide), static_cast<DWORD>(buffer.size()), buffer.data(), nullptr);
  if (length == 0 || length >= buffer.size()) return path;
  std::string absolute = utility::UTF16ToUTF8(std::u16string(reinterpret_cast<const char16_t*>(buffer.data()), length));
  return absolute.empty() ? path : absolute;
}

// The path with each run of separators made one, but for the two that open
// a share or a long-form path. Win32 takes a long-form path literally, and an
// empty component (an output folder given as "C:\out\" and joined with
// "/name") makes it invalid.
std::string WithSingleSeparators(const std::string& path) {
  const size_t kept = path.size() >= 2 && IsSeparator(path[0]) && IsSeparator(path[1]) ? 2 : 0;
  std::string result = path.substr(0, kept);
  for (size_t i = kept; i < path.size(); ++i) {
    if (IsSeparator(path[i]) && result.size() > kept && IsSeparator(result.back())) continue;
    result.push_back(path[i]);
  }
  return result;
}

// The long form handed to Win32, as UTF-8 (for messages) and UTF-16. A path
// that does not convert becomes empty and fails in the call that follows.
struct LongPath {
  explicit LongPath(const std::string& path)
      : text(ToLongPath(WithSingleSeparators(Anchored(path)))), wide(utility::UTF8ToUTF16(text)) {}
  std::string text;
  std::u16string wide;
};

bool IsNotFound(DWORD error) { return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND; }

// The last component: what follows the last '/' or '\'.
std::string LastComponent(const std::string& path) {
  size_t separator = path.find_last_of("/\\");
  return separator == std::string::npos ? path : path.substr(separator + 1);
}

// Wildcards would turn a lookup into a pattern search; no stored name holds
// them, so such a name cannot exist.
bool HasWildcard(const std::string& name) { return name.find_first_of("*?") != std::string::npos; }

uint32_t UnixTime(const FILETIME& time) {
  uint64_t ticks = (static_cast<uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
  return static_cast<uint32_t>((ticks - kUnixEpochTicks) / 10000000ull);
}

// Rewrites *path to the names the file system stores, component by
// component from the last one up to the drive root. Returns 0, or -1 for an
// empty path or when a lookup failed (then *path is left as it was).
int FullStoredPath(std::string* path) {
  LOG_DEBUG(kComponent, "Org path [%s]", path->c_str());
  if (path->empty()) return -1;
  if (path->size() <= 3) {
    for (char& c : *path) {
      if (c == '/') c = '\\';
    }
    return 0;
  }
  LongPath long_path(*path);
  std::u16string current = long_path.wide;
  std::vector<std::u16string> names;  // innermost first
  while (current.size() >= kLongDriveRootLength) {
    WIN32_FIND_DATAW data;
    ScopedFind find(FindFirstFileW(Wide(current), &data));
    if (find.get() == INVALID_HANDLE_VALUE) {
      find.release();
      LOG_ERROR(kComponent, "FindFirstFile: %d [%s, %s]", static_cast<int>(GetLastError()), path->c_str(),
                long_path.text.c_str());
      return -1;
    }
    if (names.size() >= names.max_size()) throw std::length_error("list too long");
    names.push_back(FromWide(data.cFileName));
    size_t separator = current.find_last_of(u'\\');
    if (separator == std::u16string::npos) break;
    current.resize(separator);
  }
  std::u16string full = current;
  for (auto name = names.rbegin(); name != names.rend(); ++name) full += u"\\" + *name;
  static const std::u16string kPrefix = u"\\\\?\\";
  if (full.compare(0, kPrefix.size(), kPrefix) == 0) full.erase(0, kPrefix.size());
  std::string result = utility::UTF16ToUTF8(full);
  if (result.empty()) return -1;
  *path = result;
  LOG_DEBUG(kComponent, "Get full path [%s].", path->c_str());
  return 0;
}

int RemoveTree(const std::string& dir, int depth);

// Deletes a directory entry that is itself a link (symbolic link or junction
// to a directory): the link goes, its target is never entered.
bool RemoveLinkedDirectory(const std::string& path) {
  LongPath long_path(path);
  return RemoveDirectoryW(Wide(long_path.wide)) != 0;
}

int RemoveTree(const std::string& dir, int depth) {
  if (depth > kMaxTreeDepth) {
    LOG_ERROR(kComponent, "RemoveDirectoryRecursive: error code %d", static_cast<int>(ERROR_CANT_RESOLVE_FILENAME));
    return -1;
  }
  LongPath pattern(dir + "/*");
  WIN32_FIND_DATAW data;
  ScopedFind find(FindFirstFileW(Wide(pattern.wide), &data));
  if (find.get() == INVALID_HANDLE_VALUE) {
    find.release();
    LOG_ERROR(kComponent, "RemoveDirectoryRecursive: error code %d", static_cast<int>(GetLastError()));
    return -1;
  }
  int result = 0;
  do {
    std::u16string wide_name = FromWide(data.cFileName);
    if (wide_name == u"." || wide_name == u"..") continue;
    std::string child = dir + "/" + utility::UTF16ToUTF8(wide_name);
    if (data.dwFileAttributes & kAttributeDirectory) {
      if (data.dwFileAttributes & kAttributeReparsePoint) {
        if (!RemoveLinkedDirectory(child)) {
          LOG_ERROR(kComponent, "RemoveDirectory: error code %d", static_cast<int>(GetLastError()));
          result = -1;
        }
      } else {
        RemoveTree(child, depth + 1);
      }
    } else {
      LongPath long_child(child);
      if (!DeleteFileW(Wide(long_child.wide))) {
        LOG_ERROR(kComponent, "DeleteFile: error code %d", static_cast<int>(GetLastError()));
        result = -1;
      }
    }
  } while (FindNextFileW(find.get(), &data));
  find.reset();
  LongPath long_dir(dir);
  if (!RemoveDirectoryW(Wide(long_dir.wide))) {
    LOG_ERROR(kComponent, "RemoveDirectory: error code %d", static_cast<int>(GetLastError()));
    return -1;
  }
  return result;
}

}  // namespace

std::string ToNativePath(const std::string& path) { return LongPath(path).text; }

int FSIdentifyRegularFile(const std::string& path, std::string* identity) {
  LongPath long_path(path);
  // No access asked for: the file's attributes only, whoever has it open.
  ScopedHandle handle(CreateFileW(Wide(long_path.wide), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
  if (handle.get() == INVALID_HANDLE_VALUE) {
    handle.release();
    return IsNotFound(GetLastError()) ? -ENOENT : -EINVAL;
  }
  BY_HANDLE_FILE_INFORMATION info;
  if (GetFileType(handle.get()) != FILE_TYPE_DISK || !GetFileInformationByHandle(handle.get(), &info) ||
      (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    return -EINVAL;
  }
  char text[160];
  std::snprintf(text, sizeof(text), "%lu:%lu.%lu:%lu.%lu:%lu.%lu", info.dwVolumeSerialNumber, info.nFileIndexHigh,
                info.nFileIndexLow, info.nFileSizeHigh, info.nFileSizeLow, info.ftLastWriteTime.dwHighDateTime,
                info.ftLastWriteTime.dwLowDateTime);
  *identity = text;
  return 0;
}

bool FSExists(const std::string& path, bool exact_case) {
  if (path.empty()) return false;
  // A drive root ("C:", "C:\\") has no stored name to compare; a one-byte
  // name is a name like any other.
  if (path.size() == 2 || path.size() == 3) {
    std::u16string drive = utility::UTF8ToUTF16(ToLongPath(path));
    return GetFileAttributesW(Wide(drive)) != INVALID_FILE_ATTRIBUTES;
  }
  const std::string last = LastComponent(path);
  if (HasWildcard(last)) return false;
  LongPath long_path(path);
  WIN32_FIND_DATAW data;
  ScopedFind find(FindFirstFileW(Wide(long_path.wide), &data));
  if (find.get() == INVALID_HANDLE_VALUE) {
    find.release();
    DWORD error = GetLastError();
    if (!IsNotFound(error)) {
      LOG_ERROR(kComponent, "FindFirstFile: %d [%s, %s]", static_cast<int>(error), path.c_str(),
                long_path.text.c_str());
    }
    return false;
  }
  find.reset();
  if (!exact_case) return true;
  return utility::UTF16ToUTF8(FromWide(data.cFileName)) == last;
}

int FSStat(const std::string& path, FSStatInfo* st, bool exact_case) {
  if (st == nullptr) return -1;
  if (!FSExists(path, exact_case)) {
    st->isExist = false;
    return 0;
  }
  LongPath long_path(path);
  const DWORD share = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  ScopedHandle handle(CreateFileW(Wide(long_path.wide), 0, share, nullptr, OPEN_EXISTING, kStatOpenFlags, nullptr));
  DWORD error = handle.get() == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS;
  if (IsNotFound(error)) {
    // POSIX semantics make the open case-sensitive where the system honours
    // them (Windows ignores them by default); the lookup above found the
    // path without regard to case, so open it that way too.
    handle.release();
    handle.reset(CreateFileW(Wide(long_path.wide), 0, share, nullptr, OPEN_EXISTING,
                             kStatOpenFlags & ~static_cast<DWORD>(FILE_FLAG_POSIX_SEMANTICS), nullptr));
    error = handle.get() == INVALID_HANDLE_VALUE ? GetLastError() : ERROR_SUCCESS;
  }
  if (handle.get() == INVALID_HANDLE_VALUE) {
    handle.release();
    if (IsNotFound(error)) {
      st->isExist = false;
      return 0;
    }
    LOG_ERROR(kComponent, "FSStat: Failed on %s. Error code %d", path.c_str(), static_cast<int>(error));
    return -1;
  }
  BY_HANDLE_FILE_INFORMATION info;
  if (!GetFileInformationByHandle(handle.get(), &info)) {
    LOG_ERROR(kComponent, "FSStat (%s): error code %d", path.c_str(), static_cast<int>(GetLastError()));
    return -1;
  }
  DWORD reparse_tag = 0;
  if (info.dwFileAttributes & kAttributeReparsePoint) {
    FILE_ATTRIBUTE_TAG_INFO tag;
    if (!GetFileInformationByHandleEx(handle.get(), FileAttributeTagInfo, &tag, sizeof(tag))) {
      LOG_ERROR(kComponent, "FSStat (%s): error code %d", path.c_str(), static_cast<int>(GetLastError()));
      return -1;
    }
    reparse_tag = tag.ReparseTag;
  }
  st->isExist = true;
  st->path = path;
  FullStoredPath(&st->path);
  st->name = LastComponent(st->path);
  st->size = (static_cast<uint64_t>(info.nFileSizeHigh) << 32) | info.nFileSizeLow;
  st->dev_id = info.dwVolumeSerialNumber;
  st->mtime = UnixTime(info.ftLastWriteTime);
  st->uid = 0;
  st->gid = 0;
  st->mode = 0;
  if (info.dwFileAttributes & kAttributeDevice) {
    st->type = kDevice;
  } else if ((info.dwFileAttributes & kAttributeReparsePoint) && reparse_tag == kReparseTagSymlink) {
    LOG_ERROR(kComponent, "FSStat (%s): is symlink", path.c_str());
    st->type = kSymlink;
  } else if (info.dwFileAttributes & kAttributeDirectory) {
    st->type = kDirectory;
  } else {
    st->type = kRegular;
  }
  return 0;
}

namespace platform {

int DeleteRegularFile(const std::string& path) {
  LongPath long_path(path);
  if (!DeleteFileW(Wide(long_path.wide))) {
    LOG_ERROR(kComponent, "Failed to delete file on %s. error code %d", path.c_str(),
              static_cast<int>(GetLastError()));
    return -1;
  }
  return 0;
}

bool OpenForWriting(const std::string& path, int* descriptor) {
  // GDI+ saves to a path, so no handle is kept: the file is made (or
  // emptied) and closed again.
  std::u16string wide = utility::UTF8ToUTF16(path);
  FILE* file = _wfopen(Wide(wide), L"w");
  if (file == nullptr) return false;
  fclose(file);
  *descriptor = -1;
  return true;
}

bool WriteAll(const std::string& path, int /*descriptor*/, const void* data, size_t size) {
  // No handle is kept on this platform (OpenForWriting made the file): the
  // file at the path is emptied and written.
  LongPath long_path(path);
  ScopedHandle handle(CreateFileW(Wide(long_path.wide), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                  TRUNCATE_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (handle.get() == INVALID_HANDLE_VALUE) {
    handle.release();
    errno = IsNotFound(GetLastError()) ? ENOENT : EACCES;
    return false;
  }
  if (GetFileType(handle.get()) != FILE_TYPE_DISK) {
    errno = EINVAL;
    return false;
  }
  const auto* bytes = static_cast<const uint8_t*>(data);
  size_t done = 0;
  while (done < size) {
    const DWORD chunk = size - done > 0x40000000 ? 0x40000000 : static_cast<DWORD>(size - done);
    DWORD written = 0;
    if (!WriteFile(handle.get(), bytes + done, chunk, &written, nullptr) || written == 0) {
      errno = GetLastError() == ERROR_DISK_FULL ? ENOSPC : EIO;
      return false;
    }
    done += written;
  }
  return true;
}

void CloseDescriptor(int descriptor) { _close(descriptor); }

bool NamesDescriptor(const std::string& /*path*/, int /*descriptor*/) { return true; }

}  // namespace platform

int RemoveDirectoryRecursive(const std::string& dir) { return RemoveTree(dir, 0); }

}  // namespace file
}  // namespace tessera
