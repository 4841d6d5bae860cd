// A scratch file for fuzz targets whose code under test reads a path: one
// per process, in memory-backed storage when there is some, rewritten for
// every input and removed at exit.
#ifndef TESSERA_FUZZ_FUZZ_FILE_H_
#define TESSERA_FUZZ_FUZZ_FILE_H_

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
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
    std::ofstream out(path_, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    return static_cast<bool>(out.flush());
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace fuzz
}  // namespace tessera

#endif  // TESSERA_FUZZ_FUZZ_FILE_H_
