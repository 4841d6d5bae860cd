// POSIX primitives of the logger: UTF-8 bytes straight to the streams.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "lib/log/log-platform.h"
#include "lib/log/log.h"

namespace tessera {
namespace log {

int ProcessId() { return static_cast<int>(getpid()); }

unsigned long ThreadId() {
#if defined(SYS_gettid)
  return static_cast<unsigned long>(syscall(SYS_gettid));
#else
  return static_cast<unsigned long>(reinterpret_cast<uintptr_t>(pthread_self()));
#endif
}

namespace internal {
namespace {

// Not every C library declares the renameat2 wrapper; the system call is
// there on every Linux since 3.15.
constexpr unsigned int kRenameNoReplace = 1u << 0;

// 1 = renamed, 0 = refused or failed with errno set, -1 = the kernel or the
// file system does not offer the flag.
int TryRenameAt2(const char* from, const char* to) {
#if defined(SYS_renameat2)
  long result = syscall(SYS_renameat2, AT_FDCWD, from, AT_FDCWD, to, kRenameNoReplace);
  if (result == 0) return 1;
  if (errno == ENOSYS || errno == EINVAL || errno == ENOTSUP || errno == EOPNOTSUPP) return -1;
  return 0;
#else
  (void)from;
  (void)to;
  return -1;
#endif
}

}  // namespace

FILE* OpenForAppend(const std::string& path) {
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return nullptr;
  FILE* stream = fdopen(fd, "a");
  if (stream == nullptr) close(fd);
  return stream;
}

FILE* OpenForReading(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  FILE* stream = fdopen(fd, "r");
  if (stream == nullptr) close(fd);
  return stream;
}

bool RenameNoReplace(const std::string& from, const std::string& to) {
  int renamed = TryRenameAt2(from.c_str(), to.c_str());
  if (renamed >= 0) return renamed == 1;
  // A hard link fails with EEXIST when the target exists, which is exactly the
  // no-replace semantics.
  if (link(from.c_str(), to.c_str()) == 0) {
    if (unlink(from.c_str()) == 0) return true;
    unlink(to.c_str());
    return false;
  }
  if (errno != EPERM && errno != ENOTSUP && errno != EOPNOTSUPP) return false;
  // No hard links on this file system either: check, then rename. Racy against
  // other processes, but never replaces a target that exists beforehand.
  struct stat target;
  if (lstat(to.c_str(), &target) == 0 || errno != ENOENT) return false;
  return rename(from.c_str(), to.c_str()) == 0;
}

bool RemoveFile(const std::string& path) { return unlink(path.c_str()) == 0; }

FileSizeStep FileSize(const std::string& path, uint64_t* size, long* error_code) {
  struct stat info;
  if (stat(path.c_str(), &info) == 0) {
    *size = static_cast<uint64_t>(info.st_size);
    return FileSizeStep::kNone;
  }
  if (errno != ENOENT) {
    *error_code = errno;
    return FileSizeStep::kOpen;
  }
  // Opened "always": a missing file is created empty.
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) {
    *error_code = errno;
    return FileSizeStep::kOpen;
  }
  int result = fstat(fd, &info);
  int saved_errno = errno;
  close(fd);
  if (result != 0) {
    *error_code = saved_errno;
    return FileSizeStep::kQuery;
  }
  *size = static_cast<uint64_t>(info.st_size);
  return FileSizeStep::kNone;
}

void FormatTimeStamp(char* buffer, size_t buffer_size) {
  if (buffer_size == 0) return;
  buffer[0] = '\0';
  time_t now = time(nullptr);
  struct tm local;
  if (localtime_r(&now, &local) == nullptr) return;
  if (strftime(buffer, buffer_size, "%Y-%m-%dT%H:%M:%S ", &local) == 0) buffer[0] = '\0';
}

int PrintText(FILE* stream, const char* text) { return fprintf(stream, "%s", text); }

int VPrintFormat(FILE* stream, const char* format, va_list args) { return vfprintf(stream, format, args); }

void LockStream(FILE* stream) { flockfile(stream); }

void UnlockStream(FILE* stream) { funlockfile(stream); }

}  // namespace internal
}  // namespace log
}  // namespace tessera
