// Factories of the built-in decoders, one per format, for the dispatch in
// image-decoder.cc. Internal to lib/codec: the provider goes through
// CreateImageDecoder().
//
// Each factory returns a new decoder (owned by the caller) that holds no
// state between Decode() calls, or nullptr when the format is not built in.
#ifndef TESSERA_LIB_CODEC_DECODERS_H_
#define TESSERA_LIB_CODEC_DECODERS_H_

#include <cstdint>
#include <memory>

#include "lib/codec/image-decoder.h"

namespace tessera {
namespace codec {

std::unique_ptr<ImageDecoder> CreateJpegDecoder();
std::unique_ptr<ImageDecoder> CreatePngDecoder();
std::unique_ptr<ImageDecoder> CreateTiffDecoder();
std::unique_ptr<ImageDecoder> CreateGifDecoder();
std::unique_ptr<ImageDecoder> CreateBmpDecoder();
std::unique_ptr<ImageDecoder> CreateWebpDecoder();
std::unique_ptr<ImageDecoder> CreateHeifDecoder();
std::unique_ptr<ImageDecoder> CreateRawDecoder();

// The JPEG decoder's shrink-on-load choice: the denominator (1, 2, 4 or 8)
// of the largest DCT reduction whose scaled image still covers
// need_width x need_height. Scaled sides are rounded up, as the codec does.
int JpegScaleDenominator(uint32_t width, uint32_t height, int need_width, int need_height);

}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_DECODERS_H_
