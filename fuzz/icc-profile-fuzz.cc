// Fuzzes the colour path on embedded ICC profiles: the structural check
// that runs before lcms2 sees a profile, the transforms made from it for
// every input layout the decoders use, and their conversion of a few pixels
// in place, as the decoders convert reduced thumbnails.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "lib/color/color-profile.h"
#include "lib/color/icc-profile-check.h"

using tessera::color::ColorTransform;
using tessera::color::PixelLayout;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  tessera::color::IccProfileIsAffordable(data, size);
  std::vector<uint8_t> pixels(64 * 4);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = static_cast<uint8_t>(i * 37 + size);
  for (PixelLayout layout : {PixelLayout::kBgra8, PixelLayout::kGrayBgra8, PixelLayout::kCmyk8}) {
    const ColorTransform transform = ColorTransform::FromIcc(data, size, layout);
    transform.Apply(pixels.data(), pixels.data(), pixels.size() / 4);
  }
  std::vector<uint8_t> rgb(64 * 3, 128);
  ColorTransform::FromIcc(data, size, PixelLayout::kRgb8).Apply(rgb.data(), pixels.data(), rgb.size() / 3);
  return 0;
}
