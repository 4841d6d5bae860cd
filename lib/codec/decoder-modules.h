// The decoders that are built twice: into static libraries that tests link
// directly, and as loadable modules that the tool loads beside its
// executable the first time a file of their format is decoded, so that other
// runs never map their libraries (each costs start-up time and memory in
// every run that maps it). By stem (libtessera-heif.so on POSIX,
// tessera-heif.dll on Windows; utility::ModuleFileName):
//
//   tessera-heif  libheif and the codecs under it
//   tessera-tiff  libtiff and the compression libraries under it
//   tessera-webp  libwebp and libwebpdemux
//   tessera-gif   giflib
//
// Each module exports one C function, its table's kEntryName, returning its
// table; its loader (<format>-module-loader.cc) defines Create<Format>Decoder()
// of decoders.h by calling it, and returns nullptr (no decoder: the file is
// refused cleanly) after one ERROR line when the module cannot be loaded.
//
// Camera files in a TIFF container still reach the RAW module: the TIFF
// module links its own copy of the RAW loader (raw/raw-module.h), which finds
// the RAW module beside the executable as the tool's copy would.
#ifndef TESSERA_LIB_CODEC_DECODER_MODULES_H_
#define TESSERA_LIB_CODEC_DECODER_MODULES_H_

#include <cstdint>
#include <memory>
#include <string>

#include "lib/codec/image-decoder.h"

namespace tessera {
namespace codec {

// The table of a module that only makes decoders (decoder-module.h).
struct DecoderOnlyTable {
  static constexpr uint32_t kAbiVersion = 1;
  uint32_t abi_version;
  ImageDecoder* (*create_decoder)();
};

struct HeifModuleTable : DecoderOnlyTable {
  static constexpr char kKind[] = "HEIF";
  static constexpr char kFileStem[] = "tessera-heif";
  static constexpr char kEntryName[] = "TesseraHeifModuleTable";
};

struct TiffModuleTable : DecoderOnlyTable {
  static constexpr char kKind[] = "TIFF";
  static constexpr char kFileStem[] = "tessera-tiff";
  static constexpr char kEntryName[] = "TesseraTiffModuleTable";
};

struct WebpModuleTable : DecoderOnlyTable {
  static constexpr char kKind[] = "WebP";
  static constexpr char kFileStem[] = "tessera-webp";
  static constexpr char kEntryName[] = "TesseraWebpModuleTable";
};

struct GifModuleTable : DecoderOnlyTable {
  static constexpr char kKind[] = "GIF";
  static constexpr char kFileStem[] = "tessera-gif";
  static constexpr char kEntryName[] = "TesseraGifModuleTable";
};

// The table that a module exports: its decoders come from `Create`.
template <typename Table, std::unique_ptr<ImageDecoder> (*Create)()>
const Table* DecoderOnlyTableOf() {
  static const Table table = {{Table::kAbiVersion, [] { return Create().release(); }}};
  return &table;
}

// Load a module from `path` instead of from the executable's directory.
// Only effective before the first decode of its format; not thread-safe
// against it.
void SetHeifModulePath(const std::string& path);
void SetTiffModulePath(const std::string& path);
void SetWebpModulePath(const std::string& path);
void SetGifModulePath(const std::string& path);

}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_DECODER_MODULES_H_
