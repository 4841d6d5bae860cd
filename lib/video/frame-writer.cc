#include "lib/video/frame-writer.h"

#include <stdexcept>
#include <vector>

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

image::ImageEncoder FindEncoderClsid(const std::u16string& mime_type, const image::EncoderTable& table) {
  uint32_t count = 0;
  uint32_t bytes = 0;
  int status = table.GetSize(&count, &bytes);
  if (status != 0) ThrowOnError("Failed to get image encoder size", status);
  std::vector<image::ImageEncoder> encoders;
  status = table.GetEncoders(count, bytes, &encoders);
  if (status != 0) ThrowOnError("Failed to get all image encoders", status);
  for (const image::ImageEncoder& encoder : encoders) {
    if (encoder.mime_type == nullptr) continue;
    std::u16string wide;
    if (utility::UTF8ToUTF16(encoder.mime_type, &wide) != 0) continue;
    if (wide == mime_type) return encoder;
  }
  ThrowOnError("Failed to find encoder for format", 0);
}

image::ImageEncoder FindEncoderClsid(const std::u16string& mime_type) {
  return FindEncoderClsid(mime_type, image::PlatformEncoderTable());
}

int WriteFrameAsJpeg(const std::u16string& output_path, const image::Bitmap& frame,
                     const VideoFrameInfo& info) {
  return WriteFrameAsJpeg(output_path, frame, info, image::PlatformEncoderTable());
}

int WriteFrameAsJpeg(const std::u16string& output_path, const image::Bitmap& frame,
                     const VideoFrameInfo& info, const image::EncoderTable& table) {
  if (frame.empty()) ThrowOnError("Failed to create GDI+ bitmap", -1);

  int quarter_turns = 0;
  switch (info.rotation) {
    case 90: quarter_turns = 1; break;
    case 180: quarter_turns = 2; break;
    case 270: quarter_turns = 3; break;
    default: break;  // 0, 45, 360 ...: left as it is
  }
  // The caller's frame is saved as it is unless it has to be turned: no copy
  // of a whole decoded frame just to hold it.
  const image::Bitmap* picture = &frame;
  image::Bitmap turned;
  if (quarter_turns != 0) {
    // The library's own status is deliberately not reported.
    if (!image::RotateClockwise(frame, quarter_turns, &turned).ok()) {
      ThrowOnError("Failed to rotate GDI+ bitmap", 0);
    }
    picture = &turned;
  }

  const image::ImageEncoder encoder = FindEncoderClsid(u"image/jpeg", table);
  std::string utf8_path;
  if (utility::UTF16ToUTF8(output_path, &utf8_path) != 0 || encoder.save == nullptr) {
    ThrowOnError("Failed to save bitmap as JPEG", -1);
  }
  const Status status = encoder.save(*picture, utf8_path);
  if (!status.ok()) ThrowOnError("Failed to save bitmap as JPEG", StatusCode(status));
  return 0;
}

}  // namespace thumbnail
}  // namespace tessera
