// Loads the HEIF module (tessera-heif) on the first HEIF decode and creates decoders
// from it. Linked into the tool instead of the HEIF decoder itself.
#include <memory>
#include <string>

#include "lib/codec/decoder-module.h"
#include "lib/codec/decoder-modules.h"
#include "lib/codec/decoders.h"

namespace tessera {
namespace codec {

using HeifModule = DecoderModule<HeifModuleTable>;

void SetHeifModulePath(const std::string& path) { HeifModule::Loader().SetPath(path); }

std::unique_ptr<ImageDecoder> CreateHeifDecoder() { return HeifModule::CreateDecoder(); }

}  // namespace codec
}  // namespace tessera
