// The loadable HEIF module's one export: the table of its entry points.
#include "lib/image/decoders.h"
#include "lib/image/heif-module.h"

namespace tessera {
namespace image {
namespace {

ImageDecoder* CreateDecoder() { return CreateHeifDecoder().release(); }

const HeifModuleTable kTable = {HeifModuleTable::kAbiVersion, &CreateDecoder};

}  // namespace
}  // namespace image
}  // namespace tessera

extern "C" __attribute__((visibility("default"))) const tessera::image::HeifModuleTable*
TesseraHeifModuleTable() {
  return &tessera::image::kTable;
}
