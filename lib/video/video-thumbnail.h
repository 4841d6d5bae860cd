// Video thumbnails for the POSIX thumbnail provider, on FFmpeg: the frame at
// one second (the last frame for shorter clips), or a file's attached picture
// (cover art) when it has no real video stream.
//
// Files are opened through the file protocol only, with the demuxers that do
// not follow references to other files or URLs (no playlists, concat lists or
// image sequences), under a deadline and a cap on the packets read, so hostile
// input fails cleanly instead of hanging. Only the stream used is probed and
// read, however many the file has.
//
// The process keeps what the last file it decoded gave, told apart from
// other content by path, device, inode, size and times: its frame, which
// serves every later size of the run, or its failure when that would only
// come again (anything but a time-out or a missing file), so that a file
// that cannot be done costs its attempt once, not once per size.
//
// Thread-safety: both functions may run on any thread, at the same time.
#ifndef TESSERA_LIB_VIDEO_VIDEO_THUMBNAIL_H_
#define TESSERA_LIB_VIDEO_VIDEO_THUMBNAIL_H_

#include <cstdint>
#include <memory>
#include <string>

#include "lib/image/bitmap.h"
#include "lib/utility/cancellation.h"
#include "lib/utility/status.h"

namespace tessera {
namespace thumbnail {

// True when the file (UTF-8 path) is a container that the safe demuxers
// recognise and that holds a video stream or an attached picture. Audio-only
// files and anything unreadable give false, and so does a file whose probing
// is stopped by `cancellation` (may be null).
bool IsVideoContent(const std::string& utf8_path,
                    const std::shared_ptr<const utility::Cancellation>& cancellation = nullptr);

// Decodes the representative frame of the video at utf8_path into *out: an
// opaque BGRA bitmap, upright by the display matrix, non-square pixels
// stretched to the display aspect, HDR (PQ/HLG) tone-mapped to BT.709 SDR,
// reduced so that its longer side is at most cx (never enlarged).
// Returns NotFound for a missing file, NotSupported when there is no video
// stream or picture, InvalidArgument for undecodable or oversized content,
// Timeout when the deadline ran out or `cancellation` (may be null) was
// cancelled, which stops the decoding at its next read. *out is untouched
// on failure.
//
// `largest_cx` is the largest cx the caller will ask of this file (0: cx).
// The frame is converted at the size that request needs and kept for the
// later requests of the file, each of which then gets exactly what a fresh
// decode told the same largest_cx gives.
Status ExtractVideoThumbnail(const std::string& utf8_path, uint32_t cx, image::Bitmap* out,
                             const std::shared_ptr<const utility::Cancellation>& cancellation = nullptr,
                             uint32_t largest_cx = 0);

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_VIDEO_THUMBNAIL_H_
