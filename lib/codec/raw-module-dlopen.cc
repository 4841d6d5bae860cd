// Loads libtessera-raw.so on the first camera RAW decode and forwards to it.
// Linked into the tool instead of the RAW decoder itself.
#include <memory>
#include <string>

#include "lib/image/decoder-module.h"
#include "lib/image/decoders.h"
#include "lib/image/raw-decoder.h"
#include "lib/image/raw-module.h"
#include "lib/image/reduction-cache.h"

namespace tessera {
namespace image {

using RawModule = DecoderModule<RawModuleTable>;

void SetRawModulePath(const std::string& path) { RawModule::Loader().SetPath(path); }

std::unique_ptr<ImageDecoder> CreateRawDecoder() { return RawModule::CreateDecoder(); }

Status DecodeCameraRaw(ByteSource* source, uint32_t cx, bool tiff_container, const FanOutRequest& fan_out,
                       Bitmap* out) {
  const RawModuleTable* module = RawModule::Get();
  if (module == nullptr) return Status::NotSupported("the RAW module is not available");
  // A request without a cache of its own names this copy's.
  FanOutRequest request = fan_out;
  if (request.cache == nullptr) request.cache = &TheReductionCache();
  return module->decode_camera_raw(source, cx, tiff_container, request, out);
}

}  // namespace image
}  // namespace tessera
