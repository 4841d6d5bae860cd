// The loadable WebP module's one export: the table of its entry points.
#include "lib/codec/decoder-modules.h"
#include "lib/codec/decoders.h"

extern "C" TESSERA_MODULE_EXPORT const tessera::codec::WebpModuleTable*
TesseraWebpModuleTable() {
  return tessera::codec::DecoderOnlyTableOf<tessera::codec::WebpModuleTable, &tessera::codec::CreateWebpDecoder>();
}
