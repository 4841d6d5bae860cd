// On Windows the Shell's thumbnail handler comes first, as the system's own
// thumbnails do; when it has no handler for the file, fails, or does not
// answer within kShellBound, our own decoders make the thumbnail in the same
// attempt (provider-chain.h).
#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "lib/thumbnail/decoder-thumbnail-provider.h"
#include "lib/thumbnail/provider-chain.h"
#include "lib/thumbnail/shell-thumbnail-provider.h"
#include "lib/thumbnail/thumbnail-provider.h"

namespace tessera {
namespace thumbnail {
namespace {

// How long the Shell's three steps may take together before our decoders
// take over. Handlers answer in well under a second for photos and in a few
// seconds for large camera files or videos; one that takes longer is either
// hanging or slower than decoding the file ourselves. A file whose handler
// ran out of time is not given to the Shell again in the same run.
constexpr std::chrono::seconds kShellBound{5};

}  // namespace

std::unique_ptr<ThumbnailProvider> CreateShellFirstChain(ThumbnailProviderFactory shell) {
  std::vector<ThumbnailProviderFactory> links;
  links.push_back([shell]() -> std::unique_ptr<ThumbnailProvider> {
    return std::make_unique<BoundedProvider>(shell, kShellBound);
  });
  links.push_back(CreateDecoderThumbnailProvider);
  return std::make_unique<ProviderChain>(std::move(links));
}

std::unique_ptr<ThumbnailProvider> CreatePlatformThumbnailProvider() {
  return CreateShellFirstChain(CreateShellThumbnailProvider);
}

}  // namespace thumbnail
}  // namespace tessera
