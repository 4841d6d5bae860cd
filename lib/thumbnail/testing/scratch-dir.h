// A fresh directory for one test, removed with everything in it afterwards.
// Made under $TESSERA_TEST_TMPDIR when set, else under /tmp.
#ifndef TESSERA_LIB_THUMBNAIL_TESTING_SCRATCH_DIR_H_
#define TESSERA_LIB_THUMBNAIL_TESTING_SCRATCH_DIR_H_

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "lib/thumbnail/thumbnail-helper.h"

namespace tessera {
namespace thumbnail {
namespace testing {

class ScratchDir {
 public:
  ScratchDir() {
    const char* base = getenv("TESSERA_TEST_TMPDIR");
    std::string root = base && *base ? base : "/tmp";
    std::error_code ignored;
    std::filesystem::create_directories(root, ignored);
    // create_directory says whether it made the directory: a taken name is
    // drawn again.
    std::random_device entropy;
    for (int attempt = 0; attempt < 100 && path_.empty(); ++attempt) {
      std::string candidate = root + "/thumbnail-" + std::to_string(entropy());
      if (std::filesystem::create_directory(candidate, ignored)) path_ = candidate;
    }
  }
  ~ScratchDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string Join(const std::string& name) const { return path_ + "/" + name; }

  // Full paths of the directory's entries, sorted.
  std::vector<std::string> List() const {
    std::vector<std::string> entries;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(path_, ignored)) {
      // In the separators the tool reports paths with.
      entries.push_back(NormalizeSeparators(entry.path().string()));
    }
    std::sort(entries.begin(), entries.end());
    return entries;
  }

 private:
  std::string path_;
};

}  // namespace testing
}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_TESTING_SCRATCH_DIR_H_
