#include "lib/color/hdr-tone-map.h"

#include <algorithm>
#include <cmath>

namespace tessera {
namespace color {
namespace {

// Table sizes: linear light to bytes, indexed by its square root so that
// the steep start of the encoding curves (the pure power's above all) gets
// steps of a fraction of a byte, and scene luminance to HLG display gain.
constexpr int kEncodeSteps = 8192;
constexpr int kGainSteps = 4096;

// HLG's nominal display: 1000 cd/m² with a system gamma of 1.2.
constexpr double kHlgDisplayNits = 1000;
constexpr double kHlgSystemGamma = 1.2;
constexpr double kDefaultPqPeakNits = 1000;

// SMPTE ST 2084 EOTF: code value in [0, 1] to cd/m².
double PqToNits(double e) {
  constexpr double m1 = 2610.0 / 16384;
  constexpr double m2 = 2523.0 / 4096 * 128;
  constexpr double c1 = 3424.0 / 4096;
  constexpr double c2 = 2413.0 / 4096 * 32;
  constexpr double c3 = 2392.0 / 4096 * 32;
  const double p = std::pow(e, 1 / m2);
  return 10000 * std::pow(std::max(p - c1, 0.0) / (c2 - c3 * p), 1 / m1);
}

// ARIB STD-B67 inverse OETF: code value in [0, 1] to scene light in [0, 1].
double HlgToScene(double e) {
  constexpr double a = 0.17883277;
  constexpr double b = 1 - 4 * a;
  const double c = 0.5 - a * std::log(4 * a);
  return e <= 0.5 ? e * e / 3 : (std::exp((e - c) / a) + b) / 12;
}

double Encode(HdrEncoding encoding, double v) {
  if (encoding == HdrEncoding::kGamma24) return std::pow(v, 1 / 2.4);
  return v <= 0.0031308 ? 12.92 * v : 1.055 * std::pow(v, 1 / 2.4) - 0.055;
}

// The constants of a roll-off above its knee for a peak above 1 (relative
// to reference white), in the form Convert evaluates:
//   shoulder: knee + (1 - knee) * t * (1 + t * c[0]) / (1 + t), t = (x - knee) / (1 - knee)
//   Möbius:   c[2] * (x + c[0]) / (x + c[1])
// Both are the identity at the knee in value and slope and reach 1 at the peak.
void CurveConstants(HdrRollOff curve, double peak, double c[3]) {
  if (curve == HdrRollOff::kShoulder) {
    const double tp = (peak - kKnee) / (1 - kKnee);
    c[0] = 1 / (tp * tp);
    c[1] = c[2] = 0;
    return;
  }
  const double j = kMobiusKnee;
  c[0] = -j * j * (peak - 1) / (j * j - 2 * j + peak);
  c[1] = (j * j - 2 * j * peak + peak) / (peak - 1);
  c[2] = (c[1] * c[1] + 2 * c[1] * j + j * j) / (c[1] - c[0]);
}

double KneeOf(HdrRollOff curve) { return curve == HdrRollOff::kShoulder ? kKnee : kMobiusKnee; }

bool Invert(const double m[9], double out[9]) {
  const double det = m[0] * (m[4] * m[8] - m[5] * m[7]) - m[1] * (m[3] * m[8] - m[5] * m[6]) +
                     m[2] * (m[3] * m[7] - m[4] * m[6]);
  if (!(std::fabs(det) > 1e-12)) return false;
  const double adj[9] = {m[4] * m[8] - m[5] * m[7], m[2] * m[7] - m[1] * m[8], m[1] * m[5] - m[2] * m[4],
                         m[5] * m[6] - m[3] * m[8], m[0] * m[8] - m[2] * m[6], m[2] * m[3] - m[0] * m[5],
                         m[3] * m[7] - m[4] * m[6], m[1] * m[6] - m[0] * m[7], m[0] * m[4] - m[1] * m[3]};
  for (int i = 0; i < 9; ++i) out[i] = adj[i] / det;
  return true;
}

// The RGB to XYZ matrix of a colour space (rows X, Y, Z); false when the
// chromaticities do not make one.
bool RgbToXyz(const Chromaticities& c, double m[9]) {
  const double* xy[3] = {c.red, c.green, c.blue};
  double p[9];
  for (int i = 0; i < 3; ++i) {
    if (!(xy[i][1] > 1e-6)) return false;
    p[0 + i] = xy[i][0] / xy[i][1];
    p[3 + i] = 1;
    p[6 + i] = (1 - xy[i][0] - xy[i][1]) / xy[i][1];
  }
  if (!(c.white[1] > 1e-6)) return false;
  const double w[3] = {c.white[0] / c.white[1], 1, (1 - c.white[0] - c.white[1]) / c.white[1]};
  // Scale the primaries so that they add up to the white point.
  double inv[9];
  if (!Invert(p, inv)) return false;
  for (int i = 0; i < 3; ++i) {
    const double s = inv[3 * i] * w[0] + inv[3 * i + 1] * w[1] + inv[3 * i + 2] * w[2];
    for (int row = 0; row < 3; ++row) m[3 * row + i] = p[3 * row + i] * s;
  }
  return true;
}

constexpr Chromaticities kSrgb = {{0.64, 0.33}, {0.30, 0.60}, {0.15, 0.06}, {0.3127, 0.3290}};
constexpr Chromaticities kBt2020 = {{0.708, 0.292}, {0.170, 0.797}, {0.131, 0.046}, {0.3127, 0.3290}};

}  // namespace

bool IsHdrTransfer(int nclx_transfer, HdrTransfer* transfer) {
  if (nclx_transfer == static_cast<int>(HdrTransfer::kPq)) {
    *transfer = HdrTransfer::kPq;
    return true;
  }
  if (nclx_transfer == static_cast<int>(HdrTransfer::kHlg)) {
    *transfer = HdrTransfer::kHlg;
    return true;
  }
  return false;
}

double HdrToneMapper::RollOff(HdrRollOff curve, double x, double peak) {
  const double knee = KneeOf(curve);
  if (!(x > knee)) return x > 0 ? x : 0;
  if (peak <= 1) return std::min(x, 1.0);
  double c[3];
  CurveConstants(curve, peak, c);
  if (curve == HdrRollOff::kMobius) return std::min(c[2] * (x + c[0]) / (x + c[1]), 1.0);
  const double t = (x - knee) / (1 - knee);
  return std::min(knee + (1 - knee) * t * (1 + t * c[0]) / (1 + t), 1.0);
}

HdrToneMapper::HdrToneMapper(const HdrSource& source) {
  const int depth = std::min(std::max(source.bit_depth, 8), 16);
  max_code_ = (1u << depth) - 1;
  const bool hlg = source.transfer == HdrTransfer::kHlg;
  hlg_gain_by_luminance_ = hlg && source.rendering.hlg_gamma == HlgGamma::kLuminance;
  roll_off_ = source.rendering.roll_off;
  double white = source.rendering.reference_white_nits;
  if (!(white >= 1 && white <= 10000)) white = kReferenceWhiteNits;

  double to_xyz[9];
  if (!RgbToXyz(source.primaries, to_xyz)) RgbToXyz(kBt2020, to_xyz);
  double srgb_to_xyz[9];
  double from_xyz[9];
  RgbToXyz(kSrgb, srgb_to_xyz);
  Invert(srgb_to_xyz, from_xyz);
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) {
      double v = 0;
      for (int k = 0; k < 3; ++k) v += from_xyz[3 * row + k] * to_xyz[3 * k + col];
      matrix_[3 * row + col] = static_cast<float>(v);
    }
  }
  for (int i = 0; i < 3; ++i) luma_[i] = static_cast<float>(to_xyz[3 + i]);

