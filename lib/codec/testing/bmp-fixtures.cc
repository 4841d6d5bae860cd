#include "lib/codec/testing/bmp-fixtures.h"

#include "lib/utility/testing/byte-writers.h"

namespace tessera {
namespace codec {
namespace testing {
namespace {

constexpr auto Put16 = tessera::testing::AppendLe16;
constexpr auto Put32 = tessera::testing::AppendLe32;

}  // namespace

std::string EncodeBmp(const BmpLayout& layout) {
  std::string info;
  const bool core = layout.info_size == 12;
  if (core) {
    Put32(&info, 12);
    Put16(&info, layout.width);
    Put16(&info, layout.height);
    Put16(&info, 1);
    Put16(&info, layout.bits);
  } else {
    Put32(&info, layout.info_size);
    Put32(&info, layout.width);
    Put32(&info, static_cast<uint32_t>(layout.top_down ? -layout.height : layout.height));
    Put16(&info, 1);
    Put16(&info, layout.bits);
    Put32(&info, layout.compression);
    Put32(&info, static_cast<uint32_t>(layout.pixels.size()));
    Put32(&info, 2835);
    Put32(&info, 2835);
    Put32(&info, static_cast<uint32_t>(layout.palette.size()));
    Put32(&info, 0);
    const bool inside = layout.info_size >= 52;
    for (uint32_t mask : layout.masks) {
      if (inside) Put32(&info, mask);
    }
    info.resize(layout.info_size, '\0');
    if (!inside) {
      for (uint32_t mask : layout.masks) Put32(&info, mask);
    }
  }
  for (uint32_t c : layout.palette) {
    Put16(&info, c & 0xFFFF);  // B, G
    info.push_back(static_cast<char>((c >> 16) & 0xFF));
    if (!core) info.push_back('\0');
  }
  std::string out = "BM";
  Put32(&out, static_cast<uint32_t>(14 + info.size() + layout.pixels.size()));
  Put32(&out, 0);
  Put32(&out, static_cast<uint32_t>(14 + info.size()));
  return out + info + layout.pixels;
}

void FillBmpPixels(BmpLayout* layout, const std::function<uint32_t(int x, int y)>& sample) {
  const size_t stride = (static_cast<size_t>(layout->width) * layout->bits + 31) / 32 * 4;
  layout->pixels.assign(stride * layout->height, '\0');
  for (int r = 0; r < layout->height; ++r) {
    const int y = layout->top_down ? r : layout->height - 1 - r;
    uint8_t* line = reinterpret_cast<uint8_t*>(&layout->pixels[r * stride]);
    for (int x = 0; x < layout->width; ++x) {
      const uint32_t v = sample(x, y);
      if (layout->bits < 8) {
        const int bit = x * layout->bits;
        line[bit / 8] |= static_cast<uint8_t>(v << (8 - layout->bits - bit % 8));
      } else {
        for (int b = 0; b < layout->bits / 8; ++b) line[x * layout->bits / 8 + b] = (v >> (8 * b)) & 0xFF;
      }
    }
  }
}

}  // namespace testing
}  // namespace codec
}  // namespace tessera
