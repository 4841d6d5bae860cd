// Loads libtessera-tiff.so on the first TIFF decode and creates decoders
// from it. Linked into the tool instead of the TIFF decoder itself.
#include <memory>
#include <string>

#include "lib/image/decoder-module.h"
#include "lib/image/decoder-modules.h"
#include "lib/image/decoders.h"

namespace tessera {
namespace image {

using TiffModule = DecoderModule<TiffModuleTable>;

void SetTiffModulePath(const std::string& path) { TiffModule::Loader().SetPath(path); }

std::unique_ptr<ImageDecoder> CreateTiffDecoder() { return TiffModule::CreateDecoder(); }

}  // namespace image
}  // namespace tessera