  linear_.resize(max_code_ + 1);
  for (uint32_t code = 0; code <= max_code_; ++code) {
    const double e = static_cast<double>(code) / max_code_;
    double v;
    if (!hlg) {
      v = PqToNits(e) / white;
    } else if (hlg_gain_by_luminance_) {
      v = HlgToScene(e);  // Convert applies the gain
    } else {
      v = kHlgDisplayNits / white * std::pow(HlgToScene(e), kHlgSystemGamma);
    }
    linear_[code] = static_cast<float>(v);
  }
  double peak_nits = source.peak_nits > 0 ? source.peak_nits : kDefaultPqPeakNits;
  if (hlg) peak_nits = kHlgDisplayNits;
  if (hlg_gain_by_luminance_) {
    hlg_gain_.resize(kGainSteps);
    for (int i = 0; i < kGainSteps; ++i) {
      const double scene_luminance = static_cast<double>(i) / (kGainSteps - 1);
      hlg_gain_[i] =
          static_cast<float>(kHlgDisplayNits / white * std::pow(scene_luminance, kHlgSystemGamma - 1));
    }
  }
  const double peak = std::min(std::max(peak_nits, 1.0), 10000.0) / white;
  peak_ = static_cast<float>(peak);
  if (peak > 1) {
    double c[3];
    CurveConstants(roll_off_, peak, c);
    for (int i = 0; i < 3; ++i) curve_[i] = static_cast<float>(c[i]);
  }

