// The WebP decoder (libwebp and libwebpdemux) is built twice: into a static
// library that tests link directly, and as a loadable module,
// libtessera-webp.so, that the tool loads beside its executable the first
// time a WebP file is decoded. Other runs then never map libwebp.
//
// The module exports one C function, WebpModuleTable::kEntryName, returning
// the table below; the loader (webp-module-dlopen.cc) defines
// CreateWebpDecoder() by calling it, and returns nullptr (no decoder: the file
// is refused cleanly) after one ERROR line when the module cannot be loaded.
#ifndef TESSERA_LIB_IMAGE_WEBP_MODULE_H_
#define TESSERA_LIB_IMAGE_WEBP_MODULE_H_

#include <cstdint>
#include <string>

#include "lib/image/image-decoder.h"

namespace tessera {
namespace image {

// A decoder module's table (decoder-module.h).
struct WebpModuleTable {
  static constexpr uint32_t kAbiVersion = 1;
  static constexpr char kKind[] = "WebP";
  static constexpr char kFileName[] = "libtessera-webp.so";
  static constexpr char kEntryName[] = "TesseraWebpModuleTable";

  uint32_t abi_version;
  ImageDecoder* (*create_decoder)();
};

// Loads the module from `path` instead of from the executable's directory.
// Only effective before the first WebP decode; not thread-safe against it.
void SetWebpModulePath(const std::string& path);

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_WEBP_MODULE_H_
