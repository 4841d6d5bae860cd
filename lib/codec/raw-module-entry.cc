// The loadable RAW module's one export: the table of its entry points.
#include "lib/image/decoders.h"
#include "lib/image/raw-decoder.h"
#include "lib/image/raw-module.h"

namespace tessera {
namespace image {
namespace {

ImageDecoder* CreateDecoder() { return CreateRawDecoder().release(); }

const RawModuleTable kTable = {RawModuleTable::kAbiVersion, &CreateDecoder, &DecodeCameraRaw};

}  // namespace
}  // namespace image
}  // namespace tessera

extern "C" __attribute__((visibility("default"))) const tessera::image::RawModuleTable*
TesseraRawModuleTable() {
  return &tessera::image::kTable;
}
