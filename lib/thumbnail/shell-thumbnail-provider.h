// The Windows Shell as thumbnail provider (shell-thumbnail-provider-win.cc):
// the shell item for the path, the thumbnail handler registered for its
// type, and one bitmap from it. Built on Windows only.
//
// COM must be initialised on the thread that makes and uses the provider,
// and the provider released before COM is uninitialised there. A handler
// that produced nothing (the Shell's 1x1 bitmap) counts as a failure.
#ifndef TESSERA_LIB_THUMBNAIL_SHELL_THUMBNAIL_PROVIDER_H_
#define TESSERA_LIB_THUMBNAIL_SHELL_THUMBNAIL_PROVIDER_H_

#include <memory>

#include "lib/thumbnail/thumbnail-provider.h"

namespace tessera {
namespace thumbnail {

std::unique_ptr<ThumbnailProvider> CreateShellThumbnailProvider();

// The chain CreatePlatformThumbnailProvider returns on Windows, with `shell`
// in the Shell's place: `shell` first, bounded in time (BoundedProvider),
// then our own decoders. A test build of the tool puts a handler that never
// answers there.
std::unique_ptr<ThumbnailProvider> CreateShellFirstChain(ThumbnailProviderFactory shell);

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_SHELL_THUMBNAIL_PROVIDER_H_
