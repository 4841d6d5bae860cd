// Quarter turns and mirrors, for EXIF orientations and for video frames
// tagged with a rotation.
#ifndef TESSERA_LIB_IMAGE_TRANSFORM_H_
#define TESSERA_LIB_IMAGE_TRANSFORM_H_

#include "lib/image/bitmap.h"
#include "lib/utility/status.h"

namespace tessera {
namespace image {

// Turns src clockwise by quarter_turns x 90 degrees (any integer; taken
// modulo 4) into *out. On failure *out is untouched.
Status RotateClockwise(const Bitmap& src, int quarter_turns, Bitmap* out);

// Mirrors left-right / top-bottom in place.
void MirrorHorizontally(Bitmap* bitmap);
void MirrorVertically(Bitmap* bitmap);

// Makes an image stored with EXIF orientation 1..8 upright, replacing
// *bitmap. Values outside 1..8 leave it as it is.
Status ApplyExifOrientation(int orientation, Bitmap* bitmap);

// True for EXIF orientations 5..8, whose stored width and height are the
// upright height and width.
inline bool OrientationSwapsAxes(int orientation) { return orientation >= 5 && orientation <= 8; }

}  // namespace image
}  // namespace tessera

#endif  // TESSERA_LIB_IMAGE_TRANSFORM_H_
