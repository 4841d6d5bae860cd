#include <windows.h>

#include <cstdint>
#include <string>

#include "lib/log/log.h"
#include "lib/utility/module-loader.h"
#include "lib/utility/text-conversion.h"

namespace tessera {
namespace utility {
namespace {

constexpr char kLogComponent[] = "thumbnail_debug";

// The folder of the running executable, with its trailing backslash; empty
// when it cannot be found (the module then is not loaded at all: a bare name
// would be looked for along the search path).
std::u16string ExecutableFolder() {
  std::u16string path(MAX_PATH, u'\0');
  for (;;) {
    const DWORD n = GetModuleFileNameW(nullptr, reinterpret_cast<wchar_t*>(&path[0]), static_cast<DWORD>(path.size()));
    if (n == 0) return std::u16string();
    if (n < path.size()) {
      path.resize(n);
      break;
    }
    if (path.size() >= 32768) return std::u16string();
    path.resize(path.size() * 2);
  }
  const size_t slash = path.find_last_of(u"\\/");
  return slash == std::u16string::npos ? std::u16string() : path.substr(0, slash + 1);
}

}  // namespace

std::string ModuleFileName(const std::string& stem) { return stem + ".dll"; }

const void* ModuleLoader::Load() {
  std::call_once(once_, [this] {
    std::u16string path;
    if (!path_override_.empty()) {
      path = UTF8ToUTF16(path_override_);
    } else {
      const std::u16string folder = ExecutableFolder();
      if (!folder.empty()) path = folder + UTF8ToUTF16(ModuleFileName(stem_));
    }
    if (path.empty()) {
      LOG_ERROR(kLogComponent, "cannot load the %s module: the executable's folder is unknown", kind_);
      return;
    }
    // A full path, and the DLLs the module itself imports from its own folder
    // and the system folder only: never from the current directory or PATH.
    HMODULE handle = LoadLibraryExW(reinterpret_cast<const wchar_t*>(path.c_str()), nullptr,
                                    LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_SYSTEM32);
    if (handle == nullptr) {
      LOG_ERROR(kLogComponent, "cannot load the %s module '%s': error %lu", kind_, UTF16ToUTF8(path).c_str(),
                static_cast<unsigned long>(GetLastError()));
      return;
    }
    using Entry = const void* (*)();
    auto entry = reinterpret_cast<Entry>(reinterpret_cast<void*>(GetProcAddress(handle, entry_name_)));
    const void* candidate = entry ? entry() : nullptr;
    if (candidate == nullptr || *static_cast<const uint32_t*>(candidate) != abi_version_) {
      LOG_ERROR(kLogComponent, "the %s module '%s' does not match this program", kind_, UTF16ToUTF8(path).c_str());
      return;
    }
    // The module stays loaded for the life of the process.
    table_ = candidate;
  });
  return table_;
}

}  // namespace utility
}  // namespace tessera
