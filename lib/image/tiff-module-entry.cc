// The loadable TIFF module's one export: the table of its entry points.
#include "lib/image/decoders.h"
#include "lib/image/tiff-module.h"

namespace tessera {
namespace image {
namespace {

ImageDecoder* CreateDecoder() { return CreateTiffDecoder().release(); }

const TiffModuleTable kTable = {TiffModuleTable::kAbiVersion, &CreateDecoder};

}  // namespace
}  // namespace image
}  // namespace tessera

extern "C" __attribute__((visibility("default"))) const tessera::image::TiffModuleTable*
TesseraTiffModuleTable() {
  return &tessera::image::kTable;
}
