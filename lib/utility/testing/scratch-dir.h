// Test helper: a fresh directory under $TESSERA_TEST_TMPDIR (or /tmp),
// removed with everything in it when the object goes away.
#ifndef TESSERA_LIB_UTILITY_TESTING_SCRATCH_DIR_H_
#define TESSERA_LIB_UTILITY_TESTING_SCRATCH_DIR_H_

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace tessera {
namespace test {

class ScratchDir {
 public:
  ScratchDir() {
    const char* base = getenv("TESSERA_TEST_TMPDIR");
    std::filesystem::create_directories(base && *base ? base : "/tmp");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/scratch-XXXXXX";
    const char* made = mkdtemp(pattern.data());
    if (made != nullptr) path_ = std::filesystem::canonical(made).string();
  }
  ~ScratchDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }
  std::string Path(const std::string& name) const { return path_ + "/" + name; }
  std::string MakeFile(const std::string& name, const std::string& content = "data") const {
    std::ofstream(Path(name)) << content;
    return Path(name);
  }

 private:
  std::string path_;
};

// Whether anything, a dangling link included, is there.
inline bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

}  // namespace test
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_TESTING_SCRATCH_DIR_H_
