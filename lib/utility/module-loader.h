// Loads an optional module (a shared object or DLL beside the executable) on
// first use. A module exports one C function, taking nothing, that returns a
// pointer to the module's table of entry points; the table's first member is
// a uint32_t ABI version, raised whenever the table's layout or meaning
// changes, so that a stale module next to a newer executable is refused
// instead of misused.
//
// A module is named by its stem, "tessera-heif" say, which the platform
// decorates (ModuleFileName): libtessera-heif.so beside the executable on
// POSIX, tessera-heif.dll on Windows. Only the executable's own folder is
// looked in, never a search path.
#ifndef TESSERA_LIB_UTILITY_MODULE_LOADER_H_
#define TESSERA_LIB_UTILITY_MODULE_LOADER_H_

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <type_traits>

namespace tessera {
namespace utility {

// The file name of the module `stem` on this platform.
std::string ModuleFileName(const std::string& stem);

class ModuleLoader {
 public:
  // `kind` names the module in log lines ("the <kind> module"). All four
  // arguments must outlive the loader (string literals or constants).
  ModuleLoader(const char* kind, const char* stem, const char* entry_name, uint32_t abi_version)
      : kind_(kind), stem_(stem), entry_name_(entry_name), abi_version_(abi_version) {}
  ModuleLoader(const ModuleLoader&) = delete;
  ModuleLoader& operator=(const ModuleLoader&) = delete;

  // Loads the module from `path` instead of from the executable's directory.
  // Only effective before the first Get(); not thread-safe against it.
  void SetPath(const std::string& path) { path_override_ = path; }

  // The module's table, or nullptr when the module is missing, has no entry
  // point or another ABI version (one ERROR line, on the first call only).
  // The first call loads the module, which then stays loaded for the life of
  // the process; later calls return the same answer. Thread-safe. The table
  // belongs to the module.
  template <typename Table>
  const Table* Get() {
    static_assert(std::is_standard_layout<Table>::value, "a module table is a plain C struct");
    static_assert(std::is_same<decltype(Table::abi_version), uint32_t>::value &&
                      offsetof(Table, abi_version) == 0,
                  "a module table starts with its uint32_t abi_version");
    return static_cast<const Table*>(Load());
  }

 private:
  const void* Load();

  const char* kind_;
  const char* stem_;
  const char* entry_name_;
  uint32_t abi_version_;
  std::string path_override_;
  std::once_flag once_;
  const void* table_ = nullptr;
};

}  // namespace utility
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_MODULE_LOADER_H_
