// The loadable TIFF module's one export: the table of its entry points.
#include "lib/codec/decoder-modules.h"
#include "lib/codec/decoders.h"

extern "C" TESSERA_MODULE_EXPORT const tessera::codec::TiffModuleTable*
TesseraTiffModuleTable() {
  return tessera::codec::DecoderOnlyTableOf<tessera::codec::TiffModuleTable, &tessera::codec::CreateTiffDecoder>();
}
