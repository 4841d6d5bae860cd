// The platform-independent parts of the file layer: the long-path form, the
// text form of a status record, the random-name generator, and removal,
// files opened for writing and temporary files on top of the platform
// primitives.
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>

#include "lib/file/file-op.h"
#include "lib/file/file-op-platform.h"
#include "lib/file/unreported-files.h"
#include "lib/log/log.h"

namespace tessera {
namespace file {
namespace {

constexpr char kComponent[] = "file_op_debug";

constexpr char kLongPathPrefix[] = "\\\\?\\";  // \\?\ (4 bytes)
constexpr size_t kLongPathPrefixLength = 4;

constexpr char kNameAlphabet[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_";
constexpr int kNameLength = 8;
static_assert(sizeof(kNameAlphabet) - 1 == 64, "the name alphabet has 64 characters");

// One process-wide engine, built on first use. Names drawn by concurrent
// callers come from one sequence, so they cannot repeat each other's draws.
class NameGenerator {
 public:
  static NameGenerator& Get() {
    static NameGenerator generator;  // construction is thread-safe
    return generator;
  }

  std::string Draw() {
    std::uniform_int_distribution<int> index(0, 63);
    std::string name;
    name.reserve(kNameLength);
    std::lock_guard<std::mutex> lock(mutex_);
    for (int i = 0; i < kNameLength; ++i) name.push_back(kNameAlphabet[index(engine_)]);
    return name;
  }

 private:
  // The engine starts from its default seed and is reseeded at once with one
  // value from the random device.
  NameGenerator() { engine_.seed(Seed()); }

  static std::mt19937::result_type Seed() {
    try {
      std::random_device device;
      return device();
    } catch (...) {
      // No entropy source: the clock and the thread still differ per process.
      uint64_t ticks = static_cast<uint64_t>(std::chrono::steady_clock::now().time_since_epoch().count());
      uint64_t thread = std::hash<std::thread::id>()(std::this_thread::get_id());
      return static_cast<std::mt19937::result_type>(ticks ^ (ticks >> 32) ^ thread);
    }
  }

  std::mutex mutex_;
  std::mt19937 engine_;
};

}  // namespace

std::string ToLongPath(const std::string& path) {
  std::string result;
  if (path.size() >= kLongPathPrefixLength && path.compare(0, kLongPathPrefixLength, kLongPathPrefix) != 0) {
    result = kLongPathPrefix;
  }
  result += path;
  for (char& c : result) {
    if (c == '/') c = '\\';
  }
  return result;
}

std::string FSStatInfo::ToString() const {
  std::string text = "{";
  text += "\"name\": \"" + name + "\", ";
  text += "\"path\": \"" + path + "\", ";
  text += "\"type\": " + std::to_string(type) + ", ";
  text += "\"mtime\": " + std::to_string(mtime) + ", ";
  text += "\"size\": " + std::to_string(size) + ", ";
  text += "\"isExist\": " + std::string(isExist ? "1" : "0") + ", ";
  text += "\"uid\": " + std::to_string(uid) + ", ";
  text += "\"gid\": " + std::to_string(gid) + ", ";
  text += "\"mode\": " + std::to_string(mode) + ", ";
  text += "\"dev_id\": " + std::to_string(dev_id) + "}";
  return text;
}

std::string RandomPath(const std::string& prefix) {
  return prefix + "/" + NameGenerator::Get().Draw();
}

int FSRemove(const std::string& path) {
  if (path.empty()) return -1;
  FSStatInfo st;
  if (FSStat(path, &st, true) != 0) return -1;
  if (!st.isExist) return 0;
  if (st.type == kDirectory) return RemoveDirectoryRecursive(path);
  if (st.type != kRegular) return -1;
  return platform::DeleteRegularFile(path);
}

OpenFile::OpenFile(OpenFile&& other) noexcept : descriptor_(other.descriptor_) { other.descriptor_ = -1; }

OpenFile& OpenFile::operator=(OpenFile&& other) noexcept {
  if (this != &other) {
    Close();
    descriptor_ = other.descriptor_;
    other.descriptor_ = -1;
  }
  return *this;
}

void OpenFile::Close() {
  if (descriptor_ >= 0) platform::CloseDescriptor(descriptor_);
  descriptor_ = -1;
}

int FSOpenForWriting(const std::string& path, OpenFile* file) {
  if (file == nullptr) {
    errno = EINVAL;
    return -1;
  }
  ScopedFileCreation creation;
  if (!creation.allowed()) {
    errno = EINTR;
    return -1;
  }
  int descriptor = -1;
  if (!platform::OpenForWriting(path, &descriptor)) return -1;
  *file = OpenFile(descriptor);
  return 0;
}

int FSWriteOpenFile(const std::string& path, const OpenFile& file, const void* data, size_t size) {
  return platform::WriteAll(path, file.descriptor(), data, size) ? 0 : -1;
}

bool FSNamesOpenFile(const std::string& path, const OpenFile& file) {
  return !file.is_open() || platform::NamesDescriptor(path, file.descriptor());
}

int FSMktemp(const std::string& prefix, std::string* path) { return FSMktemp(prefix, path, nullptr); }

int FSMktemp(const std::string& prefix, std::string* path, OpenFile* file) {
  LOG_DEBUG(kComponent, "FSMktemp: prefix [%s], path[%s]", prefix.c_str(), path ? path->c_str() : "");
  std::string candidate = RandomPath(prefix);
  if (candidate.empty() || path == nullptr) {
    LOG_ERROR(kComponent, "FSMktemp failed.");
    return -1;
  }
  // Known before it exists: from here on a termination removes it. A full
  // table only costs that protection, not the file.
  const bool registered = RegisterUnreportedFile(candidate);
  OpenFile opened;
  if (FSOpenForWriting(candidate, &opened) != 0) {
    if (registered) ForgetUnreportedFile(candidate);
    return -1;
  }
  *path = candidate;
  if (file != nullptr) *file = std::move(opened);
  return 0;
}

}  // namespace file
}  // namespace tessera
