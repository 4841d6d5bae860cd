// Replays fuzz inputs without libFuzzer, so that the committed seeds and
// every input that once crashed keep running as ordinary tests (and under
// the sanitizer build). Arguments are files or directories of files, each
// directory's in name order; a missing one is skipped. Exits non-zero only
// when an input cannot be read; a fault in the code under test aborts the
// process.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    std::error_code error;
    if (!fs::is_directory(argv[i], error)) {
      if (fs::exists(argv[i], error)) files.push_back(argv[i]);  // else: no regressions for this target yet
      continue;
    }
    std::vector<std::string> names;
    for (const fs::directory_entry& entry : fs::directory_iterator(argv[i], error)) {
      names.push_back(entry.path().string());
    }
    std::sort(names.begin(), names.end());
    files.insert(files.end(), names.begin(), names.end());
  }
  for (const std::string& file : files) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
      std::fprintf(stderr, "cannot read %s\n", file.c_str());
      return 2;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::fprintf(stderr, "replaying %s (%zu bytes)\n", file.c_str(), bytes.size());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
  std::fprintf(stderr, "%zu inputs replayed\n", files.size());
  return 0;
}
