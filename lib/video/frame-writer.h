// Writes a decoded video frame as a JPEG file, turned upright by the
// rotation that the video's metadata gives.
//
// Failures are raised, not returned: ThrowOnError logs one ERROR line
// "<message>: <code>" under "thumbnail_debug" and throws std::runtime_error
// carrying the message alone. The messages are fixed English texts that the
// caller reports as they are.
//
// Thread-safety: stateless; callable from any thread.
#ifndef TESSERA_LIB_VIDEO_FRAME_WRITER_H_
#define TESSERA_LIB_VIDEO_FRAME_WRITER_H_

#include <cstdint>
#include <string>

#include "lib/image/bitmap.h"
#include "lib/image/image-encoder.h"

namespace tessera {
namespace thumbnail {

// Size and rotation of a video frame; all 0 until read. rotation is in
// degrees, clockwise, 0 when unknown.
struct VideoFrameInfo {
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t rotation = 0;
};

// Logs ERROR "<message>: <code>" (component "thumbnail_debug", reported at
// source line 40), then throws std::runtime_error(message).
[[noreturn]] void ThrowOnError(const char* message, int32_t code);

// Writes `frame` (borrowed, unchanged) as a JPEG to output_path (UTF-16),
// after a clockwise quarter turn for rotation 90, 180 or 270; any other
// rotation writes the frame as it is. Uses the first encoder of the
// platform's table (image::PlatformEncoderTable(), fetched anew) whose MIME
// type is exactly "image/jpeg", at its default settings, which opens the
// path by its own rules (on POSIX never through a link: image::SaveJpeg).
// Throws on failure; a partly written file is left as it is. Returns 0.
int WriteFrameAsJpeg(const std::u16string& output_path, const image::Bitmap& frame,
                     const VideoFrameInfo& info);

// The same with an explicit encoder table (tests pass fakes).
int WriteFrameAsJpeg(const std::u16string& output_path, const image::Bitmap& frame,
                     const VideoFrameInfo& info, const image::EncoderTable& table);

// The first encoder of `table`, fetched anew on every call, whose MIME type
// equals mime_type exactly (case-sensitive, whole string). Throws "Failed to
// get image encoder size" or "Failed to get all image encoders" with the
// table's status when a step of fetching it fails, and "Failed to find
// encoder for format" (code 0) when no encoder matches.
image::ImageEncoder FindEncoderClsid(const std::u16string& mime_type, const image::EncoderTable& table);
// Over the platform's table.
image::ImageEncoder FindEncoderClsid(const std::u16string& mime_type);

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_FRAME_WRITER_H_
