// The loadable GIF module's one export: the table of its entry points.
#include "lib/image/decoder-modules.h"
#include "lib/image/decoders.h"

extern "C" __attribute__((visibility("default"))) const tessera::image::GifModuleTable*
TesseraGifModuleTable() {
  return tessera::image::DecoderOnlyTableOf<tessera::image::GifModuleTable, &tessera::image::CreateGifDecoder>();
}
