// A scratch file for fuzz targets whose code under test reads a path: one
// per process, in memory-backed storage when there is some, rewritten for
// every input and removed at exit.
#ifndef TESSERA_FUZZ_FUZZ_FILE_H_
#define TESSERA_FUZZ_FUZZ_FILE_H_

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace tessera {
namespace fuzz {

class ScratchFile {
 public:
  // `suffix` ends the file name (an extension for code that looks at one).
  explicit ScratchFile(const std::string& suffix) {
    struct stat st;
    const char* dir = ::stat("/dev/shm", &st) == 0 && S_ISDIR(st.st_mode) ? "/dev/shm" : "/tmp";
    path_ = std::string(dir) + "/tessera-fuzz-" + std::to_string(::getpid()) + "-" + suffix;
  }
  ~ScratchFile() { ::unlink(path_.c_str()); }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  // Replaces the content; false when the file cannot be written.
  bool Write(const uint8_t* data, size_t size) const {
    const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    size_t done = 0;
    while (done < size) {
      const ssize_t n = ::write(fd, data + done, size - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    ::close(fd);
    return done == size;
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace fuzz
}  // namespace tessera

#endif  // TESSERA_FUZZ_FUZZ_FILE_H_
