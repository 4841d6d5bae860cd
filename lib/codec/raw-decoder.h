// Camera RAW decoding, shared by the RAW decoder and the TIFF decoder (most
// RAW formats are TIFF-shaped). Internal to lib/codec. Defined with LibRaw by
// raw-decoder.cc, or, in the tool, by the RAW module's loader
// (raw-module.h), which loads LibRaw on the first call.
#ifndef TESSERA_LIB_CODEC_RAW_DECODER_H_
#define TESSERA_LIB_CODEC_RAW_DECODER_H_

#include <cstdint>

#include "lib/codec/byte-source.h"
#include "lib/codec/reducing-sink.h"
#include "lib/image/bitmap.h"
#include "lib/utility/status.h"

namespace tessera {
namespace codec {

// Decodes a camera RAW file as the RAW decoder does: the embedded preview
// when it is large enough, else a develop (at half size when that is enough);
// upright, sRGB, longer side at most cx. A file too small to hold the image
// data it declares fails. With tiff_container set, a file LibRaw opens but that
// carries no RAW data (no colour filter array, not a DNG) is refused with
// NotSupported so that the caller can read it as a plain TIFF. *out is
// untouched on failure. Thread-safe (each call has its own LibRaw object).
//
// A develop also reduces its rows to those sizes of `fan_out` whose own
// decode would develop the file the same way (they have no preview to use
// and the same develop size), and keeps them in fan_out.cache
// (ReducingSink::FanOut): one develop serves every such request of a run.
Status DecodeCameraRaw(ByteSource* source, uint32_t cx, bool tiff_container, const FanOutRequest& fan_out,
                       image::Bitmap* out);

}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_RAW_DECODER_H_
