// The loadable RAW module's one export: the table of its entry points.
#include "lib/codec/decoders.h"
#include "lib/codec/raw/raw-decoder.h"
#include "lib/codec/raw/raw-module.h"

namespace tessera {
namespace codec {
namespace {

ImageDecoder* CreateDecoder() { return CreateRawDecoder().release(); }

const RawModuleTable kTable = {RawModuleTable::kAbiVersion, &CreateDecoder, &DecodeCameraRaw};

}  // namespace
}  // namespace codec
}  // namespace tessera

extern "C" TESSERA_MODULE_EXPORT const tessera::codec::RawModuleTable*
TesseraRawModuleTable() {
  return &tessera::codec::kTable;
}
