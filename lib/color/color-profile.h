// lib/color: pixels from the colour space a file declares to sRGB — embedded
// ICC profiles (this header) and their cost checks before lcms2 parses them
// (icc-profile-check.h), profiles from chromaticities, and the tone mapping of
// HDR (PQ/HLG) pictures (hdr-tone-map.h). It works on rows of pixels and
// knows no file format. Namespace tessera::color; depends on lcms2 only.
//
// Conversion of decoded pixels from an embedded ICC profile to sRGB (lcms2).
// A broken, unusable or needlessly expensive profile never fails a
// thumbnail: the transform is then the identity and the pixels are taken as
// sRGB. So is a profile that describes sRGB itself (whatever its name):
// converting would change nothing but cost time.
#ifndef TESSERA_LIB_COLOR_COLOR_PROFILE_H_
#define TESSERA_LIB_COLOR_COLOR_PROFILE_H_

#include <cstddef>
#include <cstdint>
#include <memory>

namespace tessera {
namespace color {

// Layout of the pixels handed to a transform.
enum class PixelLayout {
  kBgra8,  // 4 bytes: B, G, R, A (alpha passed through)
  kRgb8,   // 3 bytes: R, G, B
  kGray8,  // 1 byte
  kCmyk8,  // 4 bytes: C, M, Y, K with 0 = no ink
  kGrayBgra8,  // 4 bytes: gray expanded to B = G = R, then A (ignored)
  kGray16,     // 2 bytes: gray in host byte order
  // 4 bytes: CIE L*a*b* (D50) in the ICC 8-bit encoding, L* 0..100 as
  // 0..255 and a*, b* offset by 128, then a byte that is ignored.
  kLab8,
};

// CIE 1931 xy chromaticities of an RGB colour space's primaries and white,
// as container colour descriptions (nclx) declare them.
struct Chromaticities {
  double red[2];
  double green[2];
  double blue[2];
  double white[2];
};

class ColorTransform {
 public:
  ColorTransform();
  ColorTransform(ColorTransform&&) noexcept;
  ColorTransform& operator=(ColorTransform&&) noexcept;
  ~ColorTransform();

  // A transform from the given ICC profile to sRGB for `layout` input,
  // relative colorimetric intent (perceptual when the profile lacks it).
  // Returns the identity transform for a missing, broken, too costly (see
  // icc-profile-check.h) or mismatched profile (one that does not describe
  // `layout`'s colour space), and for an RGB or gray profile whose
  // conversion moves no colour of a test grid by more than one step (an
  // sRGB profile, by its colorants and curves), except for kCmyk8 and kLab8
  // input, which always get a conversion: without a usable profile the
  // built-in press model for CMYK, and CIE L*a*b* to sRGB for Lab
  // (relative colorimetric: the Lab white becomes sRGB's white).
  static ColorTransform FromIcc(const uint8_t* icc, size_t size, PixelLayout layout);

  // A transform to sRGB for RGB input (kBgra8 or kRgb8) in the space with the
  // given chromaticities and the sRGB tone curve, relative colorimetric.
  // Returns the identity transform for sRGB's own chromaticities, for values
  // that do not make a colour space, and for other layouts.
  static ColorTransform FromChromaticities(const Chromaticities& space, PixelLayout layout);

  // FromIcc and FromChromaticities made once for equal arguments and shared:
  // a run asks for one file at several sizes, and building a transform can
  // cost more than applying it to a thumbnail (or be refused each time).
  // The last few are kept per process. Never nullptr.
  static std::shared_ptr<const ColorTransform> SharedFromIcc(const uint8_t* icc, size_t size, PixelLayout layout);
  static std::shared_ptr<const ColorTransform> SharedFromChromaticities(const Chromaticities& space,
                                                                        PixelLayout layout);

  // True when Apply only rearranges bytes (no colour change).
  bool is_identity() const;

  // Converts pixel_count pixels from `layout` in src to BGRA in dst (alpha 255
  // unless the input carries alpha). src and dst may be the same buffer for
  // the four-byte layouts (kBgra8, kCmyk8, kGrayBgra8, kLab8). Thread-safe.
  void Apply(const uint8_t* src, uint8_t* dst_bgra, size_t pixel_count) const;

 private:
  // FromIcc without the built-in fallback for Lab.
  static ColorTransform FromIccOnly(const uint8_t* icc, size_t size, PixelLayout layout);

  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Composites BGRA pixels over white in place and sets alpha to 255. Equal to
// averaging in premultiplied form and flattening afterwards, so reducing after
// this gives soft edges without a dark halo.
void FlattenOverWhite(uint8_t* bgra, size_t pixel_count);

}  // namespace color
}  // namespace tessera

#endif  // TESSERA_LIB_COLOR_COLOR_PROFILE_H_
