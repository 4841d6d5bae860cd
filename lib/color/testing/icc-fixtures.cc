#include "lib/color/testing/icc-fixtures.h"

#include <lcms2.h>

#include "lib/utility/testing/byte-writers.h"

namespace tessera {
namespace color {
namespace testing {

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
  std::string bytes;
  cmsUInt32Number size = 0;
  if (profile != nullptr && cmsSaveProfileToMem(profile, nullptr, &size)) {
    bytes.resize(size);
    cmsSaveProfileToMem(profile, &bytes[0], &size);
  }
  if (profile != nullptr) cmsCloseProfile(profile);
  return bytes;
}

}  // namespace testing
}  // namespace color
}  // namespace tessera
