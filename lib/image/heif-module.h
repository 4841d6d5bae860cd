// The HEIF decoder (libheif and the codecs under it) is built twice: into a
// static library that tests link directly, and as a loadable module,
// libtessera-heif.so, that the tool loads beside its executable the first
// time a HEIF file is decoded. Other runs then never map libheif, which would
// cost every run start-up time and several megabytes of memory.
//
// The module exports one C function, HeifModuleTable::kEntryName, returning
// the table below; the loader (heif-module-dlopen.cc) defines
// CreateHeifDecoder() by calling it, and returns nullptr (no decoder: the file
// is refused cleanly) after one ERROR line when the module cannot be loaded.
#ifndef TESSERA_LIB_IMAGE_HEIF_MODULE_H_
#define TESSERA_LIB_IMAGE_HEIF_MODULE_H_

#include <cstdint>
#include <string>

#include "lib/image/image-decoder.h"

namespace tessera {
namespace image {

// A decoder module's table (decoder-module.h).
struct HeifModuleTable {
  static constexpr uint32_t kAbiVersion = 1;
  static constexpr char kKind[] = "HEIF";
  static constexpr char kFileName[] = "libtessera-heif.so";
  static constexpr char kEntryName[] = "TesseraHeifModuleTable";

  uint32_t abi_version;
  ImageDecoder* (*create_decoder)();
};

// Loads the module from `path` instead of from the executable's directory.
// Only effective before the first HEIF decode; not thread-safe against it.
void SetHeifModulePath(const std::string& path);

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_HEIF_MODULE_H_
