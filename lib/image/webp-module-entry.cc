// The loadable WebP module's one export: the table of its entry points.
#include "lib/image/decoders.h"
#include "lib/image/webp-module.h"

namespace tessera {
namespace image {
namespace {

ImageDecoder* CreateDecoder() { return CreateWebpDecoder().release(); }

const WebpModuleTable kTable = {WebpModuleTable::kAbiVersion, &CreateDecoder};

}  // namespace
}  // namespace image
}  // namespace tessera

extern "C" __attribute__((visibility("default"))) const tessera::image::WebpModuleTable*
TesseraWebpModuleTable() {
  return &tessera::image::kTable;
}
