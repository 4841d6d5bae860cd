// The thumbnail provider over our own decoders (lib/codec), with the video
// thumbnails of lib/video for content that is no image format. It is the
// provider on POSIX, and on Windows the one behind the Shell's
// (thumbnail-provider-win.cc). Chosen by content:
//
//   CreateItem     the path names a regular file we can open (never blocks:
//                  FIFOs and devices are refused at once)
//   BindToHandler  sniffs the first bytes and picks a decoder, telling it
//                  every request a run makes of a file; content that is no
//                  image format goes to the RAW decoder when the name has a
//                  camera RAW extension (headerless RAW files have no
//                  signature: LibRaw knows them by their size), else to the
//                  video path when a demuxer recognises it as a video (or a
//                  file with cover art)
//   GetThumbnail   decodes, shrinking on load, to a bitmap within cx
//
// Failure codes are negated errno values or the kProvider* codes of
// thumbnail-provider.h. One provider serves one request on one thread; any
// number may run at the same time.
#ifndef TESSERA_LIB_THUMBNAIL_DECODER_THUMBNAIL_PROVIDER_H_
#define TESSERA_LIB_THUMBNAIL_DECODER_THUMBNAIL_PROVIDER_H_

#include <memory>

#include "lib/thumbnail/thumbnail-provider.h"

namespace tessera {
namespace thumbnail {

std::unique_ptr<ThumbnailProvider> CreateDecoderThumbnailProvider();

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_DECODER_THUMBNAIL_PROVIDER_H_
