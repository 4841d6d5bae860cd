// The loadable WebP module's one export: the table of its entry points.
#include "lib/image/decoder-modules.h"
#include "lib/image/decoders.h"

extern "C" __attribute__((visibility("default"))) const tessera::image::WebpModuleTable*
TesseraWebpModuleTable() {
  return tessera::image::DecoderOnlyTableOf<tessera::image::WebpModuleTable, &tessera::image::CreateWebpDecoder>();
}
