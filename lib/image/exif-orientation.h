// EXIF orientation tag lookup.
#ifndef TESSERA_LIB_IMAGE_EXIF_ORIENTATION_H_
#define TESSERA_LIB_IMAGE_EXIF_ORIENTATION_H_

#include <cstddef>
#include <cstdint>

namespace tessera {
namespace image {

// Reads the orientation (1..8) from an EXIF block: either a bare TIFF header
// ("II*\0" / "MM\0*") or one preceded by "Exif\0\0" as in a JPEG APP1
// segment. Returns 1 when there is no valid tag. Bounds-checked throughout.
int ExifOrientation(const uint8_t* exif, size_t size);

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_EXIF_ORIENTATION_H_
