#include <libheif/heif.h>

#include <cmath>
#include <functional>
#include <string>

#include "gtest/gtest.h"
#include "lib/image/decoders.h"
#include "lib/image/testing/bitmap-probe.h"

namespace tessera {
namespace image {
namespace {

using testing::MeanColor;
using testing::Rgb;

using Painter = std::function<void(int x, int y, uint8_t* rgb)>;

struct HeifFixture {
  int width = 64;
  int height = 32;
  Painter paint;
  heif_orientation orientation = heif_orientation_normal;
  int nclx_primaries = 0;  // 0: no colour description
  Painter thumbnail_paint;  // encoded as a thumbnail of bbox 32 when set
};

heif_image* MakeImage(int width, int height, const Painter& paint) {
  heif_image* image = nullptr;
  heif_image_create(width, height, heif_colorspace_RGB, heif_chroma_interleaved_RGB, &image);
  heif_image_add_plane(image, heif_channel_interleaved, width, height, 8);
  int stride = 0;
  uint8_t* plane = heif_image_get_plane(image, heif_channel_interleaved, &stride);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) paint(x, y, plane + y * stride + x * 3);
  }
  return image;
}

heif_error WriteToString(heif_context*, const void* data, size_t size, void* user) {
  static_cast<std::string*>(user)->append(static_cast<const char*>(data), size);
  return heif_error{heif_error_Ok, heif_suberror_Unspecified, "ok"};
}

// An HEVC-coded HEIF made with the library's own encoder; empty when the
// library has none.
std::string EncodeHeif(const HeifFixture& fixture) {
  heif_context* context = heif_context_alloc();
  heif_encoder* encoder = nullptr;
  std::string out;
  if (heif_context_get_encoder_for_format(context, heif_compression_HEVC, &encoder).code == heif_error_Ok) {
    heif_encoder_set_lossy_quality(encoder, 95);
    heif_encoder_set_parameter_string(encoder, "chroma", "444");
    heif_image* image = MakeImage(fixture.width, fixture.height, fixture.paint);
    heif_color_profile_nclx* nclx = heif_nclx_color_profile_alloc();
    if (fixture.nclx_primaries != 0) {
      heif_nclx_color_profile_set_color_primaries(nclx, static_cast<uint16_t>(fixture.nclx_primaries));
      heif_nclx_color_profile_set_transfer_characteristics(nclx, heif_transfer_characteristic_IEC_61966_2_1);
      heif_nclx_color_profile_set_matrix_coefficients(nclx, heif_matrix_coefficients_ITU_R_BT_601_6);
      nclx->full_range_flag = 1;
      heif_image_set_nclx_color_profile(image, nclx);
    }
    heif_encoding_options* options = heif_encoding_options_alloc();
    options->image_orientation = fixture.orientation;
    options->output_nclx_profile = fixture.nclx_primaries != 0 ? nclx : nullptr;
    options->macOS_compatibility_workaround_no_nclx_profile = 0;
    heif_image_handle* handle = nullptr;
    heif_context_encode_image(context, image, encoder, options, &handle);
    if (fixture.thumbnail_paint) {
      heif_image* thumb = MakeImage(fixture.width, fixture.height, fixture.thumbnail_paint);
      heif_context_encode_thumbnail(context, thumb, handle, encoder, options, 32, nullptr);
      heif_image_release(thumb);
    }
    heif_writer writer{1, WriteToString};
    heif_context_write(context, &writer, &out);
    heif_image_handle_release(handle);
    heif_encoding_options_free(options);
    heif_nclx_color_profile_free(nclx);
    heif_image_release(image);
    heif_encoder_release(encoder);
  }
  heif_context_free(context);
  return out;
}

Status Decode(const std::string& bytes, uint32_t cx, Bitmap* out) {
  auto source = ByteSource::FromMemory(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  return CreateHeifDecoder()->Decode(source.get(), cx, out);
}

void ExpectColor(const Rgb& c, double r, double g, double b, const std::string& what) {
  EXPECT_NEAR(c.r, r, 6) << what << " " << testing::ToString(c);
  EXPECT_NEAR(c.g, g, 6) << what << " " << testing::ToString(c);
  EXPECT_NEAR(c.b, b, 6) << what << " " << testing::ToString(c);
}

Painter Solid(uint8_t r, uint8_t g, uint8_t b) {
  return [=](int, int, uint8_t* p) { p[0] = r; p[1] = g; p[2] = b; };
}

// Left half red, right half blue.
void RedBlue(int x, int, uint8_t* p) {
  p[0] = x < 32 ? 255 : 0;
  p[1] = 0;
  p[2] = x < 32 ? 0 : 255;
}

class HeifDecoderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    HeifFixture probe;
    probe.paint = Solid(1, 2, 3);
    if (EncodeHeif(probe).empty()) GTEST_SKIP() << "libheif without an HEVC encoder";
  }
};

TEST_F(HeifDecoderTest, RotationBoxIsAppliedOnce) {
  HeifFixture fixture;
  fixture.paint = RedBlue;
  Bitmap bitmap;
  ASSERT_TRUE(Decode(EncodeHeif(fixture), 100, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 64);
  EXPECT_EQ(bitmap.height(), 32);
  ExpectColor(MeanColor(bitmap, 4, 4, 28, 28), 255, 0, 0, "upright left");

  // Turned a quarter clockwise by the container: the left half is on top.
  fixture.orientation = heif_orientation_rotate_90_cw;
  ASSERT_TRUE(Decode(EncodeHeif(fixture), 100, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 32);
  EXPECT_EQ(bitmap.height(), 64);
  ExpectColor(MeanColor(bitmap, 4, 4, 28, 28), 255, 0, 0, "rotated top");
  ExpectColor(MeanColor(bitmap, 4, 36, 28, 60), 0, 0, 255, "rotated bottom");

  ASSERT_TRUE(Decode(EncodeHeif(fixture), 16, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 8);
  EXPECT_EQ(bitmap.height(), 16);
}

TEST_F(HeifDecoderTest, ThumbnailOnlyWhenLargeEnough) {
  // The primary is red, its 32x16 thumbnail green.
  HeifFixture fixture;
  fixture.paint = Solid(255, 0, 0);
  fixture.thumbnail_paint = Solid(0, 255, 0);
  const std::string heif = EncodeHeif(fixture);
  Bitmap bitmap;
  ASSERT_TRUE(Decode(heif, 24, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 24);
  ExpectColor(MeanColor(bitmap), 0, 255, 0, "thumbnail");
  ASSERT_TRUE(Decode(heif, 48, &bitmap).ok());
  EXPECT_EQ(bitmap.width(), 48);
  ExpectColor(MeanColor(bitmap), 255, 0, 0, "primary");
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
  fixture.paint = Solid(stored[0], stored[1], stored[2]);
  fixture.nclx_primaries = 12;
  Bitmap bitmap;
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
  Bitmap bitmap;
  for (size_t n = 0; n < heif.size(); n += 7) Decode(heif.substr(0, n), 64, &bitmap);
  EXPECT_FALSE(Decode(heif.substr(0, 40), 64, &bitmap).ok());
}

}  // namespace
}  // namespace image
}  // namespace tessera
