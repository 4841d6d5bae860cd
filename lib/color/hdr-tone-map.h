// HDR stills (PQ or HLG transfer, as nclx colour descriptions declare them)
// turned into 8-bit sRGB one row at a time, so that no float copy of the
// picture is ever made.
//
// Each sample goes to linear light relative to the HDR reference white
// (203 cd/m², where both PQ and HLG put diffuse white), the source primaries
// (BT.2020, Display P3, ...) to sRGB's in linear light, and the brightest
// channel of each pixel through a highlight roll-off: values up to kKnee of
// sRGB white stay as they are, brighter ones are compressed smoothly (an
// extended Reinhard shoulder, continuous in value and slope at the knee) so
// that the content's peak lands on white; all three channels are scaled by
// the same factor, which keeps hue and saturation. The result is encoded
// with the sRGB curve.
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

struct HdrSource {
  HdrTransfer transfer = HdrTransfer::kPq;
  Chromaticities primaries = {{0.708, 0.292}, {0.170, 0.797}, {0.131, 0.046}, {0.3127, 0.3290}};  // BT.2020
  int bit_depth = 10;     // of the samples, 8 to 16
  double peak_nits = 0;   // brightest content (MaxCLL or mastering peak); 0: not known
};

// Where diffuse white sits in HDR content (cd/m²), and so what becomes sRGB white
// before the roll-off.
constexpr double kReferenceWhiteNits = 203;
// Linear sRGB level up to which the tone curve is the identity.
constexpr double kKnee = 0.6;

class HdrToneMapper {
 public:
  // Prepares the tables for `source`. Primaries that do not make a colour
  // space are taken as BT.2020's; an unknown PQ peak as 1000 cd/m².
  explicit HdrToneMapper(const HdrSource& source);

  // Converts `count` pixels given as three planes of samples to sRGB in the
  // B, G and R bytes of `bgra` (A is left alone). Samples above the bit
  // depth's maximum count as the maximum. Thread-compatible.
  void ConvertRow(const uint16_t* r, const uint16_t* g, const uint16_t* b, size_t count, uint8_t* bgra) const;
  void ConvertRow(const uint8_t* r, const uint8_t* g, const uint8_t* b, size_t count, uint8_t* bgra) const;

  // The roll-off: linear light relative to reference white in, linear sRGB
  // in [0, 1] out, for content whose brightest value is `peak` (also
  // relative to reference white).
  static double RollOff(double x, double peak);

 private:
  template <typename Sample>
  void Convert(const Sample* r, const Sample* g, const Sample* b, size_t count, uint8_t* bgra) const;

  uint32_t max_code_ = 1023;
  bool hlg_ = false;
  float peak_ = 1;
  float matrix_[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // source to sRGB primaries, linear
  float luma_[3] = {0.2627f, 0.6780f, 0.0593f};     // source luminance weights (HLG)
  std::vector<float> linear_;                      // code value -> linear light
  std::vector<float> hlg_gain_;                    // scene luminance -> display gain
  std::vector<uint8_t> encode_;                    // linear [0, 1] -> sRGB byte
};

}  // namespace color
}  // namespace tessera

#endif  // TESSERA_LIB_COLOR_HDR_TONE_MAP_H_
