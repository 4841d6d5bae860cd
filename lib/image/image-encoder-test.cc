#include "lib/image/image-encoder.h"

#ifndef _WIN32
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <jpeglib.h>
#include <spng.h>

#include "gtest/gtest.h"
#include "lib/file/file-op.h"
#include "lib/utility/testing/scratch-dir.h"

namespace tessera {
namespace image {
namespace {

class ImageEncoderTest : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) { return scratch_.Path(name); }

  test::ScratchDir scratch_;
  const std::string dir_ = scratch_.path();
};

// Left half one colour, right half another (BGRA).
Bitmap TwoTone(int width, int height) {
  Bitmap bitmap;
  EXPECT_TRUE(Bitmap::Create(width, height, &bitmap).ok());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t* p = bitmap.row(y) + x * 4;
      const bool left = x < width / 2;
      p[0] = left ? 200 : 30;   // blue
      p[1] = left ? 40 : 160;   // green
      p[2] = left ? 10 : 220;   // red
      p[3] = static_cast<uint8_t>(x);  // alpha must not matter
    }
  }
  return bitmap;
}

struct DecodedJpeg {
  int width = 0;
  int height = 0;
  int luma_h = 0, luma_v = 0, chroma_h = 0, chroma_v = 0;
  bool has_app1_or_app2 = false;
  double mean_rgb[3] = {0, 0, 0};
};

// Decodes with libjpeg's default error handling: a broken file ends the
// test binary, which is as good as a failure here.
DecodedJpeg DecodeJpeg(const std::string& path) {
  DecodedJpeg result;
  FILE* file = std::fopen(path.c_str(), "rb");
  EXPECT_NE(file, nullptr);
  if (file == nullptr) return result;
  jpeg_decompress_struct cinfo;
  jpeg_error_mgr err;
  cinfo.err = jpeg_std_error(&err);
  jpeg_create_decompress(&cinfo);
  jpeg_stdio_src(&cinfo, file);
  jpeg_save_markers(&cinfo, JPEG_APP0 + 1, 0xffff);
  jpeg_save_markers(&cinfo, JPEG_APP0 + 2, 0xffff);
  jpeg_read_header(&cinfo, TRUE);
  for (jpeg_saved_marker_ptr m = cinfo.marker_list; m != nullptr; m = m->next) result.has_app1_or_app2 = true;
  result.luma_h = cinfo.comp_info[0].h_samp_factor;
  result.luma_v = cinfo.comp_info[0].v_samp_factor;
  result.chroma_h = cinfo.comp_info[1].h_samp_factor;
  result.chroma_v = cinfo.comp_info[1].v_samp_factor;
  cinfo.out_color_space = JCS_RGB;
  jpeg_start_decompress(&cinfo);
  result.width = static_cast<int>(cinfo.output_width);
  result.height = static_cast<int>(cinfo.output_height);
  std::vector<uint8_t> row(static_cast<size_t>(result.width) * 3);
  while (cinfo.output_scanline < cinfo.output_height) {
    JSAMPROW rows[1] = {row.data()};
    jpeg_read_scanlines(&cinfo, rows, 1);
    for (int x = 0; x < result.width; ++x) {
      for (int c = 0; c < 3; ++c) result.mean_rgb[c] += row[x * 3 + c];
    }
  }
  for (double& m : result.mean_rgb) m /= static_cast<double>(result.width) * result.height;
  jpeg_finish_decompress(&cinfo);
  jpeg_destroy_decompress(&cinfo);
  std::fclose(file);
  return result;
}

TEST_F(ImageEncoderTest, JpegRoundTripKeepsSizeAndColourWithoutMetadata) {
  struct Case {
    int width, height;
    int luma_sampling;  // 1 = 4:4:4, 2 = 4:2:0
  };
  for (const Case& c : std::vector<Case>{{640, 360, 1}, {101, 640, 1}, {641, 20, 2}, {1280, 721, 2}}) {
    const Bitmap bitmap = TwoTone(c.width, c.height);
    const std::string path = Path("jpeg-" + std::to_string(c.width) + "x" + std::to_string(c.height));
    ASSERT_TRUE(SaveJpeg(bitmap, path).ok());
    const DecodedJpeg decoded = DecodeJpeg(path);
    EXPECT_EQ(decoded.width, c.width);
    EXPECT_EQ(decoded.height, c.height);
    EXPECT_EQ(decoded.luma_h, c.luma_sampling) << c.width << "x" << c.height;
    EXPECT_EQ(decoded.luma_v, c.luma_sampling) << c.width << "x" << c.height;
    EXPECT_EQ(decoded.chroma_h, 1);
    EXPECT_EQ(decoded.chroma_v, 1);
    EXPECT_FALSE(decoded.has_app1_or_app2);
    // Exact means of the two halves (red, green, blue).
    const double left = static_cast<double>(c.width / 2) / c.width;
    const double expected[3] = {10 * left + 220 * (1 - left), 40 * left + 160 * (1 - left),
                                200 * left + 30 * (1 - left)};
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(decoded.mean_rgb[i], expected[i], 3.0) << i;
  }
}

