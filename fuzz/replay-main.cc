// Replays fuzz inputs without libFuzzer, so that the committed seeds and
// every input that once crashed keep running as ordinary tests (and under
// the sanitizer build). Arguments are files or directories of files; a
// missing directory is skipped. Exits non-zero only when an input cannot be
// read; a fault in the code under test aborts the process.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool IsDirectory(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

void CollectFiles(const std::string& path, std::vector<std::string>* files) {
  if (!IsDirectory(path)) {
    files->push_back(path);
    return;
  }
  DIR* dir = ::opendir(path.c_str());
  if (dir == nullptr) return;
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(path + "/" + name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  files->insert(files->end(), names.begin(), names.end());
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) {
    struct stat st;
    if (::stat(argv[i], &st) != 0) continue;  // no regressions for this target yet
    CollectFiles(argv[i], &files);
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
