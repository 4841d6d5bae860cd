// The camera RAW decoder (LibRaw) is built twice: into a static library that
// tests link directly, and as a loadable module, tessera-raw (a .so or .dll), that the
// tool loads beside its executable the first time a camera RAW file is
// decoded. Other runs then never map LibRaw, whose relocations alone cost
// every run start-up time and a few megabytes of memory.
//
// The module exports one C function, RawModuleTable::kEntryName, returning
// the table below. The loader (raw-module-loader.cc) defines
// CreateRawDecoder() and DecodeCameraRaw() by calling it; when the module
// cannot be loaded, after one ERROR line, CreateRawDecoder() returns nullptr
// (no decoder: the file is refused cleanly) and DecodeCameraRaw() refuses
// with NotSupported, so that the TIFF decoder reads a camera file in a TIFF
// container as the plain TIFF it also is.
#ifndef TESSERA_LIB_CODEC_RAW_RAW_MODULE_H_
#define TESSERA_LIB_CODEC_RAW_RAW_MODULE_H_

#include <cstdint>
#include <string>

#include "lib/codec/byte-source.h"
#include "lib/codec/image-decoder.h"
#include "lib/codec/raw/raw-decoder.h"
#include "lib/codec/reducing-sink.h"
#include "lib/image/bitmap.h"
#include "lib/utility/status.h"

namespace tessera {
namespace codec {

// A decoder module's table (decoder-module.h).
struct RawModuleTable {
  static constexpr uint32_t kAbiVersion = 3;
  static constexpr char kKind[] = "RAW";
  static constexpr char kFileStem[] = "tessera-raw";
  static constexpr char kEntryName[] = "TesseraRawModuleTable";

  uint32_t abi_version;
  ImageDecoder* (*create_decoder)();
  // DecodeCameraRaw() of raw-decoder.h. The request's cache belongs to
  // the caller's copy of lib/codec.
  Status (*decode_camera_raw)(ByteSource* source, uint32_t cx, RawContainer container, const FanOutRequest& fan_out,
                              image::Bitmap* out);
};

// Loads the module from `path` instead of from the executable's directory.
// Only effective before the first RAW decode; not thread-safe against it.
void SetRawModulePath(const std::string& path);

}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_RAW_RAW_MODULE_H_
