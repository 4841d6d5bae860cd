// Files on POSIX: one descriptor opened without blocking, read with pread,
// so that duplicates on other threads need no shared position.
#include "lib/codec/byte-source.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <new>
#include <string>

namespace tessera {
namespace codec {
namespace {

Status PosixError(const std::string& context, int error_number) {
  std::string message = context + ": " + std::strerror(error_number);
  if (error_number == ENOENT || error_number == ENOTDIR) return Status::NotFound(message);
  return Status::IoError(message);
}

class FileSource : public ByteSource {
 public:
  FileSource(int fd, uint64_t size) : fd_(fd), size_(size) {}
  ~FileSource() override { ::close(fd_); }

  // The same open file (not the path, which may name another file by now).
  std::unique_ptr<ByteSource> Duplicate() const override {
    const int fd = ::fcntl(fd_, F_DUPFD_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    std::unique_ptr<ByteSource> copy(new (std::nothrow) FileSource(fd, size_));
    if (!copy) {
      ::close(fd);
      return nullptr;
    }
    copy->set_cancellation(cancellation());
    return copy;
  }
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;

  uint64_t size() const override { return size_; }

  std::string ContentIdentity() const override {
    struct stat st;
    if (::fstat(fd_, &st) != 0) return std::string();
    char identity[160];
    std::snprintf(identity, sizeof(identity), "%llu:%llu:%lld:%lld.%09ld:%lld.%09ld",
                  static_cast<unsigned long long>(st.st_dev), static_cast<unsigned long long>(st.st_ino),
                  static_cast<long long>(st.st_size), static_cast<long long>(st.st_mtim.tv_sec),
                  st.st_mtim.tv_nsec, static_cast<long long>(st.st_ctim.tv_sec), st.st_ctim.tv_nsec);
    return identity;
  }

  int64_t ReadAt(uint64_t offset, void* buf, size_t n) override {
    // Every decoder reads through here, so a cancelled decode stops at its
    // next read at the latest.
    if (cancelled()) return -1;
    if (offset >= size_) return 0;
    if (n > size_ - offset) n = static_cast<size_t>(size_ - offset);
    size_t done = 0;
    while (done < n) {
      ssize_t got = ::pread(fd_, static_cast<uint8_t*>(buf) + done, n - done,
                            static_cast<off_t>(offset + done));
      if (got < 0) {
        if (errno == EINTR) continue;
        // The file was opened non-blocking; a regular file never reports
        // EAGAIN, so any error here is a real one.
        return -1;
      }
      if (got == 0) break;  // shrunk since fstat
      done += static_cast<size_t>(got);
    }
    return static_cast<int64_t>(done);
  }

 private:
  const int fd_;
  const uint64_t size_;
};

}  // namespace

Status ByteSource::OpenFile(const std::string& utf8_path, std::unique_ptr<ByteSource>* out) {
  // O_NONBLOCK: opening a FIFO without a writer must not wait for one; the
  // type check below then refuses it.
  int fd;
  do {
    fd = ::open(utf8_path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return PosixError("open '" + utf8_path + "'", errno);
  struct stat st;
  if (::fstat(fd, &st) != 0) {
    const int error_number = errno;
    ::close(fd);
    return PosixError("fstat '" + utf8_path + "'", error_number);
  }
  if (!S_ISREG(st.st_mode)) {
    ::close(fd);
    return Status::InvalidArgument("'" + utf8_path + "' is not a regular file");
  }
  std::unique_ptr<ByteSource> source(new (std::nothrow)
                                         FileSource(fd, static_cast<uint64_t>(st.st_size)));
  if (!source) {
    ::close(fd);
    return Status::Internal("out of memory");
  }
  *out = std::move(source);
  return Status::OK();
}

}  // namespace codec
}  // namespace tessera
