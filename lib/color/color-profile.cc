#include "lib/color/color-profile.h"

#include <lcms2.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "lib/color/icc-profile-check.h"

namespace tessera {
namespace color {
namespace {

struct ContextDeleter {
  void operator()(cmsContext context) const { cmsDeleteContext(context); }
};
struct ProfileDeleter {
  void operator()(void* profile) const { cmsCloseProfile(profile); }
};
struct TransformDeleter {
  void operator()(void* transform) const { cmsDeleteTransform(transform); }
};
using ContextPtr = std::unique_ptr<std::remove_pointer_t<cmsContext>, ContextDeleter>;
using ProfilePtr = std::unique_ptr<void, ProfileDeleter>;
using TransformPtr = std::unique_ptr<void, TransformDeleter>;

// lcms2 reports broken profiles through its log handler; a broken profile is
// an expected input here, so the messages are dropped.
void SilentLogHandler(cmsContext, cmsUInt32Number, const char*) {}

ContextPtr NewContext() {
  ContextPtr context(cmsCreateContext(nullptr, nullptr));
  if (context) cmsSetLogErrorHandlerTHR(context.get(), SilentLogHandler);
  return context;
}

cmsColorSpaceSignature ColorSpaceOf(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::kBgra8:
    case PixelLayout::kRgb8:
      return cmsSigRgbData;
    case PixelLayout::kGray8:
    case PixelLayout::kGrayBgra8:
    case PixelLayout::kGray16:
      return cmsSigGrayData;
    case PixelLayout::kCmyk8:
      return cmsSigCmykData;
    case PixelLayout::kLab8:
      return cmsSigLabData;
  }
  return cmsSigRgbData;
}

cmsUInt32Number LcmsFormatOf(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::kBgra8:
      return TYPE_BGRA_8;
    case PixelLayout::kRgb8:
      return TYPE_RGB_8;
    case PixelLayout::kGray8:
      return TYPE_GRAY_8;
    case PixelLayout::kCmyk8:
      return TYPE_CMYK_8;
    case PixelLayout::kGrayBgra8:
      // The gray value is the first byte; the other three are skipped.
      return COLORSPACE_SH(PT_GRAY) | CHANNELS_SH(1) | BYTES_SH(1) | EXTRA_SH(3);
    case PixelLayout::kGray16:
      return TYPE_GRAY_16;
    case PixelLayout::kLab8:
      return COLORSPACE_SH(PT_Lab) | CHANNELS_SH(3) | BYTES_SH(1) | EXTRA_SH(1);
  }
  return TYPE_BGRA_8;
}

// No one-pixel cache, so that one transform may serve several threads at
// once; alpha passed through where the input has it.
cmsUInt32Number TransformFlags(PixelLayout layout) {
  return cmsFLAGS_NOCACHE | (layout == PixelLayout::kBgra8 ? cmsFLAGS_COPY_ALPHA : 0);
}

size_t BytesPerPixel(PixelLayout layout) {
  switch (layout) {
    case PixelLayout::kBgra8:
    case PixelLayout::kCmyk8:
    case PixelLayout::kGrayBgra8:
    case PixelLayout::kLab8:
      return 4;
    case PixelLayout::kRgb8:
      return 3;
    case PixelLayout::kGray16:
      return 2;
    case PixelLayout::kGray8:
      return 1;
  }
  return 4;
}

// Built-in CMYK conversion for files without a usable profile: a Neugebauer
// model of a typical coated press. The eight solid overprints of C, M and Y
// are given in sRGB and mixed trilinearly by ink coverage (in encoded sRGB,
// which loosely accounts for dot gain); black ink then multiplies towards the
// colour of a solid K. Much closer to what a press gives than the naive
// 255 * (1 - C) * (1 - K), which makes pure cyan (0, 255, 255).
//
// Corners indexed by (c << 2) | (m << 1) | y, as R, G, B.
constexpr int kNeugebauer[8][3] = {
    {255, 255, 255},  // paper
    {255, 242, 0},    // Y
    {236, 0, 140},    // M
    {237, 28, 36},    // M + Y
    {0, 174, 239},    // C
    {0, 166, 81},     // C + Y
    {46, 49, 146},    // C + M
    {45, 40, 42},     // C + M + Y
};
constexpr int kSolidBlack[3] = {35, 31, 32};

// Linear interpolation with t in 0..255, values in 0..255 (scaled by 256).
inline int Lerp(int a, int b, int t) { return a * (255 - t) + b * t; }

void BuiltInCmykToBgra(const uint8_t* src, uint8_t* dst, size_t pixel_count) {
  for (size_t i = 0; i < pixel_count; ++i, src += 4, dst += 4) {
    const int c = src[0], m = src[1], y = src[2], k = src[3];
    int rgb[3];
    for (int ch = 0; ch < 3; ++ch) {
      // Along y, then m, then c; each step multiplies the scale by 255.
      const int64_t p00 = Lerp(kNeugebauer[0][ch], kNeugebauer[1][ch], y);
      const int64_t p01 = Lerp(kNeugebauer[2][ch], kNeugebauer[3][ch], y);
      const int64_t p10 = Lerp(kNeugebauer[4][ch], kNeugebauer[5][ch], y);
      const int64_t p11 = Lerp(kNeugebauer[6][ch], kNeugebauer[7][ch], y);
      const int64_t q0 = p00 * (255 - m) + p01 * m;
      const int64_t q1 = p10 * (255 - m) + p11 * m;
      const int64_t v = q0 * (255 - c) + q1 * c;  // scale 255^3
      // Black: multiply by 1 - k * (1 - solid / 255), i.e. by
      // (255 * 255 - k * (255 - solid)) / 255^2.
      const int64_t kf = 255 * 255 - k * (255 - kSolidBlack[ch]);
      constexpr int64_t kScale = int64_t{255} * 255 * 255 * 255 * 255;
      rgb[ch] = static_cast<int>((v * kf + kScale / 2) / kScale);
    }
    dst[0] = static_cast<uint8_t>(rgb[2]);
    dst[1] = static_cast<uint8_t>(rgb[1]);
    dst[2] = static_cast<uint8_t>(rgb[0]);
    dst[3] = 255;
  }
}

// Whether `transform` (from `layout` to BGRA) leaves every colour of a test
// grid within one step of where it was: the profile describes sRGB, or for
// gray input sRGB's tone curve, whatever it calls itself. Matrix-and-curve
// profiles are smooth, so a 17-step grid finds any real difference.
bool MovesNoColour(cmsHTRANSFORM transform, PixelLayout layout) {
  const bool gray = ColorSpaceOf(layout) == cmsSigGrayData;
  std::vector<uint8_t> input;
  std::vector<uint8_t> expected;  // BGR per probe
  auto add = [&](int r, int g, int b) {
    switch (layout) {
      case PixelLayout::kBgra8:
        input.insert(input.end(), {static_cast<uint8_t>(b), static_cast<uint8_t>(g), static_cast<uint8_t>(r), 255});
        break;
      case PixelLayout::kRgb8:
        input.insert(input.end(), {static_cast<uint8_t>(r), static_cast<uint8_t>(g), static_cast<uint8_t>(b)});
        break;
      case PixelLayout::kGray8:
        input.push_back(static_cast<uint8_t>(g));
        break;
      case PixelLayout::kGrayBgra8:
        input.insert(input.end(), {static_cast<uint8_t>(g), static_cast<uint8_t>(g), static_cast<uint8_t>(g), 255});
        break;
      case PixelLayout::kGray16: {
        const uint16_t v = static_cast<uint16_t>(g * 257);
        const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&v);
        input.insert(input.end(), bytes, bytes + 2);
        break;
      }
      case PixelLayout::kCmyk8:
      case PixelLayout::kLab8:
        return;
    }
    expected.insert(expected.end(), {static_cast<uint8_t>(b), static_cast<uint8_t>(g), static_cast<uint8_t>(r)});
  };
  if (gray) {
    for (int v = 0; v < 256; ++v) add(v, v, v);
  } else {
    constexpr int kSteps = 17;
    for (int r = 0; r < kSteps; ++r) {
      for (int g = 0; g < kSteps; ++g) {
        for (int b = 0; b < kSteps; ++b) add(r * 255 / (kSteps - 1), g * 255 / (kSteps - 1), b * 255 / (kSteps - 1));
      }
    }
  }
  const size_t count = expected.size() / 3;
  if (count == 0) return false;
  std::vector<uint8_t> output(count * 4);
  cmsDoTransform(transform, input.data(), output.data(), static_cast<cmsUInt32Number>(count));
  for (size_t i = 0; i < count; ++i) {
    for (int c = 0; c < 3; ++c) {
      if (std::abs(int{output[i * 4 + c]} - int{expected[i * 3 + c]}) > 1) return false;
    }
  }
  return true;
}

