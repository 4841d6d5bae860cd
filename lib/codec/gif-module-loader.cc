// Loads the GIF module (tessera-gif) on the first GIF decode and creates decoders
// from it. Linked into the tool instead of the GIF decoder itself.
#include <memory>
#include <string>

#include "lib/codec/decoder-module.h"
#include "lib/codec/decoder-modules.h"
#include "lib/codec/decoders.h"

namespace tessera {
namespace codec {

using GifModule = DecoderModule<GifModuleTable>;

void SetGifModulePath(const std::string& path) { GifModule::Loader().SetPath(path); }

std::unique_ptr<ImageDecoder> CreateGifDecoder() { return GifModule::CreateDecoder(); }

}  // namespace codec
}  // namespace tessera
