// The loadable GIF module's one export: the table of its entry points.
#include "lib/image/decoders.h"
#include "lib/image/gif-module.h"

namespace tessera {
namespace image {
namespace {

ImageDecoder* CreateDecoder() { return CreateGifDecoder().release(); }

const GifModuleTable kTable = {GifModuleTable::kAbiVersion, &CreateDecoder};

}  // namespace
}  // namespace image
}  // namespace tessera

extern "C" __attribute__((visibility("default"))) const tessera::image::GifModuleTable*
TesseraGifModuleTable() {
  return &tessera::image::kTable;
}
