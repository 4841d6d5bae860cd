// Decompression bombs: small files that declare, or really hold, images far
// larger than their size. Each run must stay within the tool's promises and
// its peak memory under a fixed budget, whatever the decoder makes of it.
#include <sys/resource.h>
#include <sys/stat.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <jpeglib.h>
#include <libheif/heif.h>

#include "lib/thumbnail/testing/scratch-dir.h"
#include "tests/clean-run.h"
#include "tests/image-bytes.h"
#include "tests/tool-runner.h"

namespace tessera {
namespace {

using testing::ExpectCleanRun;
using testing::PutBe32;
using testing::PutLe16;
using testing::PutLe32;
using testing::RunTool;
using testing::ZeroPng;
using thumbnail::testing::ScratchDir;

// Peak resident memory any run may reach.
constexpr long kMaxRssBytes = long{1} << 30;

// A GIF whose screen is width x height with one 1x1 image on it.
std::string BigScreenGif(uint32_t width, uint32_t height) {
  std::string gif = "GIF89a";
  PutLe16(&gif, width);
  PutLe16(&gif, height);
  gif += std::string("\x80\x00\x00", 3);           // global map of 2 colours
  gif += std::string("\x00\x00\x00\xff\xff\xff", 6);
  gif += std::string("\x2c\x00\x00\x00\x00\x01\x00\x01\x00\x00", 10);
  gif += std::string("\x02\x02\x44\x01\x00", 5);  // LZW data of one pixel
  gif += ";";
  return gif;
}

// A TIFF declaring width x height RGB in one strip of `strip_bytes` that the
// file does not hold.
std::string HugeStripTiff(uint32_t width, uint32_t height, uint32_t strip_bytes) {
  std::string tiff = "II*";
  tiff.push_back('\0');
  PutLe32(&tiff, 8);
  struct Entry {
    uint16_t tag, type;
    uint32_t count, value;
  };
  const Entry entries[] = {
      {256, 4, 1, width},       {257, 4, 1, height}, {258, 3, 1, 8},  {259, 3, 1, 1},
      {262, 3, 1, 1},           {273, 4, 1, 200},    {277, 3, 1, 1},  {278, 4, 1, height},
      {279, 4, 1, strip_bytes},
  };
  PutLe16(&tiff, sizeof(entries) / sizeof(entries[0]));
  for (const Entry& e : entries) {
    PutLe16(&tiff, e.tag);
    PutLe16(&tiff, e.type);
    PutLe32(&tiff, e.count);
    PutLe32(&tiff, e.value);
  }
  PutLe32(&tiff, 0);
  tiff.resize(200 + 1024, '\0');
  return tiff;
}

// A small JPEG (progressive or not) whose frame header is then made to
// declare width x height; its scan data stays that of the small image.
std::string JpegDeclaring(uint32_t width, uint32_t height, bool progressive) {
  jpeg_compress_struct cinfo;
  jpeg_error_mgr jerr;
  cinfo.err = jpeg_std_error(&jerr);
  jpeg_create_compress(&cinfo);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&cinfo, &buffer, &size);
  cinfo.image_width = 16;
  cinfo.image_height = 16;
  cinfo.input_components = 3;
  cinfo.in_color_space = JCS_RGB;
  jpeg_set_defaults(&cinfo);
  if (progressive) jpeg_simple_progression(&cinfo);
  jpeg_start_compress(&cinfo, TRUE);
  std::vector<uint8_t> row(16 * 3, 128);
  while (cinfo.next_scanline < 16) {
    JSAMPROW rows[1] = {row.data()};
    jpeg_write_scanlines(&cinfo, rows, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  std::string jpeg(reinterpret_cast<char*>(buffer), size);
  free(buffer);
  const size_t sof = jpeg.find(progressive ? "\xff\xc2" : "\xff\xc0");
  if (sof != std::string::npos) {
    jpeg[sof + 5] = static_cast<char>(height >> 8);
    jpeg[sof + 6] = static_cast<char>(height);
    jpeg[sof + 7] = static_cast<char>(width >> 8);
    jpeg[sof + 8] = static_cast<char>(width);
  }
  return jpeg;
}

// A lossless WebP whose header declares width x height, cut off after it.
std::string WebpDeclaring(uint32_t width, uint32_t height) {
  std::string vp8l;
  vp8l.push_back('\x2f');
  const uint32_t bits = (width - 1) | (height - 1) << 14;  // no alpha, version 0
  PutLe32(&vp8l, bits);
  vp8l += std::string(64, '\0');
  std::string riff = "RIFF";
  PutLe32(&riff, static_cast<uint32_t>(4 + 8 + vp8l.size()));
  riff += "WEBPVP8L";
  PutLe32(&riff, static_cast<uint32_t>(vp8l.size()));
  return riff + vp8l;
}

// A small HEIF whose image-size property is then made to say width x height.
std::string HeifDeclaring(uint32_t width, uint32_t height) {
  heif_context* context = heif_context_alloc();
  heif_encoder* encoder = nullptr;
  std::string bytes;
  if (heif_context_get_encoder_for_format(context, heif_compression_HEVC, &encoder).code == heif_error_Ok) {
    heif_image* image = nullptr;
    heif_image_create(64, 64, heif_colorspace_RGB, heif_chroma_interleaved_RGB, &image);
    heif_image_add_plane(image, heif_channel_interleaved, 64, 64, 8);
    int stride = 0;
    uint8_t* plane = heif_image_get_plane(image, heif_channel_interleaved, &stride);
    for (int i = 0; i < 64 * stride; ++i) plane[i] = static_cast<uint8_t>(i);
    heif_context_encode_image(context, image, encoder, nullptr, nullptr);
    heif_writer writer = {};
    writer.writer_api_version = 1;
    writer.write = [](heif_context*, const void* data, size_t size, void* user) {
      static_cast<std::string*>(user)->append(static_cast<const char*>(data), size);
      return heif_error{heif_error_Ok, heif_suberror_Unspecified, ""};
    };
    heif_context_write(context, &writer, &bytes);
    heif_image_release(image);
    heif_encoder_release(encoder);
  }
  heif_context_free(context);
  const size_t ispe = bytes.find("ispe");
  if (ispe == std::string::npos) return std::string();
  std::string size;
  PutBe32(&size, width);
  PutBe32(&size, height);
  bytes.replace(ispe + 8, 8, size);  // after type, version and flags
  return bytes;
}

TEST(BombTest, PeakMemoryStaysBoundedForEveryFamily) {
  ScratchDir scratch;
  ASSERT_FALSE(scratch.path().empty());
  const std::string out = scratch.Join("out");
  ASSERT_EQ(mkdir(out.c_str(), 0755), 0);

  struct Case {
    const char* name;
    std::string bytes;
  };
  // Sizes that are really decoded are kept moderate so that the sanitizer
  // build stays quick; sizes that are only declared go to the limits.
  const Case cases[] = {
      {"zeros.png", ZeroPng(6000, 6000)},
      {"declared.png", ZeroPng(30000, 30000, 4)},
      {"screen.gif", BigScreenGif(6000, 6000)},
      {"wide-screen.gif", BigScreenGif(65535, 65535)},
      {"strip.tif", HugeStripTiff(30000, 30000, 0xFFFFFFF0u)},
      {"declared.jpg", JpegDeclaring(65000, 65000, false)},
      {"baseline.jpg", JpegDeclaring(12000, 12000, false)},
      {"progressive.jpg", JpegDeclaring(30000, 30000, true)},
      {"declared.webp", WebpDeclaring(16383, 16383)},
      {"declared.heic", HeifDeclaring(30000, 30000)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_FALSE(c.bytes.empty());
    const std::string src = scratch.Join(c.name);
    std::ofstream(src, std::ios::binary) << c.bytes;
    std::filesystem::remove_all(out);
    mkdir(out.c_str(), 0755);

    const auto start = std::chrono::steady_clock::now();
    ExpectCleanRun(RunTool({"--output_dir", out, "--src", src}), out);
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start).count();
    // The largest child so far; the runs are sequential, so every one of
    // them stayed below it.
    struct rusage usage;
    ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
    EXPECT_LT(usage.ru_maxrss * 1024L, kMaxRssBytes) << usage.ru_maxrss << " KiB";
    std::fprintf(stderr, "%s: %lld s, peak so far %ld MiB\n", c.name, static_cast<long long>(seconds),
                 usage.ru_maxrss / 1024);
  }
}

}  // namespace
}  // namespace tessera
