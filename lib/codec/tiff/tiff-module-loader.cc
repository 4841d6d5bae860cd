// Loads the TIFF module (tessera-tiff) on the first TIFF decode and creates decoders
// from it. Linked into the tool instead of the TIFF decoder itself.
#include <memory>
#include <string>

#include "lib/codec/decoder-module.h"
#include "lib/codec/decoder-modules.h"
#include "lib/codec/decoders.h"

namespace tessera {
namespace codec {

using TiffModule = DecoderModule<TiffModuleTable>;

void SetTiffModulePath(const std::string& path) { TiffModule::Loader().SetPath(path); }

std::unique_ptr<ImageDecoder> CreateTiffDecoder() { return TiffModule::CreateDecoder(); }

}  // namespace codec
}  // namespace tessera
