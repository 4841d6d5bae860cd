// The loadable GIF module's one export: the table of its entry points.
#include "lib/codec/decoder-modules.h"
#include "lib/codec/decoders.h"

extern "C" TESSERA_MODULE_EXPORT const tessera::codec::GifModuleTable*
TesseraGifModuleTable() {
  return tessera::codec::DecoderOnlyTableOf<tessera::codec::GifModuleTable, &tessera::codec::CreateGifDecoder>();
}
