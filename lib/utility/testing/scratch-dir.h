// Test helper: a fresh directory under $TESSERA_TEST_TMPDIR (or /tmp),
// removed with everything in it when the object goes away.
#ifndef TESSERA_LIB_UTILITY_TESTING_SCRATCH_DIR_H_
#define TESSERA_LIB_UTILITY_TESTING_SCRATCH_DIR_H_

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <system_error>
#include <vector>

namespace tessera {
namespace test {

class ScratchDir {
 public:
  ScratchDir() {
    const char* base = getenv("TESSERA_TEST_TMPDIR");
    const std::string root = base && *base ? base : "/tmp";
    std::error_code error;
    std::filesystem::create_directories(root, error);
    // create_directory reports whether it made the directory, so a name
    // that is already taken is simply drawn again.
    std::random_device entropy;
    std::mt19937 engine(entropy());
    for (int attempt = 0; attempt < 100 && path_.empty(); ++attempt) {
      std::string candidate = root + "/scratch-" + std::to_string(engine() % 1000000000u);
      if (std::filesystem::create_directory(candidate, error)) {
        path_ = std::filesystem::canonical(candidate, error).string();
      }
    }
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
  // The names of the directory's entries, sorted.
  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(path_, ignored)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  std::string path_;
};

// The bytes of the file at `path` (none when it cannot be read).
inline std::string ReadAll(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Whether anything, a dangling link included, is there.
inline bool Exists(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

}  // namespace test
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_TESTING_SCRATCH_DIR_H_
