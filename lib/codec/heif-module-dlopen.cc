// Loads libtessera-heif.so on the first HEIF decode and creates decoders
// from it. Linked into the tool instead of the HEIF decoder itself.
#include <memory>
#include <string>

#include "lib/image/decoder-module.h"
#include "lib/image/decoder-modules.h"
#include "lib/image/decoders.h"

namespace tessera {
namespace image {

using HeifModule = DecoderModule<HeifModuleTable>;

void SetHeifModulePath(const std::string& path) { HeifModule::Loader().SetPath(path); }

std::unique_ptr<ImageDecoder> CreateHeifDecoder() { return HeifModule::CreateDecoder(); }

}  // namespace image
}  // namespace tessera