// The last few shared transforms, by their arguments.
class TransformCache {
 public:
  template <typename Make>
  std::shared_ptr<const ColorTransform> Get(const std::string& key, Make make) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      for (const Entry& entry : entries_) {
        if (entry.key == key) return entry.transform;
      }
    }
    // Built outside the lock: another thread may build the same one, and
    // either result is right.
    auto transform = std::make_shared<const ColorTransform>(make());
    std::lock_guard<std::mutex> lock(mutex_);
    if (entries_.size() >= kEntries) entries_.erase(entries_.begin());
    entries_.push_back(Entry{key, transform});
    return transform;
  }

 private:
  static constexpr size_t kEntries = 2;
  struct Entry {
    std::string key;
    std::shared_ptr<const ColorTransform> transform;
  };
  std::mutex mutex_;
  std::vector<Entry> entries_;
};

// Never destroyed: an abandoned decode may still use it at exit.
TransformCache& TheTransformCache() {
  static TransformCache* cache = new TransformCache;
  return *cache;
}

// CIE L*a*b* (D50, the ICC connection space) to sRGB, relative
// colorimetric: lcms2 adapts D50 to sRGB's D65 white, so a neutral stays
// neutral (converting Lab's XYZ with sRGB's matrix alone, as libtiff's
// RGBA interface does, turns white yellow).
TransformPtr BuiltInLabTransform(cmsContext context, PixelLayout layout) {
  ProfilePtr lab(cmsCreateLab4ProfileTHR(context, nullptr));
  ProfilePtr srgb(cmsCreate_sRGBProfileTHR(context));
  if (!lab || !srgb) return nullptr;
  return TransformPtr(cmsCreateTransformTHR(context, lab.get(), LcmsFormatOf(layout), srgb.get(), TYPE_BGRA_8,
                                            INTENT_RELATIVE_COLORIMETRIC, TransformFlags(layout)));
}

}  // namespace

