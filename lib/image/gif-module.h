// The GIF decoder (giflib) is built twice: into a static library that tests
// link directly, and as a loadable module, libtessera-gif.so, that the tool
// loads beside its executable the first time a GIF file is decoded. Other
// runs then never map giflib.
//
// The module exports one C function, GifModuleTable::kEntryName, returning
// the table below; the loader (gif-module-dlopen.cc) defines
// CreateGifDecoder() by calling it, and returns nullptr (no decoder: the file
// is refused cleanly) after one ERROR line when the module cannot be loaded.
#ifndef TESSERA_LIB_IMAGE_GIF_MODULE_H_
#define TESSERA_LIB_IMAGE_GIF_MODULE_H_

#include <cstdint>
#include <string>

#include "lib/image/image-decoder.h"

namespace tessera {
namespace image {

// A decoder module's table (decoder-module.h).
struct GifModuleTable {
  static constexpr uint32_t kAbiVersion = 1;
  static constexpr char kKind[] = "GIF";
  static constexpr char kFileName[] = "libtessera-gif.so";
  static constexpr char kEntryName[] = "TesseraGifModuleTable";

  uint32_t abi_version;
  ImageDecoder* (*create_decoder)();
};

// Loads the module from `path` instead of from the executable's directory.
// Only effective before the first GIF decode; not thread-safe against it.
void SetGifModulePath(const std::string& path);

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_GIF_MODULE_H_
