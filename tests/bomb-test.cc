// Decompression bombs: small files that declare, or really hold, images far
// larger than their size, and videos whose containers multiply the work.
// Each run must stay within the tool's promises and its peak memory under a
// fixed budget, whatever the decoder makes of it.
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

#include "lib/codec/heif/testing/heif-fixtures.h"
#include "lib/codec/testing/image-fixtures.h"
#include "lib/color/testing/icc-fixtures.h"
#include "lib/utility/testing/scratch-dir.h"
#include "lib/utility/testing/byte-writers.h"
#include "tests/clean-run.h"
#include "tests/image-bytes.h"
#include "tests/tool-runner.h"

namespace tessera {
namespace {

using testing::ExpectCleanRun;
using testing::ProcessResult;
using testing::PutBe32;
using testing::RunProcess;
using testing::RunTool;
using testing::ZeroPng;
using test::ScratchDir;
constexpr auto PutLe16 = tessera::testing::AppendLe16;
constexpr auto PutLe32 = tessera::testing::AppendLe32;

// Peak resident memory any run may reach.
constexpr long kMaxRssBytes = long{1} << 30;

// How long a hostile video may keep a run busy: what the tool promises for
// any input (the run's budget and the exit), on every platform and under any
// load. A release build takes a few seconds; bench/ measures that.
constexpr std::chrono::seconds kMaxVideoRun{70};

// What a file of many tracks may take beyond what one of them alone takes.
constexpr long kTrackSlackKib = 128 * 1024;

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

// A GIF whose 1x1 image follows `count` extensions: empty comments, or
// one comment of one-byte sub-blocks. Either is a byte or two per record
// that a reader must parse before it finds the image.
std::string ExtensionFloodGif(uint32_t count, bool sub_blocks) {
  std::string gif = "GIF89a";
  PutLe16(&gif, 64);
  PutLe16(&gif, 48);
  gif += std::string("\x80\x00\x00", 3);
  gif += std::string("\x00\x00\x00\xff\xff\xff", 6);
  if (sub_blocks) {
    gif += "\x21\xfe";
    gif.reserve(gif.size() + size_t{count} * 2 + 32);
    for (uint32_t i = 0; i < count; ++i) gif += std::string("\x01x", 2);
    gif.push_back('\0');
  } else {
    gif.reserve(gif.size() + size_t{count} * 3 + 32);
    for (uint32_t i = 0; i < count; ++i) gif += std::string("\x21\xfe\x00", 3);
  }
  gif += std::string("\x2c\x00\x00\x00\x00\x01\x00\x01\x00\x00", 10);
  gif += std::string("\x02\x02\x44\x01\x00", 5);
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

std::string PngWithProfile(const std::string& icc) {
  codec::testing::PngImage png;
  png.width = 600;
  png.height = 400;
  png.color_type = 2;
  png.samples.assign(size_t{600} * 400 * 3, 140);
  png.icc = icc;
  return codec::testing::EncodePng(png);
}

std::string JpegWithProfile(const std::string& icc) {
  codec::testing::JpegOptions options;
  options.icc = icc;
  return codec::testing::EncodeJpeg(codec::testing::RgbImage(600, 400, 40, 90, 200), options);
}

// A Matroska element: its ID, an eight-byte size and the payload.
std::string Ebml(uint32_t id, const std::string& payload) {
  std::string element;
  const int id_bytes = id > 0xFFFFFF ? 4 : id > 0xFFFF ? 3 : id > 0xFF ? 2 : 1;
  for (int i = id_bytes - 1; i >= 0; --i) element.push_back(static_cast<char>(id >> (8 * i)));
  element.push_back('\x01');
  for (int i = 6; i >= 0; --i) element.push_back(static_cast<char>(static_cast<uint64_t>(payload.size()) >> (8 * i)));
  return element + payload;
}
std::string EbmlUint(uint32_t id, uint64_t value) {
  std::string bytes;
  for (int i = 7; i >= 0; --i) bytes.push_back(static_cast<char>(value >> (8 * i)));
  return Ebml(id, bytes);
}

// A Matroska file declaring `tracks` 4K H.264 tracks, none of which holds a
// frame: about 128 bytes a track.
std::string EmptyTracksMkv(int tracks) {
  const std::string header =
      Ebml(0x1A45DFA3, Ebml(0x4282, "matroska") + EbmlUint(0x4287, 4) + EbmlUint(0x4285, 2));
  std::string entries;
  for (int number = 1; number <= tracks; ++number) {
    const std::string video = EbmlUint(0xB0, 3840) + EbmlUint(0xBA, 2160);
    entries += Ebml(0xAE, EbmlUint(0xD7, number) + EbmlUint(0x73C5, number) + EbmlUint(0x83, 1) +
                              Ebml(0x86, "V_MPEG4/ISO/AVC") + Ebml(0xE0, video));
  }
  const std::string info = Ebml(0x1549A966, EbmlUint(0x2AD7B1, 1000000));
  const std::string cluster = Ebml(0x1F43B675, EbmlUint(0xE7, 0));
  return header + Ebml(0x18538067, info + Ebml(0x1654AE6B, entries) + cluster);
}

bool Ffmpeg(const std::vector<std::string>& args) {
  std::vector<std::string> all = {"-nostdin", "-v", "error", "-y"};
  all.insert(all.end(), args.begin(), args.end());
  const ProcessResult made = RunProcess("ffmpeg", all);
  return made.exited && made.status == 0;
}

// Videos that cost gigabytes and tens of seconds when every track is probed
// and HDR frames are tone-mapped at full size: a run ends in seconds and
// stays within the memory budget; the ones with a usable frame make every
// size.
TEST(BombTest, HostileVideosCostWhatOneSmallFrameCosts) {
  ScratchDir scratch;
  ASSERT_FALSE(scratch.path().empty());
  const std::string out = scratch.Path("out");

  // One 4K key frame, then a hundred tracks holding it (2.5 MB).
  const std::string frame = scratch.Path("frame.mkv");
  ASSERT_TRUE(Ffmpeg({"-f", "lavfi", "-i", "color=c=gray:s=3840x2160:r=1:d=1", "-frames:v", "1", "-c:v", "libx264",
                      "-preset", "ultrafast", "-pix_fmt", "yuv420p", frame}));
  std::vector<std::string> remux = {"-i", frame};
  for (int i = 0; i < 100; ++i) remux.insert(remux.end(), {"-map", "0:v"});
  remux.insert(remux.end(), {"-c", "copy", scratch.Path("tracks.mkv")});
  ASSERT_TRUE(Ffmpeg(remux));
  std::ofstream(scratch.Path("empty-tracks.mkv"), std::ios::binary) << EmptyTracksMkv(1000);
  // An 8192 x 8192 frame tagged PQ (200 KB).
  ASSERT_TRUE(Ffmpeg({"-f", "lavfi", "-i", "color=c=gray:s=8192x8192:r=1:d=1", "-frames:v", "1", "-c:v", "libx264",
                      "-preset", "ultrafast", "-pix_fmt", "yuv420p", "-color_trc", "smpte2084", "-color_primaries",
                      "bt2020", "-colorspace", "bt2020nc", scratch.Path("pq.mp4")}));

  // Runs the tool on `name`; its peak resident size goes to *peak_kib.
  auto run = [&](const char* name, int thumbnails, long* peak_kib) {
    std::filesystem::remove_all(out);
    mkdir(out.c_str(), 0755);
    const auto start = std::chrono::steady_clock::now();
    const ProcessResult result = RunTool({"--output_dir", out, "--src", scratch.Path(name)});
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(thumbnails, ExpectCleanRun(result, out));
    EXPECT_LT(elapsed, kMaxVideoRun);
    EXPECT_LT(result.peak_rss_kib * 1024L, kMaxRssBytes) << result.peak_rss_kib << " KiB";
    std::fprintf(stderr, "%s: %.1f s, peak %ld MiB\n", name, std::chrono::duration<double>(elapsed).count(),
                 result.peak_rss_kib / 1024);
    *peak_kib = result.peak_rss_kib;
  };
  long one_track_kib = 0;
  run("frame.mkv", 4, &one_track_kib);

  struct Case {
    const char* name;
    int thumbnails;
    bool costs_one_track;  // no more memory than the one-track file, give or take
  };
  for (const Case& c : {Case{"tracks.mkv", 4, true}, Case{"empty-tracks.mkv", 0, true}, Case{"pq.mp4", 4, false}}) {
    SCOPED_TRACE(c.name);
    long peak_kib = 0;
    run(c.name, c.thumbnails, &peak_kib);
    if (c.costs_one_track) {
      EXPECT_LT(peak_kib, one_track_kib + kTrackSlackKib);
    }
  }
}

TEST(BombTest, PeakMemoryStaysBoundedForEveryFamily) {
  ScratchDir scratch;
  ASSERT_FALSE(scratch.path().empty());
  const std::string out = scratch.Path("out");
  ASSERT_EQ(mkdir(out.c_str(), 0755), 0);

  struct Case {
    const char* name;
    std::string bytes;
    long max_seconds = 0;  // 0: 30 s
  };
  // Sizes that are really decoded are kept moderate so that the sanitizer
  // build stays quick; sizes that are only declared go to the limits.
  // Floods of tiny blocks once cost a read call per byte: tens of seconds.
  const Case cases[] = {
      {"extensions.gif", ExtensionFloodGif(10000000, false), 15},
      {"sub-blocks.gif", ExtensionFloodGif(10000000, true), 15},
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
      // 500 scans, each a pass over every block of the picture.
      {"many-scans.jpg", codec::testing::ManyScanJpeg(4096, 500)},
      // Colour profiles whose float pipelines repeat one matrix 100 000 and
      // 10 000 times: a transform of them takes minutes to build.
      {"pipeline-profile.png", PngWithProfile(color::testing::MultiProcessIccProfile(100000))},
      {"pipeline-profile.jpg", JpegWithProfile(color::testing::MultiProcessIccProfile(10000))},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ASSERT_FALSE(c.bytes.empty());
    const std::string src = scratch.Path(c.name);
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
    // Far below the run's deadline, even in a sanitizer build.
    EXPECT_LE(seconds, c.max_seconds > 0 ? c.max_seconds : 30);
    std::fprintf(stderr, "%s: %lld s, peak so far %ld MiB\n", c.name, static_cast<long long>(seconds),
                 usage.ru_maxrss / 1024);
  }
}

// HEIF grids of a few hundred kilobytes that libheif would grind through for
// minutes: tens of thousands of tile items, or tens of thousands of
// references to them. Each run ends in seconds with a clean refusal.
TEST(BombTest, HeifTileBombsEndQuickly) {
  ScratchDir scratch;
  ASSERT_FALSE(scratch.path().empty());
  const std::string out = scratch.Path("out");
  codec::testing::HeifFixture fixture;
  fixture.width = fixture.height = 64;
  fixture.paint = codec::testing::SolidHeif(90, 120, 200);
  codec::testing::HeifGrid grid;
  ASSERT_TRUE(codec::testing::ExtractCodedTile(codec::testing::EncodeHeif(fixture), 64, 64, &grid.tile));

  struct Case {
    const char* name;
    int rows;
    int columns;
    uint32_t tile_items;
  };
  const Case cases[] = {
      {"19881-tiles.heic", 141, 141, 0},
      {"65280-references.heic", 255, 256, 19000},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    grid.rows = c.rows;
    grid.columns = c.columns;
    grid.tile_items = c.tile_items;
    const std::string src = scratch.Path(c.name);
    std::ofstream(src, std::ios::binary) << codec::testing::BuildHeifGrid(grid);
    std::filesystem::remove_all(out);
    mkdir(out.c_str(), 0755);

    const auto start = std::chrono::steady_clock::now();
    ExpectCleanRun(RunTool({"--output_dir", out, "--src", src}), out);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_LT(seconds, 30.0);  // minutes without the structure check
    struct rusage usage;
    ASSERT_EQ(getrusage(RUSAGE_CHILDREN, &usage), 0);
    EXPECT_LT(usage.ru_maxrss * 1024L, kMaxRssBytes) << usage.ru_maxrss << " KiB";
  }
}

}  // namespace
}  // namespace tessera