struct ColorTransform::Impl {
  PixelLayout layout = PixelLayout::kBgra8;
  bool built_in_cmyk = false;
  // Declared before the transform so that it is destroyed after it.
  ContextPtr context;
  TransformPtr transform;
};

ColorTransform::ColorTransform() : impl_(new Impl) {}
ColorTransform::ColorTransform(ColorTransform&&) noexcept = default;
ColorTransform& ColorTransform::operator=(ColorTransform&&) noexcept = default;
ColorTransform::~ColorTransform() = default;

ColorTransform ColorTransform::FromIcc(const uint8_t* icc, size_t size, PixelLayout layout) {
  if (layout == PixelLayout::kLab8) {
    // Lab has no identity: a profile that cannot serve gives the built-in
    // conversion instead.
    ColorTransform result = FromIccOnly(icc, size, layout);
    if (!result.is_identity()) return result;
    ContextPtr context = NewContext();
    if (!context) return result;
    TransformPtr transform = BuiltInLabTransform(context.get(), layout);
    if (!transform) return result;
    result.impl_->context = std::move(context);
    result.impl_->transform = std::move(transform);
    return result;
  }
  return FromIccOnly(icc, size, layout);
}

ColorTransform ColorTransform::FromIccOnly(const uint8_t* icc, size_t size, PixelLayout layout) {
  ColorTransform result;
  result.impl_->layout = layout;
  result.impl_->built_in_cmyk = layout == PixelLayout::kCmyk8;
  if (!IccProfileIsAffordable(icc, size)) return result;

  ContextPtr context = NewContext();
  if (!context) return result;
  ProfilePtr input(cmsOpenProfileFromMemTHR(context.get(), icc, static_cast<cmsUInt32Number>(size)));
  if (!input) return result;
  if (cmsGetColorSpace(input.get()) != ColorSpaceOf(layout)) return result;
  const cmsProfileClassSignature device_class = cmsGetDeviceClass(input.get());
  if (device_class == cmsSigLinkClass || device_class == cmsSigAbstractClass ||
      device_class == cmsSigNamedColorClass) {
    return result;
  }
  ProfilePtr srgb(cmsCreate_sRGBProfileTHR(context.get()));
  if (!srgb) return result;

  const cmsUInt32Number intent =
      cmsIsIntentSupported(input.get(), INTENT_RELATIVE_COLORIMETRIC, LCMS_USED_AS_INPUT)
          ? INTENT_RELATIVE_COLORIMETRIC
          : INTENT_PERCEPTUAL;
  TransformPtr transform(cmsCreateTransformTHR(context.get(), input.get(), LcmsFormatOf(layout),
                                               srgb.get(), TYPE_BGRA_8, intent, TransformFlags(layout)));
  if (!transform) return result;
  result.impl_->built_in_cmyk = false;
  if (layout != PixelLayout::kCmyk8 && layout != PixelLayout::kLab8 && MovesNoColour(transform.get(), layout)) {
    return result;
  }
  // The transform keeps what it needs; the profiles may go now.
  result.impl_->context = std::move(context);
  result.impl_->transform = std::move(transform);
  return result;
}

