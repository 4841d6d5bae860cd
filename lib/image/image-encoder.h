// Saving a bitmap as JPEG or PNG, and the table of encoders by MIME type.
// One implementation per platform: libjpeg-turbo and libspng on POSIX
// (image-encoder-posix.cc), GDI+ on Windows. No library header here.
//
// Outputs carry no metadata (no EXIF, no GPS, no embedded thumbnail). Alpha
// is ignored: bitmaps are saved as opaque RGB.
#ifndef TESSERA_LIB_IMAGE_IMAGE_ENCODER_H_
#define TESSERA_LIB_IMAGE_IMAGE_ENCODER_H_

#include <string>
#include <vector>

#include "lib/image/bitmap.h"
#include "lib/utility/status.h"

namespace tessera {
namespace image {

// Quality 85, optimised Huffman tables, 4:4:4 chroma when the longer side is
// at most 640 and 4:2:0 above. Writes (creating or truncating) utf8_path; on
// failure the file may be partly written.
Status SaveJpeg(const Bitmap& bitmap, const std::string& utf8_path);
Status SavePng(const Bitmap& bitmap, const std::string& utf8_path);

using SaveFunction = Status (*)(const Bitmap& bitmap, const std::string& utf8_path);

struct ImageEncoder {
  const char* mime_type;  // "image/jpeg", "image/png"
  SaveFunction save;
};

// The encoders of this platform, in a fixed order. Thread-safe.
const std::vector<ImageEncoder>& ImageEncoders();

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_IMAGE_ENCODER_H_
