// The TIFF decoder (libtiff, and the LERC, zstd, xz, JBIG and deflate
// libraries under it) is built twice: into a static library that tests link
// directly, and as a loadable module, libtessera-tiff.so, that the tool loads
// beside its executable the first time a TIFF file is decoded. Other runs
// then never map those libraries, which together cost every run most of a
// megabyte of memory.
//
// The module exports one C function, TiffModuleTable::kEntryName, returning
// the table below; the loader (tiff-module-dlopen.cc) defines
// CreateTiffDecoder() by calling it, and returns nullptr (no decoder: the file
// is refused cleanly) after one ERROR line when the module cannot be loaded.
//
// Camera files in a TIFF container still reach the RAW module: the TIFF
// module links its own copy of the RAW loader (raw-module.h), which finds
// libtessera-raw.so beside the executable as the tool's copy would.
#ifndef TESSERA_LIB_IMAGE_TIFF_MODULE_H_
#define TESSERA_LIB_IMAGE_TIFF_MODULE_H_

#include <cstdint>
#include <string>

#include "lib/image/image-decoder.h"

namespace tessera {
namespace image {

// A decoder module's table (decoder-module.h).
struct TiffModuleTable {
  static constexpr uint32_t kAbiVersion = 1;
  static constexpr char kKind[] = "TIFF";
  static constexpr char kFileName[] = "libtessera-tiff.so";
  static constexpr char kEntryName[] = "TesseraTiffModuleTable";

  uint32_t abi_version;
  ImageDecoder* (*create_decoder)();
};

// Loads the module from `path` instead of from the executable's directory.
// Only effective before the first TIFF decode; not thread-safe against it.
void SetTiffModulePath(const std::string& path);

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_TIFF_MODULE_H_