ColorTransform ColorTransform::FromChromaticities(const Chromaticities& space, PixelLayout layout) {
  ColorTransform result;
  result.impl_->layout = layout;
  if (layout != PixelLayout::kBgra8 && layout != PixelLayout::kRgb8) return result;
  const double* xy[4] = {space.red, space.green, space.blue, space.white};
  static const double kSrgb[4][2] = {{0.64, 0.33}, {0.30, 0.60}, {0.15, 0.06}, {0.3127, 0.3290}};
  bool srgb_space = true;
  for (int i = 0; i < 4; ++i) {
    // y = 0 would divide by zero in the XYZ conversion.
    if (!(xy[i][0] > 0 && xy[i][0] < 1 && xy[i][1] > 0.001 && xy[i][1] < 1)) return result;
    srgb_space = srgb_space && std::fabs(xy[i][0] - kSrgb[i][0]) < 0.001 && std::fabs(xy[i][1] - kSrgb[i][1]) < 0.001;
  }
  if (srgb_space) return result;

  ContextPtr context = NewContext();
  if (!context) return result;
  const cmsCIExyY white = {space.white[0], space.white[1], 1.0};
  const cmsCIExyYTRIPLE primaries = {{space.red[0], space.red[1], 1.0},
                                     {space.green[0], space.green[1], 1.0},
                                     {space.blue[0], space.blue[1], 1.0}};
  // The sRGB curve: IEC 61966-2-1 as an ICC parametric curve of type 4.
  const cmsFloat64Number kSrgbCurve[5] = {2.4, 1.0 / 1.055, 0.055 / 1.055, 1.0 / 12.92, 0.04045};
  cmsToneCurve* curve = cmsBuildParametricToneCurve(context.get(), 4, kSrgbCurve);
  if (curve == nullptr) return result;
  cmsToneCurve* curves[3] = {curve, curve, curve};
  ProfilePtr input(cmsCreateRGBProfileTHR(context.get(), &white, &primaries, curves));
  cmsFreeToneCurve(curve);
  if (!input) return result;
  ProfilePtr srgb(cmsCreate_sRGBProfileTHR(context.get()));
  if (!srgb) return result;
  TransformPtr transform(cmsCreateTransformTHR(context.get(), input.get(), LcmsFormatOf(layout), srgb.get(),
                                               TYPE_BGRA_8, INTENT_RELATIVE_COLORIMETRIC, TransformFlags(layout)));
  if (!transform) return result;
  result.impl_->context = std::move(context);
  result.impl_->transform = std::move(transform);
  return result;
}

std::shared_ptr<const ColorTransform> ColorTransform::SharedFromIcc(const uint8_t* icc, size_t size,
                                                                    PixelLayout layout) {
  std::string key(1, static_cast<char>(layout));
  if (icc != nullptr && size <= kMaxIccProfileBytes) key.append(reinterpret_cast<const char*>(icc), size);
  return TheTransformCache().Get(key, [&] { return FromIcc(icc, size, layout); });
}

