// The platform's thumbnail source, in the three steps of a Shell thumbnail
// request: an item for the path, a thumbnail handler for the item, and one
// bitmap of longer side <= cx from the handler. The extraction cascade is
// written once against this interface; Windows implements it with the Shell
// (shell-thumbnail-provider-win.cc), POSIX with our own decoders
// (decoder-thumbnail-provider.cc), tests with fakes.
//
// Codes: 0 (or any non-negative value) is success; failures are negative —
// an HRESULT on Windows, a negated errno or one of the kProvider* codes on
// POSIX. One provider object serves one request on one thread.
#ifndef TESSERA_LIB_THUMBNAIL_THUMBNAIL_PROVIDER_H_
#define TESSERA_LIB_THUMBNAIL_THUMBNAIL_PROVIDER_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "lib/image/bitmap.h"
#include "lib/thumbnail/thumbnail-size.h"

namespace tessera {
namespace thumbnail {

// POSIX failure codes beyond negated errno values.
constexpr int32_t kProviderNoHandler = -1000;     // no decoder for the content
constexpr int32_t kProviderDecodeFailed = -1001;  // the decoder refused the data
constexpr int32_t kProviderTooLarge = -1002;      // declared size over the limits
constexpr int32_t kProviderNotReady = -1003;      // step called out of order

class ThumbnailProvider {
 public:
  virtual ~ThumbnailProvider() = default;

  // Step 1 (SHCreateItemFromParsingName): the item for a path.
  virtual int32_t CreateItem(const std::u16string& path) = 0;
  // Step 2 (BindToHandler with the thumbnail handler id): chooses the handler.
  virtual int32_t BindToHandler() = 0;
  // Step 3 (GetThumbnail): an opaque BGRA bitmap whose longer side is at most
  // cx, never enlarged. *out is untouched on failure.
  virtual int32_t GetThumbnail(uint32_t cx, image::Bitmap* out) = 0;
};

using ThumbnailProviderFactory = std::function<std::unique_ptr<ThumbnailProvider>()>;

// The cx the extraction asks the provider for when the shorter side of its
// largest output is `size`: three times as much, so that a picture up to
// 3:1 still reaches that size.
constexpr uint32_t kProviderRequestFactor = 3;
constexpr uint32_t ProviderRequestEdge(uint32_t size) { return kProviderRequestFactor * size; }

// The cx of every request the tool makes of one file, one size after the
// other (AllSizes), so that a provider can serve all of them from what it
// reads for the first.
inline std::vector<uint32_t> RunRequestEdges() {
  std::vector<uint32_t> cx_values;
  for (ThumbnailSize size : AllSizes()) cx_values.push_back(ProviderRequestEdge(PixelSize(size)));
  return cx_values;
}

// The platform's provider (one definition per platform).
std::unique_ptr<ThumbnailProvider> CreatePlatformThumbnailProvider();

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_THUMBNAIL_PROVIDER_H_
