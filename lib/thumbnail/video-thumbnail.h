// Video thumbnails for the POSIX thumbnail provider, on FFmpeg: the frame at
// one second (the last frame for shorter clips), or a file's attached picture
// (cover art) when it has no real video stream.
//
// Files are opened through the file protocol only, with the demuxers that do
// not follow references to other files or URLs (no playlists, concat lists or
// image sequences), under a deadline and a cap on the packets read, so hostile
// input fails cleanly instead of hanging.
//
// Thread-safety: both functions are stateless and may run on any thread.
#ifndef TESSERA_LIB_THUMBNAIL_VIDEO_THUMBNAIL_H_
#define TESSERA_LIB_THUMBNAIL_VIDEO_THUMBNAIL_H_

#include <cstdint>
#include <string>

#include "lib/image/bitmap.h"
#include "lib/utility/status.h"

namespace tessera {
namespace thumbnail {

// True when the file (UTF-8 path) is a container that the safe demuxers
// recognise and that holds a video stream or an attached picture. Audio-only
// files and anything unreadable give false.
bool IsVideoContent(const std::string& utf8_path);

// Decodes the representative frame of the video at utf8_path into *out: an
// opaque BGRA bitmap, upright by the display matrix, non-square pixels
// stretched to the display aspect, HDR (PQ/HLG) tone-mapped to BT.709 SDR,
// reduced so that its longer side is at most cx (never enlarged).
// Returns NotFound for a missing file, NotSupported when there is no video
// stream or picture, InvalidArgument for undecodable or oversized content,
// Timeout when the deadline ran out. *out is untouched on failure.
Status ExtractVideoThumbnail(const std::string& utf8_path, uint32_t cx, image::Bitmap* out);

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_VIDEO_THUMBNAIL_H_
