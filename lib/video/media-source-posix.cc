// On POSIX the frame reader's media source is FFmpeg's, from the media
// module (or linked in directly), bounded by the run's deadline.
#include <memory>

#include "lib/utility/run-deadline.h"
#include "lib/video/media-module.h"
#include "lib/video/media-source.h"

namespace tessera {
namespace thumbnail {

std::unique_ptr<MediaSource> MediaSource::Create() { return CreateFfmpegMediaSource(utility::RunDeadline()); }

}  // namespace thumbnail
}  // namespace tessera
