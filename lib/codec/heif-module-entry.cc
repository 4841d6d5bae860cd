// The loadable HEIF module's one export: the table of its entry points.
#include "lib/image/decoder-modules.h"
#include "lib/image/decoders.h"

extern "C" __attribute__((visibility("default"))) const tessera::image::HeifModuleTable*
TesseraHeifModuleTable() {
  return tessera::image::DecoderOnlyTableOf<tessera::image::HeifModuleTable, &tessera::image::CreateHeifDecoder>();
}
