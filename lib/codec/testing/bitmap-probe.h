// Pixel probes for decoder tests: mean colour of a region of a BGRA bitmap.
#ifndef TESSERA_LIB_CODEC_TESTING_BITMAP_PROBE_H_
#define TESSERA_LIB_CODEC_TESTING_BITMAP_PROBE_H_

#include <string>

#include "lib/image/bitmap.h"

namespace tessera {
namespace codec {
namespace testing {

struct Rgb {
  double r = 0, g = 0, b = 0;
};

// Mean of the pixels in [x0, x1) x [y0, y1), clipped to the bitmap.
inline Rgb MeanColor(const image::Bitmap& bitmap, int x0, int y0, int x1, int y1) {
  Rgb sum;
  int count = 0;
  for (int y = y0 < 0 ? 0 : y0; y < y1 && y < bitmap.height(); ++y) {
    for (int x = x0 < 0 ? 0 : x0; x < x1 && x < bitmap.width(); ++x) {
      const uint8_t* p = bitmap.row(y) + x * 4;
      sum.b += p[0];
      sum.g += p[1];
      sum.r += p[2];
      ++count;
    }
  }
  if (count > 0) {
    sum.r /= count;
    sum.g /= count;
    sum.b /= count;
  }
  return sum;
}

inline Rgb MeanColor(const image::Bitmap& bitmap) {
  return MeanColor(bitmap, 0, 0, bitmap.width(), bitmap.height());
}

inline std::string ToString(const Rgb& c) {
  return "(" + std::to_string(c.r) + ", " + std::to_string(c.g) + ", " + std::to_string(c.b) + ")";
}

}  // namespace testing
}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_TESTING_BITMAP_PROBE_H_
