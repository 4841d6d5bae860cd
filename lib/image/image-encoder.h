// Saving a bitmap as JPEG or PNG (libjpeg-turbo and libspng on every
// platform, image-encoder.cc), and the platform's table of encoders by MIME
// type (ours on POSIX, GDI+'s on Windows: image-encoder-posix.cc,
// image-encoder-win.cc). No library header here.
//
// Outputs carry no metadata (no EXIF, no GPS, no embedded thumbnail). Alpha
// is ignored: bitmaps are saved as opaque RGB.
#ifndef TESSERA_LIB_IMAGE_IMAGE_ENCODER_H_
#define TESSERA_LIB_IMAGE_IMAGE_ENCODER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "lib/file/file-op.h"
#include "lib/image/bitmap.h"
#include "lib/utility/status.h"

namespace tessera {
namespace image {

// Quality 85, optimised Huffman tables, 4:4:4 chroma when the longer side is
// at most 640 and 4:2:0 above. Writes (creating or truncating) utf8_path; on
// failure the file may be partly written. On POSIX the path is opened by
// file::FSOpenForWriting's rules: a link, a non-regular file or a file with
// other hard links at the path is refused, never written through.
Status SaveJpeg(const Bitmap& bitmap, const std::string& utf8_path);
Status SavePng(const Bitmap& bitmap, const std::string& utf8_path);

// The same into a file the caller already holds open (a TempFile's): it is
// emptied and written from its start through `file`, and utf8_path is not
// opened again, so a name swapped for a link meanwhile leads nowhere. The
// save then fails (IoError) if utf8_path no longer names that file: a caller
// that hands the name on must not send anyone elsewhere. When `file` holds
// nothing (always on Windows, whose file layer keeps no handle), utf8_path
// is written as above. Saves into one file must not overlap.
Status SaveJpeg(const Bitmap& bitmap, const file::OpenFile& file, const std::string& utf8_path);
Status SavePng(const Bitmap& bitmap, const file::OpenFile& file, const std::string& utf8_path);

using SaveFunction = Status (*)(const Bitmap& bitmap, const std::string& utf8_path);

struct ImageEncoder {
  const char* mime_type;  // "image/jpeg", "image/png"
  SaveFunction save;
};

// The platform's table of encoders, fetched in its two steps: how large the
// table is, then the table itself (GdipGetImageEncodersSize and
// GdipGetImageEncoders under GDI+). Each step returns 0, or the platform's
// non-zero status. Nothing is kept: every call asks the platform anew.
// Thread-safe.
class EncoderTable {
 public:
  virtual ~EncoderTable() = default;
  // The number of encoders and the bytes the platform's table of them takes.
  virtual int GetSize(uint32_t* count, uint32_t* bytes) const = 0;
  // The encoders this platform saves with (JPEG and PNG), in the order of
  // the platform's table of `count` entries in `bytes` bytes (GetSize's
  // answer).
  virtual int GetEncoders(uint32_t count, uint32_t bytes, std::vector<ImageEncoder>* encoders) const = 0;
};

// This platform's table.
const EncoderTable& PlatformEncoderTable();

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_IMAGE_ENCODER_H_
