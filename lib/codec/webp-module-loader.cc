// Loads the WebP module (tessera-webp) on the first WebP decode and creates decoders
// from it. Linked into the tool instead of the WebP decoder itself.
#include <memory>
#include <string>

#include "lib/codec/decoder-module.h"
#include "lib/codec/decoder-modules.h"
#include "lib/codec/decoders.h"

namespace tessera {
namespace codec {

using WebpModule = DecoderModule<WebpModuleTable>;

void SetWebpModulePath(const std::string& path) { WebpModule::Loader().SetPath(path); }

std::unique_ptr<ImageDecoder> CreateWebpDecoder() { return WebpModule::CreateDecoder(); }

}  // namespace codec
}  // namespace tessera