  encode_.resize(kEncodeSteps);
  for (int i = 0; i < kEncodeSteps; ++i) {
    const double root = static_cast<double>(i) / (kEncodeSteps - 1);
    encode_[i] = static_cast<uint8_t>(std::lround(255 * Encode(source.rendering.encoding, root * root)));
  }
}

template <typename Sample>
void HdrToneMapper::Convert(const Sample* r, const Sample* g, const Sample* b, size_t count, uint8_t* bgra) const {
  const float* linear = linear_.data();
  const uint8_t* encode = encode_.data();
  const float* m = matrix_;
  // The roll-off of RollOff, in float.
  const bool mobius = roll_off_ == HdrRollOff::kMobius;
  const float knee = static_cast<float>(KneeOf(roll_off_));
  const float c0 = curve_[0], c1 = curve_[1], c2 = curve_[2];
  const float scale = kEncodeSteps - 1;
  for (size_t i = 0; i < count; ++i) {
    float lr = linear[std::min<uint32_t>(r[i], max_code_)];
    float lg = linear[std::min<uint32_t>(g[i], max_code_)];
    float lb = linear[std::min<uint32_t>(b[i], max_code_)];
    if (hlg_gain_by_luminance_) {
      const float y = std::min(std::max(luma_[0] * lr + luma_[1] * lg + luma_[2] * lb, 0.0f), 1.0f);
      const float gain = hlg_gain_[static_cast<int>(y * (kGainSteps - 1) + 0.5f)];
      lr *= gain;
      lg *= gain;
      lb *= gain;
    }
    float out_r = std::max(m[0] * lr + m[1] * lg + m[2] * lb, 0.0f);
    float out_g = std::max(m[3] * lr + m[4] * lg + m[5] * lb, 0.0f);
    float out_b = std::max(m[6] * lr + m[7] * lg + m[8] * lb, 0.0f);
    const float brightest = std::max(out_r, std::max(out_g, out_b));
    if (brightest > knee) {
      float mapped;
      if (peak_ <= 1) {
        mapped = std::min(brightest, 1.0f);
      } else if (mobius) {
        mapped = std::min(c2 * (brightest + c0) / (brightest + c1), 1.0f);
      } else {
        const float t = (brightest - knee) / (1 - knee);
        mapped = std::min(knee + (1 - knee) * t * (1 + t * c0) / (1 + t), 1.0f);
      }
      const float s = mapped / brightest;
      out_r = std::min(out_r * s, 1.0f);
      out_g = std::min(out_g * s, 1.0f);
      out_b = std::min(out_b * s, 1.0f);
    }
    uint8_t* p = bgra + 4 * i;
    p[0] = encode[static_cast<int>(std::sqrt(out_b) * scale + 0.5f)];
    p[1] = encode[static_cast<int>(std::sqrt(out_g) * scale + 0.5f)];
    p[2] = encode[static_cast<int>(std::sqrt(out_r) * scale + 0.5f)];
  }
}

void HdrToneMapper::ConvertRow(const uint16_t* r, const uint16_t* g, const uint16_t* b, size_t count,
                               uint8_t* bgra) const {
  Convert(r, g, b, count, bgra);
}

void HdrToneMapper::ConvertRow(const uint8_t* r, const uint8_t* g, const uint8_t* b, size_t count,
                               uint8_t* bgra) const {
  Convert(r, g, b, count, bgra);
}

}  // namespace color
}  // namespace tessera
