#include "lib/video/exported-frames.h"

#include <mutex>
#include <unordered_set>

namespace tessera {
namespace thumbnail {
namespace {

struct Registry {
  std::mutex mutex;
  std::unordered_set<std::string> paths;
};

// Never destroyed, so that a job thread still running at exit can use it.
Registry& TheRegistry() {
  static Registry* registry = new Registry;
  return *registry;
}

}  // namespace

void RegisterExportedFrame(const std::string& path) {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.paths.insert(path);
}

void UnregisterExportedFrame(const std::string& path) {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  registry.paths.erase(path);
}

bool IsExportedFrame(const std::string& path) {
  Registry& registry = TheRegistry();
  std::lock_guard<std::mutex> lock(registry.mutex);
  return registry.paths.count(path) != 0;
}

}  // namespace thumbnail
}  // namespace tessera
