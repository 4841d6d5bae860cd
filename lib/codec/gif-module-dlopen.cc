// Loads libtessera-gif.so on the first GIF decode and creates decoders
// from it. Linked into the tool instead of the GIF decoder itself.
#include <memory>
#include <string>

#include "lib/image/decoder-module.h"
#include "lib/image/decoder-modules.h"
#include "lib/image/decoders.h"

namespace tessera {
namespace image {

using GifModule = DecoderModule<GifModuleTable>;

void SetGifModulePath(const std::string& path) { GifModule::Loader().SetPath(path); }

std::unique_ptr<ImageDecoder> CreateGifDecoder() { return GifModule::CreateDecoder(); }

}  // namespace image
}  // namespace tessera
