// Camera RAW decoding, shared by the RAW decoder and the TIFF decoder (most
// RAW formats are TIFF-shaped). Internal to lib/codec. Defined with LibRaw by
// raw-decoder.cc, or, in the tool, by the RAW module's loader
// (raw-module.h), which loads LibRaw on the first call.
#ifndef TESSERA_LIB_CODEC_RAW_RAW_DECODER_H_
#define TESSERA_LIB_CODEC_RAW_RAW_DECODER_H_

#include <cstdint>
#include <string>

#include "lib/codec/byte-source.h"
#include "lib/codec/reducing-sink.h"
#include "lib/image/bitmap.h"
#include "lib/utility/status.h"

namespace tessera {
namespace codec {

// What holds the camera RAW data handed to DecodeCameraRaw.
enum class RawContainer : uint32_t {
  kOwn,  // a RAW format of its own
  // A TIFF-shaped file that names its maker or is a DNG. One that LibRaw
  // opens but that carries no RAW data (no colour filter array, not a DNG)
  // is refused with NotSupported, so that the caller can read it as the
  // plain TIFF it is.
  kTiff,
  // As kTiff, for a file all of whose images look like pictures (no colour
  // filter array or linear raw image, no codec of a camera maker's): there
  // a one-sample image for which LibRaw finds no colour filter pattern (a
  // thermal or multispectral camera's frame) is a gray picture as well, not
  // a sensor mosaic, and refused the same way.
  kPictureTiff,
};

// Decodes a camera RAW file as the RAW decoder does: upright, sRGB, longer
// side at most cx. The embedded preview serves a request when it is large
// enough, unless a larger request of the run (`fan_out`) needs a develop:
// then every size comes from that one develop, at the size the largest
// needs, so that the thumbnails of one file look alike (a camera's preview
// and a develop differ in tone and colour). A develop runs at half size when
// that is enough; when it fails, the preview still serves the sizes it is
// large enough for. A file too small to hold the image data it declares is
// not developed. *out is untouched on failure. Thread-safe (each call has
// its own LibRaw object).
//
// A develop also reduces its rows to the other sizes of `fan_out` and keeps
// them in fan_out.cache (ReducingSink::FanOut): one develop serves every
// request of a run.
Status DecodeCameraRaw(ByteSource* source, uint32_t cx, RawContainer container, const FanOutRequest& fan_out,
                       image::Bitmap* out);

// The status with which DecodeCameraRaw refuses a file for its content
// alone, whatever the size asked for: LibRaw does not open it, it is a TIFF
// without RAW data, or there is no RAW module. A caller that then reads the
// file another way may serve every size of the run from one decode. (A
// NotSupported status; defined in decode-status.cc.)
Status NotCameraRawError(const std::string& why);
bool IsNotCameraRaw(const Status& status);

}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_RAW_RAW_DECODER_H_
