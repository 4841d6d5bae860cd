#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/codec/decoders.h"
#include "lib/codec/heif/heif-structure.h"
#include "lib/codec/heif/testing/heif-fixtures.h"
#include "lib/codec/testing/bitmap-probe.h"
#include "lib/codec/testing/served-ahead.h"
#include "lib/color/hdr-tone-map.h"
#include "lib/utility/cancellation.h"

namespace tessera {
namespace codec {
namespace {

using testing::MeanColor;
using testing::Rgb;

using testing::EncodeHeif;
using testing::HeifFixture;
using testing::SolidHeif;

Status Decode(const std::string& bytes, uint32_t cx, image::Bitmap* out) {
  return testing::DecodeBytes(CreateHeifDecoder(), bytes, cx, out);
}

void ExpectColor(const Rgb& c, double r, double g, double b, const std::string& what) {
  testing::ExpectColorNear(c, r, g, b, 6, what);
}

// Left half red, right half blue.
void RedBlue(int x, int, uint16_t* p) {
  p[0] = x < 32 ? 255 : 0;
  p[1] = 0;
  p[2] = x < 32 ? 0 : 255;
}

class HeifDecoderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    HeifFixture probe;
    probe.paint = SolidHeif(1, 2, 3);
    if (EncodeHeif(probe).empty()) GTEST_SKIP() << "libheif without an HEVC encoder";
  }
};

TEST_F(HeifDecoderTest, RotationBoxIsAppliedOnce) {
  HeifFixture fixture;
  fixture.paint = RedBlue;
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(EncodeHeif(fixture), 100, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 64);
  EXPECT_EQ(bitmap.height(), 32);
  ExpectColor(MeanColor(bitmap, 4, 4, 28, 28), 255, 0, 0, "upright left");

  // Turned a quarter clockwise by the container: the left half is on top.
  fixture.orientation = 6;  // a quarter turn clockwise
  ASSERT_TRUE(Decode(EncodeHeif(fixture), 100, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 32);
  EXPECT_EQ(bitmap.height(), 64);
  ExpectColor(MeanColor(bitmap, 4, 4, 28, 28), 255, 0, 0, "rotated top");
  ExpectColor(MeanColor(bitmap, 4, 36, 28, 60), 0, 0, 255, "rotated bottom");

  ASSERT_TRUE(Decode(EncodeHeif(fixture), 16, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 8);
  EXPECT_EQ(bitmap.height(), 16);
}

TEST_F(HeifDecoderTest, WideGamutPrimariesConvertToSrgb) {
  // Display P3 (nclx primaries 12) mid green: sRGB has less of the green
  // primary, so red drops and green rises relative to the stored values.
  // Reference: P3 to sRGB in linear light.
  const uint8_t stored[3] = {120, 200, 80};
  auto to_linear = [](double v) {
    v /= 255;
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
  };
  auto to_srgb = [](double v) {
    v = v < 0 ? 0 : v > 1 ? 1 : v;
    return 255 * (v <= 0.0031308 ? v * 12.92 : 1.055 * std::pow(v, 1 / 2.4) - 0.055);
  };
  const double r = to_linear(stored[0]), g = to_linear(stored[1]), b = to_linear(stored[2]);
  const double expected[3] = {to_srgb(1.2249 * r - 0.2247 * g), to_srgb(-0.0420 * r + 1.0419 * g),
                              to_srgb(-0.0197 * r - 0.0786 * g + 1.0979 * b)};

  HeifFixture fixture;
  fixture.paint = SolidHeif(stored[0], stored[1], stored[2]);
  fixture.nclx_primaries = 12;
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(EncodeHeif(fixture), 64, &bitmap).ok());
  ExpectColor(MeanColor(bitmap), expected[0], expected[1], expected[2], "P3");

  fixture.nclx_primaries = 1;  // BT.709: already sRGB
  ASSERT_TRUE(Decode(EncodeHeif(fixture), 64, &bitmap).ok());
  ExpectColor(MeanColor(bitmap), stored[0], stored[1], stored[2], "BT.709");
}

TEST_F(HeifDecoderTest, HostileInputFailsCleanly) {
  HeifFixture fixture;
  fixture.paint = RedBlue;
  const std::string heif = EncodeHeif(fixture);
  image::Bitmap bitmap;
  for (size_t n = 0; n < heif.size(); n += 7) Decode(heif.substr(0, n), 64, &bitmap);
  EXPECT_FALSE(Decode(heif.substr(0, 40), 64, &bitmap).ok());
}

// The primary (64x32, red and blue halves) serves requests over 32, its
// green 32x16 thumbnail the others; one decode serves the other sizes of
// the same image, and neither image is ever served from the other.
TEST_F(HeifDecoderTest, ThumbnailOnlyWhenLargeEnoughAndOneDecodeServesItsSizes) {
  HeifFixture fixture;
  fixture.paint = RedBlue;
  fixture.thumbnail_paint = SolidHeif(0, 255, 0);
  const std::string heif = EncodeHeif(fixture);
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(heif, 24, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 24);
  ExpectColor(MeanColor(bitmap), 0, 255, 0, "thumbnail");
  ASSERT_TRUE(Decode(heif, 48, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 48);
  ExpectColor(MeanColor(bitmap, 0, 0, 20, 24), 255, 0, 0, "primary");

  const testing::DecoderFactory create = [] { return CreateHeifDecoder(); };
  EXPECT_EQ(testing::ServedAhead(create, heif, {24, 48, 16, 60, 32}), (std::vector<uint32_t>{16, 32}));
  EXPECT_EQ(testing::ServedAhead(create, heif, {48, 24, 60, 16}), (std::vector<uint32_t>{60}));
}

// The sRGB byte the tone mapper makes of one PQ or HLG grey.
int ToneMapped(color::HdrTransfer transfer, uint16_t code) {
  color::HdrSource source;
  source.transfer = transfer;
  source.primaries = {{0.64, 0.33}, {0.30, 0.60}, {0.15, 0.06}, {0.3127, 0.3290}};
  uint8_t bgra[4];
  color::HdrToneMapper(source).ConvertRow(&code, &code, &code, 1, bgra);
  return bgra[0];
}

TEST_F(HeifDecoderTest, TenBitStillsAreScaledOrToneMapped) {
  HeifFixture fixture;
  fixture.bit_depth = 10;
  struct Case {
    const char* name;
    int primaries;
    int transfer;
    uint16_t code;
    double expected;
  };
  const Case cases[] = {
      {"SDR, no colour description", 0, 13, 700, 700 * 255.0 / 1023},
      {"SDR BT.709", 1, 1, 300, 300 * 255.0 / 1023},
      // 18% grey and reference white of PQ, reference white of HLG.
      {"PQ grey", 1, 16, 420, static_cast<double>(ToneMapped(color::HdrTransfer::kPq, 420))},
      {"PQ white", 1, 16, 594, static_cast<double>(ToneMapped(color::HdrTransfer::kPq, 594))},
      {"HLG white", 1, 18, 767, static_cast<double>(ToneMapped(color::HdrTransfer::kHlg, 767))},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    fixture.nclx_primaries = c.primaries;
    fixture.nclx_transfer = c.transfer;
    fixture.paint = SolidHeif(c.code, c.code, c.code);
    image::Bitmap bitmap;
    ASSERT_TRUE(Decode(EncodeHeif(fixture), 64, &bitmap).ok());
    ExpectColor(MeanColor(bitmap), c.expected, c.expected, c.expected, c.name);
  }
  // PQ grey is not read as sRGB (which would wash it out to 105).
  EXPECT_LT(ToneMapped(color::HdrTransfer::kPq, 420), 125);
}

testing::CodedTile SolidTile(uint8_t r, uint8_t g, uint8_t b) {
  HeifFixture fixture;
  fixture.width = 64;
  fixture.height = 64;
  fixture.paint = SolidHeif(r, g, b);
  testing::CodedTile tile;
  EXPECT_TRUE(testing::ExtractCodedTile(EncodeHeif(fixture), 64, 64, &tile));
  return tile;
}

TEST_F(HeifDecoderTest, GridsDecodeAndTileBombsAreRefusedUndecoded) {
  testing::HeifGrid grid;
  grid.tile = SolidTile(40, 160, 220);
  grid.rows = 2;
  grid.columns = 3;
  image::Bitmap bitmap;
  ASSERT_TRUE(Decode(testing::BuildHeifGrid(grid), 1000, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 192);
  EXPECT_EQ(bitmap.height(), 128);
  ExpectColor(MeanColor(bitmap), 40, 160, 220, "grid");

  grid.rows = grid.columns = 141;
  const Status status = Decode(testing::BuildHeifGrid(grid), 360, &bitmap);
  EXPECT_EQ(status.code(), Status::Code::kInvalidArgument);
  EXPECT_NE(status.message().find("items"), std::string::npos) << status.message();
}

TEST_F(HeifDecoderTest, CancelledSourceDecodesNothing) {
  HeifFixture fixture;
  fixture.paint = RedBlue;
  const std::string heif = EncodeHeif(fixture);
  auto source = ByteSource::FromMemory(reinterpret_cast<const uint8_t*>(heif.data()), heif.size());
  auto cancellation = std::make_shared<utility::Cancellation>();
  cancellation->Cancel();
  source->set_cancellation(cancellation);
  image::Bitmap bitmap;
  EXPECT_EQ(CreateHeifDecoder()->Decode(source.get(), 64, &bitmap).code(), Status::Code::kTimeout);
  EXPECT_TRUE(bitmap.empty());
}

}  // namespace
}  // namespace codec
}  // namespace tessera