TEST_F(ImageEncoderTest, PngRoundTripIsExactRgb) {
  const Bitmap bitmap = TwoTone(37, 11);
  const std::string path = Path("image.png");
  ASSERT_TRUE(SavePng(bitmap, path).ok());

  const std::string bytes = test::ReadAll(path);
  spng_ctx* ctx = spng_ctx_new(0);
  ASSERT_NE(ctx, nullptr);
  ASSERT_EQ(spng_set_png_buffer(ctx, bytes.data(), bytes.size()), 0);
  spng_ihdr ihdr;
  ASSERT_EQ(spng_get_ihdr(ctx, &ihdr), 0);
  EXPECT_EQ(ihdr.width, 37u);
  EXPECT_EQ(ihdr.height, 11u);
  EXPECT_EQ(ihdr.color_type, SPNG_COLOR_TYPE_TRUECOLOR);
  EXPECT_EQ(ihdr.bit_depth, 8);
  size_t size = 0;
  ASSERT_EQ(spng_decoded_image_size(ctx, SPNG_FMT_RGB8, &size), 0);
  std::vector<uint8_t> rgb(size);
  ASSERT_EQ(spng_decode_image(ctx, rgb.data(), rgb.size(), SPNG_FMT_RGB8, 0), 0);
  spng_ctx_free(ctx);
  ASSERT_EQ(size, static_cast<size_t>(37 * 11 * 3));
  for (int y = 0; y < 11; ++y) {
    for (int x = 0; x < 37; ++x) {
      const uint8_t* src = bitmap.row(y) + x * 4;
      const uint8_t* out = rgb.data() + (y * 37 + x) * 3;
      ASSERT_EQ(out[0], src[2]);
      ASSERT_EQ(out[1], src[1]);
      ASSERT_EQ(out[2], src[0]);
    }
  }
}

TEST_F(ImageEncoderTest, FailuresAreReportedNotFatal) {
  const Bitmap bitmap = TwoTone(64, 64);
  EXPECT_EQ(SaveJpeg(bitmap, dir_ + "/no-such-dir/out").code(), Status::Code::kIoError);
  EXPECT_EQ(SavePng(bitmap, dir_ + "/no-such-dir/out").code(), Status::Code::kIoError);
#ifndef _WIN32
  // Only regular files are written: not a device, however writable.
  EXPECT_EQ(SaveJpeg(bitmap, "/dev/null").code(), Status::Code::kIoError);
  // A disk that fills up: the write error surfaces through libjpeg's error
  // handler and through the final flush. A small file-size limit makes every
  // write past it fail the same way.
  struct rlimit saved;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  void (*saved_handler)(int) = signal(SIGXFSZ, SIG_IGN);
  struct rlimit small = saved;
  small.rlim_cur = 1000;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const Status jpeg = SaveJpeg(TwoTone(800, 600), Path("full.jpg"));
  const Status png = SavePng(TwoTone(800, 600), Path("full.png"));
  setrlimit(RLIMIT_FSIZE, &saved);
  signal(SIGXFSZ, saved_handler);
  EXPECT_EQ(jpeg.code(), Status::Code::kIoError);
  EXPECT_EQ(png.code(), Status::Code::kIoError);
#endif
  // The encoder is usable again after a failure.
  EXPECT_TRUE(SaveJpeg(bitmap, Path("after-failure")).ok());
}

// Into a file held open since its creation: the name may be swapped for a
// link meanwhile, but nothing is written through it, and the save says that
// the name no longer leads to what was written.
#ifndef _WIN32
TEST_F(ImageEncoderTest, SavesThroughTheOpenFileNeverThroughALinkAtItsName) {
  const std::string outside = scratch_.MakeFile("outside", "precious");
  const std::string name = Path("output");
  const std::string parked = Path("parked");
  const Bitmap bitmap = TwoTone(40, 30);

  file::OpenFile file;
  ASSERT_EQ(file::FSOpenForWriting(name, &file), 0);
  ASSERT_TRUE(SaveJpeg(bitmap, file, name).ok());
  ASSERT_TRUE(SavePng(bitmap, file, name).ok());  // saved again: emptied first
  ASSERT_EQ(::link(name.c_str(), parked.c_str()), 0);
  ASSERT_EQ(::unlink(name.c_str()), 0);
  ASSERT_EQ(::symlink(outside.c_str(), name.c_str()), 0);
  EXPECT_EQ(SaveJpeg(bitmap, file, name).code(), Status::Code::kIoError);
  // A link at the path is not opened either.
  EXPECT_EQ(SavePng(bitmap, name).code(), Status::Code::kIoError);

  EXPECT_EQ(test::ReadAll(outside), "precious");
  // The refused save still went into the file that was opened.
  const DecodedJpeg written = DecodeJpeg(parked);
  EXPECT_EQ(written.width, 40);
  EXPECT_EQ(written.height, 30);
}
#endif

}  // namespace
}  // namespace image
}  // namespace tessera
