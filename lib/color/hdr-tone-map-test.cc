#include "lib/color/hdr-tone-map.h"

#include <cmath>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace tessera {
namespace color {
namespace {

constexpr Chromaticities kBt709 = {{0.64, 0.33}, {0.30, 0.60}, {0.15, 0.06}, {0.3127, 0.3290}};

// Reference encodings, written from the standards' formulas.
uint16_t PqCode(double nits, int depth = 10) {
  const double m1 = 2610.0 / 16384, m2 = 2523.0 / 4096 * 128;
  const double c1 = 3424.0 / 4096, c2 = 2413.0 / 4096 * 32, c3 = 2392.0 / 4096 * 32;
  const double y = std::pow(nits / 10000, m1);
  return static_cast<uint16_t>(std::lround(std::pow((c1 + c2 * y) / (1 + c3 * y), m2) * ((1 << depth) - 1)));
}

double SrgbByte(double linear) {
  linear = std::min(std::max(linear, 0.0), 1.0);
  return 255 * (linear <= 0.0031308 ? 12.92 * linear : 1.055 * std::pow(linear, 1 / 2.4) - 0.055);
}

struct Pixel {
  int b, g, r, a;
};

Pixel Convert(const HdrToneMapper& mapper, uint16_t r, uint16_t g, uint16_t b) {
  uint8_t bgra[4] = {0, 0, 0, 77};
  mapper.ConvertRow(&r, &g, &b, 1, bgra);
  return {bgra[0], bgra[1], bgra[2], bgra[3]};
}

HdrToneMapper Mapper(HdrTransfer transfer, const Chromaticities& primaries, double peak_nits = 0) {
  HdrSource source;
  source.transfer = transfer;
  source.primaries = primaries;
  source.peak_nits = peak_nits;
  return HdrToneMapper(source);
}

TEST(HdrToneMapTest, RollOffsKeepMidtonesAndLandThePeakOnWhite) {
  struct Case {
    HdrRollOff curve;
    double knee;
  };
  for (const Case& c : {Case{HdrRollOff::kShoulder, kKnee}, Case{HdrRollOff::kMobius, kMobiusKnee}}) {
    for (double peak : {0.8, 1.0, 1000 / kReferenceWhiteNits, 10000 / kReferenceWhiteNits, 100.0}) {
      SCOPED_TRACE(testing::Message() << static_cast<int>(c.curve) << " peak " << peak);
      EXPECT_EQ(HdrToneMapper::RollOff(c.curve, 0.18, peak), 0.18);
      EXPECT_EQ(HdrToneMapper::RollOff(c.curve, c.knee, peak), c.knee);
      EXPECT_EQ(HdrToneMapper::RollOff(c.curve, -1, peak), 0);
      // Continuous in value and slope at the knee.
      EXPECT_NEAR(HdrToneMapper::RollOff(c.curve, c.knee + 1e-6, peak), c.knee + 1e-6, 1e-9);
      double previous = 0;
      for (double x = 0; x < 120; x += 0.01) {
        const double y = HdrToneMapper::RollOff(c.curve, x, peak);
        ASSERT_GE(y, previous) << x;
        ASSERT_LE(y, 1.0) << x;
        previous = y;
      }
      EXPECT_NEAR(HdrToneMapper::RollOff(c.curve, std::max(peak, 1.0), peak), 1.0, 1e-12);
    }
  }
  // Reference white keeps room above it for highlights.
  const double white = HdrToneMapper::RollOff(HdrRollOff::kShoulder, 1, 1000 / kReferenceWhiteNits);
  EXPECT_GT(white, 0.75);
  EXPECT_LT(white, 0.9);
}

TEST(HdrToneMapTest, PqGreysFollowTheCurve) {
  const HdrToneMapper mapper = Mapper(HdrTransfer::kPq, kBt709);
  const double peak = 1000 / kReferenceWhiteNits;
  for (double relative : {0.0, 0.01, 0.18, 0.5, 1.0, 2.0, 4.0}) {
    SCOPED_TRACE(relative);
    const uint16_t code = PqCode(relative * kReferenceWhiteNits);
    const Pixel p = Convert(mapper, code, code, code);
    EXPECT_NEAR(p.r, SrgbByte(HdrToneMapper::RollOff(HdrRollOff::kShoulder, relative, peak)), 1.5);
    EXPECT_EQ(p.g, p.r);
    EXPECT_EQ(p.b, p.r);
    EXPECT_EQ(p.a, 77);  // alpha is the caller's
  }
  EXPECT_EQ(Convert(mapper, 1023, 1023, 1023).r, 255);
  // Samples beyond the bit depth count as its maximum.
  EXPECT_EQ(Convert(mapper, 5000, 0, 0).r, Convert(mapper, 1023, 0, 0).r);
}

TEST(HdrToneMapTest, WideGamutConvertsInLinearLight) {
  // An sRGB colour below the knee, put into BT.2020 in linear light, comes
  // back as it was.
  const double linear[3] = {0.2, 0.4, 0.1};
  const double to_2020[9] = {0.6274, 0.3293, 0.0433, 0.0691, 0.9195, 0.0114, 0.0164, 0.0880, 0.8956};
  uint16_t code[3];
  for (int c = 0; c < 3; ++c) {
    const double v = to_2020[3 * c] * linear[0] + to_2020[3 * c + 1] * linear[1] + to_2020[3 * c + 2] * linear[2];
    code[c] = PqCode(v * kReferenceWhiteNits, 12);
  }
  HdrSource source;
  source.bit_depth = 12;
  const HdrToneMapper mapper(source);  // BT.2020 primaries
  const Pixel p = Convert(mapper, code[0], code[1], code[2]);
  EXPECT_NEAR(p.r, SrgbByte(linear[0]), 2);
  EXPECT_NEAR(p.g, SrgbByte(linear[1]), 2);
  EXPECT_NEAR(p.b, SrgbByte(linear[2]), 2);
  // Colours outside sRGB are clipped per channel, not wrapped.
  const Pixel green = Convert(mapper, 0, 3000, 0);
  EXPECT_EQ(green.r, 0);
  EXPECT_EQ(green.b, 0);
  EXPECT_GT(green.g, 200);
}

TEST(HdrToneMapTest, HighlightsKeepTheirHue) {
  const HdrToneMapper mapper = Mapper(HdrTransfer::kPq, kBt709);
  // The brightest channel at the assumed peak becomes white; the others keep
  // their share of it in linear light.
  const Pixel orange = Convert(mapper, PqCode(1000), PqCode(500), PqCode(250));
  EXPECT_EQ(orange.r, 255);
  EXPECT_NEAR(orange.g, SrgbByte(0.5), 2);
  EXPECT_NEAR(orange.b, SrgbByte(0.25), 2);
  // Content that says it reaches 4000 cd/m² keeps 1000 below white.
  const HdrToneMapper bright = Mapper(HdrTransfer::kPq, kBt709, 4000);
  EXPECT_LT(Convert(bright, PqCode(1000), PqCode(1000), PqCode(1000)).r, 254);
  EXPECT_EQ(Convert(bright, PqCode(4000), PqCode(4000), PqCode(4000)).r, 255);
}

TEST(HdrToneMapTest, HlgReferenceWhiteMatchesPq) {
  const HdrToneMapper hlg = Mapper(HdrTransfer::kHlg, kBt709);
  const HdrToneMapper pq = Mapper(HdrTransfer::kPq, kBt709);
  const uint16_t white = static_cast<uint16_t>(std::lround(0.75 * 1023));
  const uint16_t pq_white = PqCode(kReferenceWhiteNits);
  EXPECT_NEAR(Convert(hlg, white, white, white).r, Convert(pq, pq_white, pq_white, pq_white).r, 2);
  EXPECT_EQ(Convert(hlg, 0, 0, 0).r, 0);
  EXPECT_EQ(Convert(hlg, 1023, 1023, 1023).r, 255);
}

// Video frames were tone-mapped by FFmpeg's filters (zscale to linear light
// with npl=100 in BT.709 primaries, tonemap=mobius:desat=0, zscale to
// t=bt709); the video rendering keeps that look. Expected bytes are that
// chain's output for BT.2020 samples without a declared peak.
TEST(HdrToneMapTest, VideoRenderingKeepsTheLookOfTheFilterChain) {
  struct Case {
    HdrTransfer transfer;
    uint16_t r, g, b;
    int want_r, want_g, want_b;
  };
  const Case cases[] = {
      {HdrTransfer::kPq, 300, 300, 300, 94, 94, 94},      {HdrTransfer::kPq, 520, 520, 520, 215, 215, 215},
      {HdrTransfer::kPq, 700, 700, 700, 250, 250, 250},   {HdrTransfer::kPq, 600, 400, 200, 245, 47, 0},
      {HdrTransfer::kHlg, 300, 300, 300, 113, 113, 113},  {HdrTransfer::kHlg, 700, 700, 700, 225, 225, 225},
      {HdrTransfer::kHlg, 600, 400, 200, 219, 110, 38},   {HdrTransfer::kHlg, 700, 300, 500, 237, 0, 129},
      {HdrTransfer::kHlg, 300, 650, 350, 0, 220, 86},     {HdrTransfer::kHlg, 769, 500, 300, 243, 90, 51},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << static_cast<int>(c.transfer) << ": " << c.r << " " << c.g << " " << c.b);
    HdrSource source;
    source.transfer = c.transfer;
    source.rendering = kVideoRendering;
    const Pixel p = Convert(HdrToneMapper(source), c.r, c.g, c.b);
    EXPECT_NEAR(p.r, c.want_r, 2);
    EXPECT_NEAR(p.g, c.want_g, 2);
    EXPECT_NEAR(p.b, c.want_b, 2);
  }
}

TEST(HdrToneMapTest, EightBitSamplesMatchWideOnes) {
  HdrSource source;
  source.bit_depth = 8;
  const HdrToneMapper mapper(source);
  std::vector<uint8_t> narrow(256);
  std::vector<uint16_t> wide(256);
  for (int i = 0; i < 256; ++i) narrow[i] = wide[i] = static_cast<uint8_t>(i);
  std::vector<uint8_t> from_narrow(256 * 4), from_wide(256 * 4);
  mapper.ConvertRow(narrow.data(), narrow.data(), narrow.data(), 256, from_narrow.data());
  mapper.ConvertRow(wide.data(), wide.data(), wide.data(), 256, from_wide.data());
  EXPECT_EQ(from_narrow, from_wide);
}

}  // namespace
}  // namespace color
}  // namespace tessera
