#include "lib/image/transform.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

namespace tessera {
namespace image {
namespace {

// Pixels are moved whole as 32-bit values; memcpy keeps that free of
// aliasing trouble and compiles to a single load or store.
inline uint32_t LoadPixel(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, sizeof(v));
  return v;
}

inline void StorePixel(uint8_t* p, uint32_t v) { std::memcpy(p, &v, sizeof(v)); }

// Tiles of 64 x 64 pixels (16 KiB) keep both the rows read and the rows
// written in cache while a transposing copy walks across them.
constexpr int kTile = 64;

// Copies src into dst (whose width is src's height and whose height is src's
// width) with the axes swapped: target (x, y) takes source
// (flip_y ? sw - 1 - y : y, flip_x ? sh - 1 - x : x).
//   plain transpose            : neither flip
//   quarter turn clockwise     : flip_x
//   quarter turn anticlockwise : flip_y
//   transverse                 : both
void SwapAxes(const Bitmap& src, bool flip_x, bool flip_y, Bitmap* dst) {
  const int sw = src.width();
  const int sh = src.height();
  const int dw = dst->width();
  const int dh = dst->height();
  for (int ty = 0; ty < dh; ty += kTile) {
    const int y_end = std::min(ty + kTile, dh);
    for (int tx = 0; tx < dw; tx += kTile) {
      const int x_end = std::min(tx + kTile, dw);
      for (int y = ty; y < y_end; ++y) {
        const int sx = flip_y ? sw - 1 - y : y;
        uint8_t* out = dst->row(y);
        for (int x = tx; x < x_end; ++x) {
          const int sy = flip_x ? sh - 1 - x : x;
          StorePixel(out + x * 4, LoadPixel(src.row(sy) + sx * 4));
        }
      }
    }
  }
}

Status SwapAxesInto(const Bitmap& src, bool flip_x, bool flip_y, Bitmap* out) {
  Bitmap dst;
  Status status = Bitmap::Create(src.height(), src.width(), &dst);
  if (!status.ok()) return status;
  SwapAxes(src, flip_x, flip_y, &dst);
  *out = std::move(dst);
  return Status::OK();
}

// A half turn is the pixel sequence reversed.
void ReversePixels(Bitmap* bitmap) {
  uint8_t* data = bitmap->data();
  size_t i = 0;
  size_t j = static_cast<size_t>(bitmap->width()) * bitmap->height();
  while (j > i + 1) {
    --j;
    const uint32_t a = LoadPixel(data + i * 4);
    StorePixel(data + i * 4, LoadPixel(data + j * 4));
    StorePixel(data + j * 4, a);
    ++i;
  }
}

}  // namespace

Status RotateClockwise(const Bitmap& src, int quarter_turns, Bitmap* out) {
  if (src.empty()) {
    *out = Bitmap();
    return Status::OK();
  }
  switch (((quarter_turns % 4) + 4) % 4) {
    case 1:
      return SwapAxesInto(src, /*flip_x=*/true, /*flip_y=*/false, out);
    case 2: {
      Bitmap dst;
      Status status = src.Clone(&dst);
      if (!status.ok()) return status;
      ReversePixels(&dst);
      *out = std::move(dst);
      return Status::OK();
    }
    case 3:
      return SwapAxesInto(src, /*flip_x=*/false, /*flip_y=*/true, out);
    default:
      return src.Clone(out);
  }
}

void MirrorHorizontally(Bitmap* bitmap) {
  const int width = bitmap->width();
  for (int y = 0; y < bitmap->height(); ++y) {
    uint8_t* row = bitmap->row(y);
    for (int i = 0, j = width - 1; i < j; ++i, --j) {
      const uint32_t a = LoadPixel(row + i * 4);
      StorePixel(row + i * 4, LoadPixel(row + j * 4));
      StorePixel(row + j * 4, a);
    }
  }
}

void MirrorVertically(Bitmap* bitmap) {
  for (int i = 0, j = bitmap->height() - 1; i < j; ++i, --j) {
    std::swap_ranges(bitmap->row(i), bitmap->row(i) + bitmap->stride(), bitmap->row(j));
  }
}

// The stored picture's first row and column, per EXIF orientation, and what
// makes it upright:
//   1 top-left      as stored
//   2 top-right     mirror left-right
//   3 bottom-right  half turn
//   4 bottom-left   mirror top-bottom
//   5 left-top      transpose (mirror across the main diagonal)
//   6 right-top     quarter turn clockwise
//   7 right-bottom  transverse (mirror across the anti-diagonal)
//   8 left-bottom   quarter turn anticlockwise
Status ApplyExifOrientation(int orientation, Bitmap* bitmap) {
  if (bitmap->empty()) return Status::OK();
  switch (orientation) {
    case 2:
      MirrorHorizontally(bitmap);
      return Status::OK();
    case 3:
      ReversePixels(bitmap);
      return Status::OK();
    case 4:
      MirrorVertically(bitmap);
      return Status::OK();
    case 5:
      return SwapAxesInto(*bitmap, false, false, bitmap);
    case 6:
      return SwapAxesInto(*bitmap, true, false, bitmap);
    case 7:
      return SwapAxesInto(*bitmap, true, true, bitmap);
    case 8:
      return SwapAxesInto(*bitmap, false, true, bitmap);
    default:
      return Status::OK();
  }
}

}  // namespace image
}  // namespace tessera
