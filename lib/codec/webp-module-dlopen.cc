// Loads libtessera-webp.so on the first WebP decode and creates decoders
// from it. Linked into the tool instead of the WebP decoder itself.
#include <memory>
#include <string>

#include "lib/image/decoder-module.h"
#include "lib/image/decoder-modules.h"
#include "lib/image/decoders.h"

namespace tessera {
namespace image {

using WebpModule = DecoderModule<WebpModuleTable>;

void SetWebpModulePath(const std::string& path) { WebpModule::Loader().SetPath(path); }

std::unique_ptr<ImageDecoder> CreateWebpDecoder() { return WebpModule::CreateDecoder(); }

}  // namespace image
}  // namespace tessera
