#include "lib/color/color-profile.h"

#include <lcms2.h>

#include <cstdint>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/color/testing/icc-fixtures.h"

namespace tessera {
namespace color {
namespace {

// Serialises `profile` and releases it with `curve`.
std::vector<uint8_t> Save(cmsHPROFILE profile, cmsToneCurve* curve) {
  cmsUInt32Number size = 0;
  cmsSaveProfileToMem(profile, nullptr, &size);
  std::vector<uint8_t> bytes(size);
  cmsSaveProfileToMem(profile, bytes.data(), &size);
  cmsCloseProfile(profile);
  if (curve != nullptr) cmsFreeToneCurve(curve);
  return bytes;
}

std::vector<uint8_t> Bytes(const std::string& profile) { return std::vector<uint8_t>(profile.begin(), profile.end()); }
std::vector<uint8_t> MakeP3Profile() { return Bytes(testing::DisplayP3Profile()); }
std::vector<uint8_t> MakeGrayProfile() { return Bytes(testing::GrayGammaProfile(2.2)); }

TEST(ColorTransformTest, UnusableProfilesGiveIdentity) {
  std::vector<uint8_t> garbage(600, 0x5a);
  const std::vector<uint8_t> p3 = MakeP3Profile();
  std::vector<uint8_t> truncated(p3.begin(), p3.begin() + p3.size() / 2);

  EXPECT_TRUE(ColorTransform::FromIcc(nullptr, 0, PixelLayout::kRgb8).is_identity());
  EXPECT_TRUE(ColorTransform::FromIcc(garbage.data(), garbage.size(), PixelLayout::kRgb8).is_identity());
  EXPECT_TRUE(
      ColorTransform::FromIcc(truncated.data(), truncated.size(), PixelLayout::kBgra8).is_identity());
  // An RGB profile does not describe gray pixels.
  EXPECT_TRUE(ColorTransform::FromIcc(p3.data(), p3.size(), PixelLayout::kGray8).is_identity());

  // The identity still rearranges the bytes into BGRA.
  const ColorTransform rgb = ColorTransform::FromIcc(garbage.data(), garbage.size(), PixelLayout::kRgb8);
  const uint8_t src[6] = {10, 20, 30, 40, 50, 60};
  uint8_t dst[8];
  rgb.Apply(src, dst, 2);
  EXPECT_EQ(std::vector<uint8_t>(dst, dst + 8), (std::vector<uint8_t>{30, 20, 10, 255, 60, 50, 40, 255}));

  const ColorTransform gray = ColorTransform::FromIcc(nullptr, 0, PixelLayout::kGray8);
  const uint8_t g[1] = {77};
  gray.Apply(g, dst, 1);
  EXPECT_EQ(std::vector<uint8_t>(dst, dst + 4), (std::vector<uint8_t>{77, 77, 77, 255}));
}

TEST(ColorTransformTest, WideGamutRedIsClippedIntoSrgb) {
  const std::vector<uint8_t> p3 = MakeP3Profile();
  const ColorTransform rgb = ColorTransform::FromIcc(p3.data(), p3.size(), PixelLayout::kRgb8);
  ASSERT_FALSE(rgb.is_identity());
  // Saturated P3 red lies outside sRGB: it clips to red while mid grey stays grey.
  const uint8_t src[6] = {255, 0, 0, 128, 128, 128};
  uint8_t dst[8];
  rgb.Apply(src, dst, 2);
  EXPECT_EQ(dst[2], 255);
  EXPECT_EQ(dst[3], 255);
  EXPECT_NEAR(dst[4], 128, 2);
  EXPECT_NEAR(dst[5], 128, 2);
  EXPECT_NEAR(dst[6], 128, 2);

  // A less saturated P3 red becomes a more saturated sRGB one.
  const uint8_t mid_red[3] = {200, 60, 60};
  rgb.Apply(mid_red, dst, 1);
  EXPECT_GT(dst[2], 200);
  EXPECT_LT(dst[1], 60);

  // BGRA input keeps its alpha and may be converted in place.
  const ColorTransform bgra = ColorTransform::FromIcc(p3.data(), p3.size(), PixelLayout::kBgra8);
  uint8_t pixel[4] = {60, 60, 200, 99};
  bgra.Apply(pixel, pixel, 1);
  EXPECT_GT(pixel[2], 200);
  EXPECT_EQ(pixel[3], 99);
}

// A profile that describes sRGB is recognised by what it does, whatever it
// is called and however its curves are stored, and converts nothing.
TEST(ColorTransformTest, ProfilesThatDescribeSrgbAreSkipped) {
  cmsToneCurve* srgb_curve = nullptr;
  {
    const cmsFloat64Number params[5] = {2.4, 1 / 1.055, 0.055 / 1.055, 1 / 12.92, 0.04045};
    srgb_curve = cmsBuildParametricToneCurve(nullptr, 4, params);
  }
  // The curve as a 1024-entry table, as cameras embed it.
  std::vector<cmsUInt16Number> table(1024);
  for (size_t i = 0; i < table.size(); ++i) {
    table[i] = cmsEvalToneCurve16(srgb_curve, static_cast<cmsUInt16Number>(i * 65535 / 1023));
  }
  cmsToneCurve* tabulated = cmsBuildTabulatedToneCurve16(nullptr, 1024, table.data());
  cmsToneCurve* curves[3] = {tabulated, tabulated, tabulated};
  const cmsCIExyY d65 = {0.3127, 0.3290, 1.0};
  const cmsCIExyYTRIPLE srgb_primaries = {{0.64, 0.33, 1.0}, {0.30, 0.60, 1.0}, {0.15, 0.06, 1.0}};
  const std::vector<uint8_t> camera_srgb = Save(cmsCreateRGBProfile(&d65, &srgb_primaries, curves), tabulated);
  const std::vector<uint8_t> builtin_srgb = Save(cmsCreate_sRGBProfile(), nullptr);
  const std::vector<uint8_t> srgb_gray = Save(cmsCreateGrayProfile(cmsD50_xyY(), srgb_curve), nullptr);
  cmsFreeToneCurve(srgb_curve);
  const std::vector<uint8_t> p3 = MakeP3Profile();
  const std::vector<uint8_t> gamma22_gray = MakeGrayProfile();

  for (PixelLayout layout : {PixelLayout::kBgra8, PixelLayout::kRgb8}) {
    EXPECT_TRUE(ColorTransform::FromIcc(camera_srgb.data(), camera_srgb.size(), layout).is_identity());
    EXPECT_TRUE(ColorTransform::FromIcc(builtin_srgb.data(), builtin_srgb.size(), layout).is_identity());
    EXPECT_FALSE(ColorTransform::FromIcc(p3.data(), p3.size(), layout).is_identity());
  }
  for (PixelLayout layout : {PixelLayout::kGray8, PixelLayout::kGrayBgra8}) {
    EXPECT_TRUE(ColorTransform::FromIcc(srgb_gray.data(), srgb_gray.size(), layout).is_identity());
    EXPECT_FALSE(ColorTransform::FromIcc(gamma22_gray.data(), gamma22_gray.size(), layout).is_identity());
  }
}

// A run converts one file at several sizes: the transform is made once.
TEST(ColorTransformTest, SharedTransformsAreMadeOncePerProfileAndLayout) {
  const std::vector<uint8_t> p3 = MakeP3Profile();
  const auto first = ColorTransform::SharedFromIcc(p3.data(), p3.size(), PixelLayout::kBgra8);
  EXPECT_EQ(first, ColorTransform::SharedFromIcc(p3.data(), p3.size(), PixelLayout::kBgra8));
  EXPECT_NE(first, ColorTransform::SharedFromIcc(p3.data(), p3.size(), PixelLayout::kRgb8));
  const auto none = ColorTransform::SharedFromIcc(nullptr, 0, PixelLayout::kBgra8);
  ASSERT_TRUE(none);
  EXPECT_TRUE(none->is_identity());
  const Chromaticities p3_space = {{0.680, 0.320}, {0.265, 0.690}, {0.150, 0.060}, {0.3127, 0.3290}};
  const auto nclx = ColorTransform::SharedFromChromaticities(p3_space, PixelLayout::kBgra8);
  EXPECT_FALSE(nclx->is_identity());
  EXPECT_EQ(nclx, ColorTransform::SharedFromChromaticities(p3_space, PixelLayout::kBgra8));

  // Reduced gray in BGRA converts in place like gray bytes do.
  const std::vector<uint8_t> gray = MakeGrayProfile();
  const ColorTransform expanded = ColorTransform::FromIcc(gray.data(), gray.size(), PixelLayout::kGrayBgra8);
  const ColorTransform packed = ColorTransform::FromIcc(gray.data(), gray.size(), PixelLayout::kGray8);
  uint8_t pixels[8] = {40, 40, 40, 255, 200, 200, 200, 255};
  const uint8_t values[2] = {40, 200};
  uint8_t expected[8];
  packed.Apply(values, expected, 2);
  expanded.Apply(pixels, pixels, 2);
  EXPECT_EQ(std::vector<uint8_t>(pixels, pixels + 8), std::vector<uint8_t>(expected, expected + 8));
}

TEST(ColorTransformTest, GrayProfileIsUsed) {
  const std::vector<uint8_t> icc = MakeGrayProfile();
  const ColorTransform gray = ColorTransform::FromIcc(icc.data(), icc.size(), PixelLayout::kGray8);
  ASSERT_FALSE(gray.is_identity());
  const uint8_t src[3] = {0, 128, 255};
  uint8_t dst[12];
  gray.Apply(src, dst, 3);
  EXPECT_LE(dst[0], 2);
  EXPECT_GE(dst[8], 253);
  EXPECT_EQ(dst[4], dst[5]);
  EXPECT_EQ(dst[7], 255);
}

TEST(ColorTransformTest, BuiltInCmykIsSensible) {
  const ColorTransform cmyk = ColorTransform::FromIcc(nullptr, 0, PixelLayout::kCmyk8);
  EXPECT_FALSE(cmyk.is_identity());
  // white, solid black, cyan, red (M + Y), 50% grey by K alone
  const uint8_t src[20] = {0, 0, 0, 0, 0, 0, 0, 255, 255, 0, 0, 0, 0, 255, 255, 0, 0, 0, 0, 128};
  uint8_t dst[20];
  cmyk.Apply(src, dst, 5);
  const uint8_t* white = dst;
  const uint8_t* black = dst + 4;
  const uint8_t* cyan = dst + 8;
  const uint8_t* red = dst + 12;
  const uint8_t* grey = dst + 16;
  EXPECT_EQ(std::vector<uint8_t>(white, white + 4), (std::vector<uint8_t>{255, 255, 255, 255}));
  EXPECT_LT(black[0] + black[1] + black[2], 3 * 45);
  EXPECT_LT(cyan[2], 40);   // little red
  EXPECT_GT(cyan[0], 200);  // much blue
  EXPECT_GT(cyan[1], 120);
  EXPECT_LT(cyan[1], cyan[0]);  // press cyan is not (0, 255, 255)
  EXPECT_GT(red[2], 200);
  EXPECT_LT(red[1], 60);
  EXPECT_NEAR(grey[0], grey[2], 4);  // near neutral
  EXPECT_GT(grey[1], 100);
  EXPECT_LT(grey[1], 180);
  for (int i = 0; i < 5; ++i) EXPECT_EQ(dst[i * 4 + 3], 255);
}

// Lab input always gets a conversion: white stays white (D50 adapted to
// sRGB's D65, not taken as it is) and a neutral stays neutral.
TEST(ColorTransformTest, LabBecomesSrgb) {
  const ColorTransform lab = ColorTransform::FromIcc(nullptr, 0, PixelLayout::kLab8);
  EXPECT_FALSE(lab.is_identity());
  // L* 100, 50 and 0 with a* = b* = 0, then L* 50 with a* 60 (reddish);
  // the fourth byte is ignored.
  uint8_t pixels[16] = {255, 128, 128, 7, 128, 128, 128, 7, 0, 128, 128, 7, 128, 188, 128, 7};
  lab.Apply(pixels, pixels, 4);
  for (int c = 0; c < 3; ++c) EXPECT_GE(pixels[c], 254);
  for (int c = 0; c < 3; ++c) EXPECT_NEAR(pixels[4 + c], 119, 2);
  EXPECT_LE(pixels[8] + pixels[9] + pixels[10], 3);
  EXPECT_GT(pixels[14], pixels[13] + 60);  // red over green
  EXPECT_EQ(pixels[15], 255);
}

TEST(ColorTransformTest, SixteenBitGrayKeepsItsPrecision) {
  const std::vector<uint8_t> icc = Bytes(testing::GrayGammaProfile(1.0));
  const ColorTransform gray = ColorTransform::FromIcc(icc.data(), icc.size(), PixelLayout::kGray16);
  ASSERT_FALSE(gray.is_identity());
  // Linear light of 1/1000 and 1/2: 8-bit input could not tell the first
  // from black.
  const uint16_t src[2] = {66, 32768};
  uint8_t dst[8];
  gray.Apply(reinterpret_cast<const uint8_t*>(src), dst, 2);
  EXPECT_NEAR(dst[0], 3, 1);
  EXPECT_NEAR(dst[4], 188, 1);
  // Without a profile, 16-bit gray is scaled as it is.
  ColorTransform::FromIcc(nullptr, 0, PixelLayout::kGray16).Apply(reinterpret_cast<const uint8_t*>(src), dst, 2);
  EXPECT_EQ(dst[0], 0);
  EXPECT_EQ(dst[4], 128);
}

TEST(FlattenOverWhiteTest, CompositesExactlyOverWhite) {
  // Every colour and alpha pair against the rounded exact formula.
  std::vector<uint8_t> pixels;
  for (int c = 0; c < 256; ++c) {
    for (int a = 0; a < 256; ++a) {
      pixels.insert(pixels.end(), {static_cast<uint8_t>(c), static_cast<uint8_t>(255 - c),
                                   static_cast<uint8_t>(c), static_cast<uint8_t>(a)});
    }
  }
  FlattenOverWhite(pixels.data(), pixels.size() / 4);
  size_t i = 0;
  for (int c = 0; c < 256; ++c) {
    for (int a = 0; a < 256; ++a, i += 4) {
      const int expected = (c * a + 255 * (255 - a) + 127) / 255;
      const int expected_inverse = ((255 - c) * a + 255 * (255 - a) + 127) / 255;
      ASSERT_EQ(pixels[i], expected) << "c=" << c << " a=" << a;
      ASSERT_EQ(pixels[i + 1], expected_inverse) << "c=" << c << " a=" << a;
      ASSERT_EQ(pixels[i + 3], 255);
    }
  }
}

}  // namespace
}  // namespace color
}  // namespace tessera
