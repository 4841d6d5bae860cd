// What the loaders of the decoder modules (TIFF, WebP, GIF, HEIF, camera
// RAW) share.
//
// A decoder module's table is a plain C struct that starts with
//
//   uint32_t abi_version;
//   ImageDecoder* (*create_decoder)();  // a new decoder, owned by the caller
//
// and names its module through static members: kKind (log lines), kFileStem (ModuleFileName),
// kEntryName (the exported C function returning the table) and kAbiVersion,
// raised whenever the table's layout or meaning changes.
#ifndef TESSERA_LIB_CODEC_DECODER_MODULE_H_
#define TESSERA_LIB_CODEC_DECODER_MODULE_H_

#include <memory>

#include "lib/codec/image-decoder.h"
#include "lib/utility/module-loader.h"

namespace tessera {
namespace codec {

template <typename Table>
class DecoderModule {
 public:
  // The module's one loader, created on first use and never destroyed, so
  // that decoders made from the module stay valid until the process ends.
  static utility::ModuleLoader& Loader() {
    static auto* loader =
        new utility::ModuleLoader(Table::kKind, Table::kFileStem, Table::kEntryName, Table::kAbiVersion);
    return *loader;
  }

  // The table, or nullptr when the module cannot be loaded (one ERROR line,
  // on the first call only).
  static const Table* Get() { return Loader().template Get<Table>(); }

  // A decoder from the module, or nullptr (no decoder: the file is refused
  // cleanly) when the module cannot be loaded.
  static std::unique_ptr<ImageDecoder> CreateDecoder() {
    const Table* table = Get();
    return std::unique_ptr<ImageDecoder>(table ? table->create_decoder() : nullptr);
  }
};

}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_DECODER_MODULE_H_
