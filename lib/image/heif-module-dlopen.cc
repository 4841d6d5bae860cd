// Loads libtessera-heif.so on the first HEIF decode and creates decoders
// from it. Linked into the tool instead of the HEIF decoder itself.
#include <memory>
#include <string>

#include "lib/image/decoders.h"
#include "lib/image/heif-module.h"
#include "lib/utility/module-loader.h"

namespace tessera {
namespace image {
namespace {

utility::ModuleLoader& Loader() {
  static auto* loader = new utility::ModuleLoader("HEIF", kHeifModuleFileName, kHeifModuleEntry,
                                                   kHeifModuleAbiVersion);
  return *loader;
}

}  // namespace

void SetHeifModulePath(const std::string& path) { Loader().SetPath(path); }

std::unique_ptr<ImageDecoder> CreateHeifDecoder() {
  const HeifModuleTable* module = Loader().Get<HeifModuleTable>();
  return std::unique_ptr<ImageDecoder>(module ? module->create_decoder() : nullptr);
}

}  // namespace image
}  // namespace tessera
