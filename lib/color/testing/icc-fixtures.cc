#include "lib/color/testing/icc-fixtures.h"

#include <lcms2.h>

#include "lib/utility/testing/byte-writers.h"

namespace tessera {
namespace color {
namespace testing {
namespace {

std::string Serialise(cmsHPROFILE profile) {
  std::string bytes;
  cmsUInt32Number size = 0;
  if (profile != nullptr && cmsSaveProfileToMem(profile, nullptr, &size)) {
    bytes.resize(size);
    cmsSaveProfileToMem(profile, &bytes[0], &size);
  }
  if (profile != nullptr) cmsCloseProfile(profile);
  return bytes;
}

}  // namespace

std::string MultiProcessIccProfile(uint32_t elements) {
  const auto put32 = tessera::testing::PutBe32At;
  const auto put16 = tessera::testing::PutBe16At;
  std::string tag(16 + size_t{8} * elements, '\0');
  tag.replace(0, 4, "mpet");
  put16(&tag, 8, 3);
  put16(&tag, 10, 3);
  put32(&tag, 12, elements);
  std::string matrix(12 + 12 * 4, '\0');
  matrix.replace(0, 4, "matf");
  put16(&matrix, 8, 3);
  put16(&matrix, 10, 3);
  for (int i = 0; i < 3; ++i) put32(&matrix, 12 + 16 * i, 0x3F800000);  // identity, floats
  for (uint32_t i = 0; i < elements; ++i) {
    put32(&tag, 16 + size_t{8} * i, static_cast<uint32_t>(tag.size()));
    put32(&tag, 20 + size_t{8} * i, static_cast<uint32_t>(matrix.size()));
  }
  tag += matrix;
  std::string profile(128 + 4 + 12, '\0');
  profile.replace(12, 12, "mntrRGB XYZ ");
  profile.replace(36, 4, "acsp");
  put32(&profile, 8, 0x04300000);
  put32(&profile, 68, 0x0000F6D6);  // D50 illuminant
  put32(&profile, 72, 0x00010000);
  put32(&profile, 76, 0x0000D32D);
  put32(&profile, 128, 1);
  profile.replace(132, 4, "D2B0");
  put32(&profile, 136, static_cast<uint32_t>(profile.size()));
  put32(&profile, 140, static_cast<uint32_t>(tag.size()));
  profile += tag;
  put32(&profile, 0, static_cast<uint32_t>(profile.size()));
  return profile;
}

std::string DisplayP3Profile() {
  const cmsCIExyY white = {0.3127, 0.3290, 1.0};  // D65
  const cmsCIExyYTRIPLE primaries = {{0.680, 0.320, 1.0}, {0.265, 0.690, 1.0}, {0.150, 0.060, 1.0}};
  const cmsFloat64Number srgb_curve[5] = {2.4, 1.0 / 1.055, 0.055 / 1.055, 1.0 / 12.92, 0.04045};
  cmsToneCurve* curve = cmsBuildParametricToneCurve(nullptr, 4, srgb_curve);
  cmsToneCurve* curves[3] = {curve, curve, curve};
  cmsHPROFILE profile = cmsCreateRGBProfile(&white, &primaries, curves);
  cmsFreeToneCurve(curve);
  return Serialise(profile);
}

namespace {

// The press model at one CMYK node: the overprints mixed by ink coverage
// (in encoded sRGB), black multiplying, then to Lab through `to_lab` (sRGB
// float to Lab).
int SamplePress(const cmsUInt16Number in[], cmsUInt16Number out[], void* to_lab) {
  const double c = in[0] / 65535.0, m = in[1] / 65535.0, y = in[2] / 65535.0, k = in[3] / 65535.0;
  cmsFloat32Number rgb[3];
  for (int ch = 0; ch < 3; ++ch) {
    double v = 0;
    for (int corner = 0; corner < 8; ++corner) {
      const double weight = ((corner & 4) ? c : 1 - c) * ((corner & 2) ? m : 1 - m) * ((corner & 1) ? y : 1 - y);
      v += weight * kPressOverprints[corner][ch];
    }
    v *= 1 - k * (1 - kPressBlack / 255.0);
    rgb[ch] = static_cast<cmsFloat32Number>(v / 255);
  }
  cmsCIELab lab;
  cmsDoTransform(static_cast<cmsHTRANSFORM>(to_lab), rgb, &lab, 1);
  cmsFloat2LabEncoded(out, &lab);
  return 1;
}

}  // namespace

std::string PressCmykProfile() {
  cmsHPROFILE srgb = cmsCreate_sRGBProfile();
  cmsHPROFILE lab = cmsCreateLab4Profile(nullptr);
  cmsHTRANSFORM to_lab = cmsCreateTransform(srgb, TYPE_RGB_FLT, lab, TYPE_Lab_DBL, INTENT_RELATIVE_COLORIMETRIC, 0);
  cmsCloseProfile(srgb);
  cmsCloseProfile(lab);
  if (to_lab == nullptr) return "";
  cmsHPROFILE profile = cmsCreateProfilePlaceholder(nullptr);
  cmsSetProfileVersion(profile, 2.1);
  cmsSetDeviceClass(profile, cmsSigOutputClass);
  cmsSetColorSpace(profile, cmsSigCmykData);
  cmsSetPCS(profile, cmsSigLabData);
  cmsPipeline* lut = cmsPipelineAlloc(nullptr, 4, 3);
  cmsStage* table = cmsStageAllocCLut16bit(nullptr, 9, 4, 3, nullptr);
  cmsStageSampleCLut16bit(table, SamplePress, to_lab, 0);
  cmsPipelineInsertStage(lut, cmsAT_BEGIN, table);
  cmsWriteTag(profile, cmsSigAToB0Tag, lut);
  cmsWriteTag(profile, cmsSigAToB1Tag, lut);
  cmsWriteTag(profile, cmsSigMediaWhitePointTag, cmsD50_XYZ());
  cmsPipelineFree(lut);
  cmsDeleteTransform(to_lab);
  return Serialise(profile);
}

std::string GrayGammaProfile(double gamma) {
  cmsToneCurve* curve = cmsBuildGamma(nullptr, gamma);
  cmsHPROFILE profile = cmsCreateGrayProfile(cmsD50_xyY(), curve);
  cmsFreeToneCurve(curve);
  return Serialise(profile);
}

}  // namespace testing
}  // namespace color
}  // namespace tessera