std::shared_ptr<const ColorTransform> ColorTransform::SharedFromChromaticities(const Chromaticities& space,
                                                                              PixelLayout layout) {
  std::string key(1, static_cast<char>(layout));
  key += "xy";
  key.append(reinterpret_cast<const char*>(&space), sizeof(space));
  return TheTransformCache().Get(key, [&] { return FromChromaticities(space, layout); });
}

bool ColorTransform::is_identity() const { return !impl_->transform && !impl_->built_in_cmyk; }

void ColorTransform::Apply(const uint8_t* src, uint8_t* dst_bgra, size_t pixel_count) const {
  const PixelLayout layout = impl_->layout;
  if (impl_->transform) {
    // lcms2 takes a 32-bit count; split huge runs.
    constexpr size_t kChunk = size_t{1} << 24;
    const size_t in_bpp = BytesPerPixel(layout);
    for (size_t done = 0; done < pixel_count; done += kChunk) {
      const size_t n = std::min(kChunk, pixel_count - done);
      cmsDoTransform(impl_->transform.get(), src + done * in_bpp, dst_bgra + done * 4,
                     static_cast<cmsUInt32Number>(n));
    }
    // Without an alpha channel on input lcms2 leaves the output's unset.
    if (layout != PixelLayout::kBgra8) {
      for (size_t i = 0; i < pixel_count; ++i) dst_bgra[i * 4 + 3] = 255;
    }
    return;
  }
  switch (layout) {
    case PixelLayout::kBgra8:
      if (src != dst_bgra) std::memcpy(dst_bgra, src, pixel_count * 4);
      break;
    case PixelLayout::kRgb8:
      for (size_t i = 0; i < pixel_count; ++i) {
        dst_bgra[i * 4 + 0] = src[i * 3 + 2];
        dst_bgra[i * 4 + 1] = src[i * 3 + 1];
        dst_bgra[i * 4 + 2] = src[i * 3 + 0];
        dst_bgra[i * 4 + 3] = 255;
      }
      break;
    case PixelLayout::kGray8:
      for (size_t i = 0; i < pixel_count; ++i) {
        dst_bgra[i * 4 + 0] = dst_bgra[i * 4 + 1] = dst_bgra[i * 4 + 2] = src[i];
        dst_bgra[i * 4 + 3] = 255;
      }
      break;
    case PixelLayout::kCmyk8:
      BuiltInCmykToBgra(src, dst_bgra, pixel_count);
      break;
    case PixelLayout::kGrayBgra8:
      for (size_t i = 0; i < pixel_count; ++i) {
        dst_bgra[i * 4 + 0] = dst_bgra[i * 4 + 1] = dst_bgra[i * 4 + 2] = src[i * 4];
        dst_bgra[i * 4 + 3] = 255;
      }
      break;
    case PixelLayout::kGray16:
      for (size_t i = 0; i < pixel_count; ++i) {
        uint16_t v;
        std::memcpy(&v, src + i * 2, 2);
        dst_bgra[i * 4 + 0] = dst_bgra[i * 4 + 1] = dst_bgra[i * 4 + 2] =
            static_cast<uint8_t>((uint32_t{v} * 255 + 32767) / 65535);
        dst_bgra[i * 4 + 3] = 255;
      }
      break;
    case PixelLayout::kLab8:
      // Only when lcms2 could not build the conversion: L* as gray.
      for (size_t i = 0; i < pixel_count; ++i) {
        dst_bgra[i * 4 + 0] = dst_bgra[i * 4 + 1] = dst_bgra[i * 4 + 2] = src[i * 4];
        dst_bgra[i * 4 + 3] = 255;
      }
      break;
  }
}

void FlattenOverWhite(uint8_t* bgra, size_t pixel_count) {
  for (size_t i = 0; i < pixel_count; ++i) {
    uint8_t* p = bgra + i * 4;
    const uint32_t a = p[3];
    const uint32_t white = 255 * (255 - a);
    for (int c = 0; c < 3; ++c) {
      // x / 255 rounded, exact for x <= 65535: (x + 128 + ((x + 128) >> 8)) >> 8.
      const uint32_t x = p[c] * a + white + 128;
      p[c] = static_cast<uint8_t>((x + (x >> 8)) >> 8);
    }
    p[3] = 255;
  }
}

}  // namespace color
}  // namespace tessera
