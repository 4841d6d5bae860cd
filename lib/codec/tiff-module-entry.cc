// The loadable TIFF module's one export: the table of its entry points.
#include "lib/image/decoder-modules.h"
#include "lib/image/decoders.h"

extern "C" __attribute__((visibility("default"))) const tessera::image::TiffModuleTable*
TesseraTiffModuleTable() {
  return tessera::image::DecoderOnlyTableOf<tessera::image::TiffModuleTable, &tessera::image::CreateTiffDecoder>();
}
