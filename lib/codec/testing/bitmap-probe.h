// Pixel probes for decoder tests: mean colour of a region of a BGRA bitmap,
// and a decode of bytes in memory to probe.
#ifndef TESSERA_LIB_CODEC_TESTING_BITMAP_PROBE_H_
#define TESSERA_LIB_CODEC_TESTING_BITMAP_PROBE_H_

#include <cstdint>
#include <memory>
#include <string>

#include "gtest/gtest.h"
#include "lib/codec/byte-source.h"
#include "lib/codec/image-decoder.h"
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

// Every channel of `c` within `tolerance` of (r, g, b); `what` names the
// probe in a failure.
inline void ExpectColorNear(const Rgb& c, double r, double g, double b, double tolerance,
                            const std::string& what = "") {
  EXPECT_NEAR(c.r, r, tolerance) << what << " " << ToString(c);
  EXPECT_NEAR(c.g, g, tolerance) << what << " " << ToString(c);
  EXPECT_NEAR(c.b, b, tolerance) << what << " " << ToString(c);
}

// What `decoder` makes of `bytes` for a longer side of cx.
inline Status DecodeBytes(std::unique_ptr<ImageDecoder> decoder, const std::string& bytes, uint32_t cx,
                          image::Bitmap* out) {
  auto source = ByteSource::FromMemory(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return decoder->Decode(source.get(), cx, out);
}

}  // namespace testing
}  // namespace codec
}  // namespace tessera

#endif  // TESSERA_LIB_CODEC_TESTING_BITMAP_PROBE_H_
