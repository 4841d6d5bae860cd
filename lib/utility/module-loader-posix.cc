#include <dlfcn.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "lib/log/log.h"
#include "lib/utility/module-loader.h"

namespace tessera {
namespace utility {
namespace {

constexpr char kLogComponent[] = "thumbnail_debug";

// `file_name` beside the running executable; the bare name (the dynamic
// loader's search path) when the executable cannot be found.
std::string PathBesideExecutable(const std::string& file_name) {
  char buffer[4096];
  const ssize_t n = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  if (n <= 0) return file_name;
  const std::string exe(buffer, static_cast<size_t>(n));
  const size_t slash = exe.rfind('/');
  return (slash == std::string::npos ? std::string(".") : exe.substr(0, slash)) + "/" + file_name;
}

}  // namespace

std::string ModuleFileName(const std::string& stem) { return "lib" + stem + ".so"; }

const void* ModuleLoader::Load() {
  std::call_once(once_, [this] {
    const std::string path = path_override_.empty() ? PathBesideExecutable(ModuleFileName(stem_)) : path_override_;
    // Lazy binding for the libraries the module pulls in: binding every
    // function of a codec library's dependency tree up front costs more than
    // a fifth of loading it, and most are never called. The module itself is
    // linked with -z now, so a function it needs that is missing still fails
    // here rather than in the middle of a decode.
    void* handle = dlopen(path.c_str(), RTLD_LAZY | RTLD_LOCAL);
    if (handle == nullptr) {
      const char* error = dlerror();
      LOG_ERROR(kLogComponent, "cannot load the %s module '%s': %s", kind_, path.c_str(),
                error ? error : "unknown error");
      return;
    }
    using Entry = const void* (*)();
    auto entry = reinterpret_cast<Entry>(dlsym(handle, entry_name_));
    const void* candidate = entry ? entry() : nullptr;
    if (candidate == nullptr || *static_cast<const uint32_t*>(candidate) != abi_version_) {
      LOG_ERROR(kLogComponent, "the %s module '%s' does not match this program", kind_, path.c_str());
      return;
    }
    table_ = candidate;
  });
  return table_;
}

}  // namespace utility
}  // namespace tessera
