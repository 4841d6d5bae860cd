// On POSIX our own decoders are the thumbnail provider.
#include "lib/thumbnail/decoder-thumbnail-provider.h"
#include "lib/thumbnail/thumbnail-provider.h"

namespace tessera {
namespace thumbnail {

std::unique_ptr<ThumbnailProvider> CreatePlatformThumbnailProvider() { return CreateDecoderThumbnailProvider(); }

}  // namespace thumbnail
}  // namespace tessera
