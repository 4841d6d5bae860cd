// Loads the RAW module (tessera-raw) on the first camera RAW decode and forwards to it.
// Linked into the tool instead of the RAW decoder itself.
#include <memory>
#include <string>

#include "lib/codec/decoder-module.h"
#include "lib/codec/decoders.h"
#include "lib/codec/raw/raw-decoder.h"
#include "lib/codec/raw/raw-module.h"
#include "lib/codec/reduction-cache.h"

namespace tessera {
namespace codec {

using RawModule = DecoderModule<RawModuleTable>;

void SetRawModulePath(const std::string& path) { RawModule::Loader().SetPath(path); }

std::unique_ptr<ImageDecoder> CreateRawDecoder() { return RawModule::CreateDecoder(); }

Status DecodeCameraRaw(ByteSource* source, uint32_t cx, RawContainer container, const FanOutRequest& fan_out,
                       image::Bitmap* out) {
  const RawModuleTable* module = RawModule::Get();
  if (module == nullptr) return NotCameraRawError("the RAW module is not available");
  // A request without a cache of its own names this copy's.
  FanOutRequest request = fan_out;
  if (request.cache == nullptr) request.cache = &TheReductionCache();
  return module->decode_camera_raw(source, cx, container, request, out);
}

}  // namespace codec
}  // namespace tessera
