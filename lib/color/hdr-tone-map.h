// HDR pictures (PQ or HLG transfer, as nclx colour descriptions and video
// streams declare them) turned into 8-bit sRGB one row at a time, so that no
// float copy of the picture is ever made. Stills and video frames share it.
//
// Each sample goes to linear light relative to a reference level (the
// rendering's reference white), the source primaries (BT.2020, Display P3,
// ...) to sRGB's in linear light, and the brightest channel of each pixel
// through a highlight roll-off: values up to the curve's knee stay as they
// are, brighter ones are compressed smoothly (continuous in value and slope
// at the knee) so that the content's peak lands on white; all three
// channels are scaled by the same factor, which keeps hue and saturation.
// The result is encoded with the rendering's curve.
//
// Two renderings: stills put diffuse white (203 cd/m², where both PQ and
// HLG put it) at sRGB white before an extended Reinhard shoulder above
// kKnee, encoded with the sRGB curve, HLG's system gamma on luminance;
// video frames keep the look their thumbnails have always had: 100 cd/m² at
// white, a Möbius curve above kMobiusKnee, encoded for a display of gamma
// 2.4, HLG's system gamma on each channel.
#ifndef TESSERA_LIB_COLOR_HDR_TONE_MAP_H_
#define TESSERA_LIB_COLOR_HDR_TONE_MAP_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "lib/color/color-profile.h"

namespace tessera {
namespace color {

// nclx transfer characteristics (ITU-T H.273) of the HDR transfers.
enum class HdrTransfer {
  kPq = 16,   // SMPTE ST 2084, absolute: code values are cd/m² up to 10000
  kHlg = 18,  // ARIB STD-B67, relative: scene light, shown on a 1000 cd/m² display
};

// The transfer for an nclx transfer characteristics value; false for SDR
// transfers.
bool IsHdrTransfer(int nclx_transfer, HdrTransfer* transfer);

// How highlights above the knee are compressed.
enum class HdrRollOff {
  kShoulder,  // extended Reinhard above kKnee
  kMobius,    // a Möbius transform above kMobiusKnee
};

// The curve that encodes the tone-mapped linear light.
enum class HdrEncoding {
  kSrgb,     // the sRGB curve
  kGamma24,  // a pure 1/2.4 power: the inverse of an ideal gamma 2.4 display
};

// How HLG's system gamma (1.2 on its 1000 cd/m² display) is applied.
enum class HlgGamma {
  kLuminance,  // to the luminance, scaling the three channels alike (keeps hue)
  kChannels,   // to each channel (saturated colours get more saturated)
};

struct HdrRendering {
  double reference_white_nits;  // cd/m² that become linear 1.0 before the roll-off
  HdrRollOff roll_off;
  HdrEncoding encoding;
  HlgGamma hlg_gamma;
};

// Where diffuse white sits in HDR content (cd/m²).
constexpr double kReferenceWhiteNits = 203;
// Linear level up to which the shoulder is the identity.
constexpr double kKnee = 0.6;
// Linear level up to which the Möbius curve is the identity.
constexpr double kMobiusKnee = 0.3;

constexpr HdrRendering kStillRendering = {kReferenceWhiteNits, HdrRollOff::kShoulder, HdrEncoding::kSrgb,
                                          HlgGamma::kLuminance};
constexpr HdrRendering kVideoRendering = {100, HdrRollOff::kMobius, HdrEncoding::kGamma24, HlgGamma::kChannels};

struct HdrSource {
  HdrTransfer transfer = HdrTransfer::kPq;
  Chromaticities primaries = {{0.708, 0.292}, {0.170, 0.797}, {0.131, 0.046}, {0.3127, 0.3290}};  // BT.2020
  int bit_depth = 10;     // of the samples, 8 to 16
  double peak_nits = 0;   // brightest content (MaxCLL or mastering peak); 0: not known
  HdrRendering rendering = kStillRendering;
};

class HdrToneMapper {
 public:
  // Prepares the tables for `source`. Primaries that do not make a colour
  // space are taken as BT.2020's; an unknown PQ peak as 1000 cd/m², and
  // HLG's as its nominal display's, 1000 cd/m². A reference white outside
  // 1 to 10000 cd/m² is taken as kReferenceWhiteNits.
  explicit HdrToneMapper(const HdrSource& source);

  // Converts `count` pixels given as three planes of samples to sRGB in the
  // B, G and R bytes of `bgra` (A is left alone). Samples above the bit
  // depth's maximum count as the maximum. Thread-compatible.
  void ConvertRow(const uint16_t* r, const uint16_t* g, const uint16_t* b, size_t count, uint8_t* bgra) const;
  void ConvertRow(const uint8_t* r, const uint8_t* g, const uint8_t* b, size_t count, uint8_t* bgra) const;

  // The roll-off: linear light relative to reference white in, linear sRGB
  // in [0, 1] out, for content whose brightest value is `peak` (also
  // relative to reference white). Content no brighter than white is only
  // clipped.
  static double RollOff(HdrRollOff curve, double x, double peak);

 private:
  template <typename Sample>
  void Convert(const Sample* r, const Sample* g, const Sample* b, size_t count, uint8_t* bgra) const;

  uint32_t max_code_ = 1023;
  bool hlg_gain_by_luminance_ = false;
  HdrRollOff roll_off_ = HdrRollOff::kShoulder;
  float peak_ = 1;
  float curve_[3] = {};  // the roll-off's constants for peak_ (see Convert)
  float matrix_[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // source to sRGB primaries, linear
  float luma_[3] = {0.2627f, 0.6780f, 0.0593f};     // source luminance weights (HLG)
  std::vector<float> linear_;                      // code value -> linear light (display light for
                                                   // HLG with HlgGamma::kChannels, else scene light)
  std::vector<float> hlg_gain_;                    // scene luminance -> display gain
  std::vector<uint8_t> encode_;                    // square root of linear [0, 1] -> byte
};

}  // namespace color
}  // namespace tessera

#endif  // TESSERA_LIB_COLOR_HDR_TONE_MAP_H_
