#include "lib/thumbnail/frame-writer.h"

#include <new>
#include <stdexcept>

#include "lib/image/transform.h"
#include "lib/log/log.h"
#include "lib/utility/text-conversion.h"

namespace tessera {
namespace thumbnail {
namespace {

// The source line that the error prefix reports for every frame failure.
constexpr int kThrowOnErrorLine = 40;

// A non-zero code for a Status, for the "<message>: <code>" line.
int32_t StatusCode(const Status& status) { return static_cast<int32_t>(status.code()); }

}  // namespace

void ThrowOnError(const char* message, int32_t code) {
  LOG_ERROR_AT(kThrowOnErrorLine, "thumbnail_debug", "%s: %d", message, code);
  throw std::runtime_error(message);
}

image::ImageEncoder FindEncoderClsid(const std::u16string& mime_type,
                                     const std::vector<image::ImageEncoder>& encoders) {
  if (encoders.size() > 4096) ThrowOnError("Failed to get image encoder size", -1);
  // The table is copied for every lookup: nothing is cached between calls.
  std::vector<image::ImageEncoder> table;
  try {
    table = encoders;
  } catch (const std::bad_alloc&) {
    ThrowOnError("Failed to get all image encoders", -1);
  }
  for (const image::ImageEncoder& encoder : table) {
    if (encoder.mime_type == nullptr) continue;
    std::u16string wide;
    if (utility::UTF8ToUTF16(encoder.mime_type, &wide) != 0) continue;
    if (wide == mime_type) return encoder;
  }
  ThrowOnError("Failed to find encoder for format", 0);
}

image::ImageEncoder FindEncoderClsid(const std::u16string& mime_type) {
  return FindEncoderClsid(mime_type, image::ImageEncoders());
}

int WriteFrameAsJpeg(const std::u16string& output_path, const image::Bitmap& frame,
                     const VideoFrameInfo& info) {
  return WriteFrameAsJpeg(output_path, frame, info, image::ImageEncoders());
}

int WriteFrameAsJpeg(const std::u16string& output_path, const image::Bitmap& frame,
                     const VideoFrameInfo& info, const std::vector<image::ImageEncoder>& encoders) {
  // The image object we turn and save is our own copy of the caller's frame.
  image::Bitmap picture;
  if (frame.empty()) ThrowOnError("Failed to create GDI+ bitmap", -1);
  Status status = frame.Clone(&picture);
  if (!status.ok()) ThrowOnError("Failed to create GDI+ bitmap", StatusCode(status));

  int quarter_turns = 0;
  switch (info.rotation) {
    case 90: quarter_turns = 1; break;
    case 180: quarter_turns = 2; break;
    case 270: quarter_turns = 3; break;
    default: break;  // 0, 45, 360 ...: left as it is
  }
  if (quarter_turns != 0) {
    image::Bitmap turned;
    // The library's own status is deliberately not reported.
    if (!image::RotateClockwise(picture, quarter_turns, &turned).ok()) {
      ThrowOnError("Failed to rotate GDI+ bitmap", 0);
    }
    picture = std::move(turned);
  }

  const image::ImageEncoder encoder = FindEncoderClsid(u"image/jpeg", encoders);
  std::string utf8_path;
  if (utility::UTF16ToUTF8(output_path, &utf8_path) != 0 || encoder.save == nullptr) {
    ThrowOnError("Failed to save bitmap as JPEG", -1);
  }
  status = encoder.save(picture, utf8_path);
  if (!status.ok()) ThrowOnError("Failed to save bitmap as JPEG", StatusCode(status));
  return 0;
}

}  // namespace thumbnail
}  // namespace tessera
