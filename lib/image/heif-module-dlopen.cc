// Loads libtessera-heif.so on the first HEIF decode and creates decoders
// from it. Linked into the tool instead of the HEIF decoder itself.
#include <dlfcn.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <string>

#include "lib/image/decoders.h"
#include "lib/image/heif-module.h"
#include "lib/log/log.h"

namespace tessera {
namespace image {
namespace {

constexpr char kLogComponent[] = "thumbnail_debug";

std::string& ModulePathOverride() {
  static std::string* path = new std::string();
  return *path;
}

// The module beside the running executable.
std::string DefaultModulePath() {
  char buffer[4096];
  const ssize_t n = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  if (n <= 0) return kHeifModuleFileName;
  const std::string exe(buffer, static_cast<size_t>(n));
  const size_t slash = exe.rfind('/');
  return (slash == std::string::npos ? std::string(".") : exe.substr(0, slash)) + "/" +
         kHeifModuleFileName;
}

// The table, or nullptr when the module is missing or unusable (logged once).
// The module stays loaded for the life of the process.
const HeifModuleTable* Module() {
  static std::once_flag once;
  static const HeifModuleTable* table = nullptr;
  std::call_once(once, [] {
    const std::string path =
        ModulePathOverride().empty() ? DefaultModulePath() : ModulePathOverride();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      const char* error = dlerror();
      LOG_ERROR(kLogComponent, "cannot load the HEIF module '%s': %s", path.c_str(),
                error ? error : "unknown error");
      return;
    }
    using Entry = const HeifModuleTable* (*)();
    auto entry = reinterpret_cast<Entry>(dlsym(handle, kHeifModuleEntry));
    const HeifModuleTable* candidate = entry ? entry() : nullptr;
    if (candidate == nullptr || candidate->abi_version != kHeifModuleAbiVersion) {
      LOG_ERROR(kLogComponent, "the HEIF module '%s' does not match this program", path.c_str());
      return;
    }
    table = candidate;
  });
  return table;
}

}  // namespace

void SetHeifModulePath(const std::string& path) { ModulePathOverride() = path; }

std::unique_ptr<ImageDecoder> CreateHeifDecoder() {
  const HeifModuleTable* module = Module();
  return std::unique_ptr<ImageDecoder>(module ? module->create_decoder() : nullptr);
}

}  // namespace image
}  // namespace tessera
