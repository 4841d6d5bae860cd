#include "lib/codec/testing/image-fixtures.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <jpeglib.h>
#include <spng.h>

#include "lib/utility/testing/byte-writers.h"

namespace tessera {
namespace codec {
namespace testing {
namespace {

// libjpeg's default error handler exits the process, which is acceptable for
// fixtures: our own arguments are always valid.
struct Compressor {
  Compressor() {
    cinfo.err = jpeg_std_error(&err);
    jpeg_create_compress(&cinfo);
    jpeg_mem_dest(&cinfo, &buffer, &size);
  }
  ~Compressor() {
    jpeg_destroy_compress(&cinfo);
    std::free(buffer);
  }
  std::string Result() const { return std::string(reinterpret_cast<char*>(buffer), size); }

  jpeg_compress_struct cinfo;
  jpeg_error_mgr err;
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
};

std::string ExifWithOrientation(int orientation) {
  // "Exif\0\0", little-endian TIFF header, one IFD with one SHORT entry.
  const uint8_t block[] = {'E', 'x', 'i', 'f', 0, 0, 'I', 'I', 42, 0, 8, 0, 0, 0, 1, 0,
                           0x12, 0x01, 3, 0, 1, 0, 0, 0, static_cast<uint8_t>(orientation), 0,
                           0, 0, 0, 0, 0, 0};
  return std::string(reinterpret_cast<const char*>(block), sizeof(block));
}

uint32_t Crc32(const std::string& bytes) {
  uint32_t crc = 0xFFFFFFFFu;
  for (unsigned char c : bytes) {
    crc ^= c;
    for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
  }
  return crc ^ 0xFFFFFFFFu;
}

using ::tessera::testing::AppendBe32;
using ::tessera::testing::ReadBe32;

void AppendChunk(std::string* out, const char* type, const std::string& data) {
  AppendBe32(out, static_cast<uint32_t>(data.size()));
  const std::string body = std::string(type, 4) + data;
  out->append(body);
  AppendBe32(out, Crc32(body));
}

// Re-chunks the image data the way streaming encoders write it.
std::string SplitIdat(const std::string& png, size_t piece) {
  if (png.size() < 8) return png;
  std::string head = png.substr(0, 8), data, tail;
  for (size_t at = 8; at + 12 <= png.size();) {
    const uint32_t length = ReadBe32(png, at);
    const std::string type = png.substr(at + 4, 4);
    if (type == "IDAT") {
      data += png.substr(at + 8, length);
    } else {
      (data.empty() ? head : tail) += png.substr(at, 12 + length);
    }
    at += 12 + length;
  }
  for (size_t at = 0; at < data.size(); at += piece) AppendChunk(&head, "IDAT", data.substr(at, piece));
  return head + tail;
}

}  // namespace

RgbImage::RgbImage(int w, int h, uint8_t r, uint8_t g, uint8_t b) : width(w), height(h) {
  rgb.resize(static_cast<size_t>(w) * h * 3);
  Fill(0, 0, w, h, r, g, b);
}

void RgbImage::Fill(int x0, int y0, int x1, int y1, uint8_t r, uint8_t g, uint8_t b) {
  for (int y = y0; y < y1; ++y) {
    for (int x = x0; x < x1; ++x) {
      uint8_t* p = &rgb[(static_cast<size_t>(y) * width + x) * 3];
      p[0] = r;
      p[1] = g;
      p[2] = b;
    }
  }
}

std::string EncodeJpeg(const RgbImage& image, const JpegOptions& options) {
  Compressor c;
  c.cinfo.image_width = image.width;
  c.cinfo.image_height = image.height;
  c.cinfo.input_components = 3;
  c.cinfo.in_color_space = JCS_RGB;
  jpeg_set_defaults(&c.cinfo);
  jpeg_set_quality(&c.cinfo, options.quality, TRUE);
  if (options.full_chroma) {
    for (int i = 0; i < 3; ++i) c.cinfo.comp_info[i].h_samp_factor = c.cinfo.comp_info[i].v_samp_factor = 1;
  }
  if (options.progressive) jpeg_simple_progression(&c.cinfo);
  jpeg_start_compress(&c.cinfo, TRUE);
  if (options.exif_orientation > 0) {
    const std::string exif = ExifWithOrientation(options.exif_orientation);
    jpeg_write_marker(&c.cinfo, JPEG_APP0 + 1, reinterpret_cast<const JOCTET*>(exif.data()),
                      static_cast<unsigned>(exif.size()));
  }
  if (!options.icc.empty()) {
    jpeg_write_icc_profile(&c.cinfo, reinterpret_cast<const JOCTET*>(options.icc.data()),
                           static_cast<unsigned>(options.icc.size()));
  }
  while (c.cinfo.next_scanline < c.cinfo.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(&image.rgb[static_cast<size_t>(c.cinfo.next_scanline) * image.width * 3]);
    jpeg_write_scanlines(&c.cinfo, &row, 1);
  }
  jpeg_finish_compress(&c.cinfo);
  return c.Result();
}

namespace {

// Entropy-coded bits, with a zero byte stuffed after every 0xFF.
class JpegBits {
 public:
  void Put(uint32_t value, int count) {
    for (int i = count - 1; i >= 0; --i) {
      byte_ = static_cast<uint8_t>(byte_ << 1 | ((value >> i) & 1));
      if (++filled_ == 8) Flush();
    }
  }
  // Pads the last byte with ones, as encoders do.
  std::string Finish() {
    if (filled_ > 0) Put((1u << (8 - filled_)) - 1, 8 - filled_);
    return out_;
  }

 private:
  void Flush() {
    out_.push_back(static_cast<char>(byte_));
    if (byte_ == 0xFF) out_.push_back('\0');
    byte_ = 0;
    filled_ = 0;
  }
  std::string out_;
  uint8_t byte_ = 0;
  int filled_ = 0;
};

std::string JpegSegment(uint8_t marker, const std::string& body) {
  const size_t length = body.size() + 2;
  return std::string{'\xff', static_cast<char>(marker), static_cast<char>(length >> 8), static_cast<char>(length)} +
         body;
}

}  // namespace

std::string ManyScanJpeg(uint32_t side, int scans) {
  const uint64_t blocks = uint64_t{(side + 7) / 8} * ((side + 7) / 8);
  std::string jpeg = "\xff\xd8";
  jpeg += JpegSegment(0xDB, std::string(1, '\0') + std::string(64, '\1'));
  jpeg += JpegSegment(0xC2, std::string{8, static_cast<char>(side >> 8), static_cast<char>(side),
                                        static_cast<char>(side >> 8), static_cast<char>(side), 1, 1, 0x11, 0});
  // One code, a single 0 bit, in each table: DC difference 0, and the
  // longest end-of-band run (symbol 0xE0, 14 more bits).
  std::string counts(16, '\0');
  counts[0] = 1;
  jpeg += JpegSegment(0xC4, std::string(1, '\x00') + counts + std::string(1, '\x00'));
  jpeg += JpegSegment(0xC4, std::string(1, '\x10') + counts + std::string(1, '\xe0'));
  JpegBits dc;
  for (uint64_t i = 0; i < blocks; ++i) dc.Put(0, 1);
  jpeg += JpegSegment(0xDA, std::string{1, 1, 0, 0, 0, 0}) + dc.Finish();
  JpegBits ac;
  for (uint64_t done = 0; done < blocks; done += 32767) {
    ac.Put(0, 1);
    ac.Put(0x3FFF, 14);
  }
  const std::string ac_scan = JpegSegment(0xDA, std::string{1, 1, 0, 1, 63, 0}) + ac.Finish();
  for (int i = 1; i < scans; ++i) jpeg += ac_scan;
  return jpeg + "\xff\xd9";
}

std::string EncodeCmykJpeg(int width, int height, const uint8_t ink[4], bool adobe_inverted) {
  Compressor c;
  c.cinfo.image_width = width;
  c.cinfo.image_height = height;
  c.cinfo.input_components = 4;
  c.cinfo.in_color_space = JCS_CMYK;
  jpeg_set_defaults(&c.cinfo);
  jpeg_set_colorspace(&c.cinfo, JCS_CMYK);
  jpeg_set_quality(&c.cinfo, 95, TRUE);
  c.cinfo.write_Adobe_marker = adobe_inverted ? TRUE : FALSE;
  jpeg_start_compress(&c.cinfo, TRUE);
  std::vector<uint8_t> row(static_cast<size_t>(width) * 4);
  for (int x = 0; x < width; ++x) {
    for (int k = 0; k < 4; ++k) row[x * 4 + k] = adobe_inverted ? 255 - ink[k] : ink[k];
  }
  JSAMPROW rows[1] = {row.data()};
  while (c.cinfo.next_scanline < c.cinfo.image_height) jpeg_write_scanlines(&c.cinfo, rows, 1);
  jpeg_finish_compress(&c.cinfo);
  return c.Result();
}

std::string EncodePng(const PngImage& image) {
  spng_ctx* ctx = spng_ctx_new(SPNG_CTX_ENCODER);
  if (ctx == nullptr) return std::string();
  spng_set_option(ctx, SPNG_ENCODE_TO_BUFFER, 1);
  spng_ihdr ihdr = {image.width, image.height, image.bit_depth, image.color_type, 0, 0,
                    static_cast<uint8_t>(image.interlaced ? 1 : 0)};
  spng_set_ihdr(ctx, &ihdr);
  if (!image.palette_rgb.empty()) {
    spng_plte plte = {};
    plte.n_entries = static_cast<uint32_t>(image.palette_rgb.size() / 3);
    for (uint32_t i = 0; i < plte.n_entries; ++i) {
      plte.entries[i].red = image.palette_rgb[3 * i];
      plte.entries[i].green = image.palette_rgb[3 * i + 1];
      plte.entries[i].blue = image.palette_rgb[3 * i + 2];
    }
    spng_set_plte(ctx, &plte);
  }
  if (!image.trns.empty()) {
    spng_trns trns = {};
    trns.n_type3_entries = static_cast<uint32_t>(image.trns.size());
    std::memcpy(trns.type3_alpha, image.trns.data(), image.trns.size());
    spng_set_trns(ctx, &trns);
  }
  std::string icc = image.icc;
  if (!icc.empty()) {
    spng_iccp iccp = {};
    std::strcpy(iccp.profile_name, "test");
    iccp.profile_len = icc.size();
    iccp.profile = &icc[0];
    spng_set_iccp(ctx, &iccp);
  }
  std::string result;
  int error = spng_encode_image(ctx, image.samples.data(), image.samples.size(), SPNG_FMT_RAW,
                                SPNG_ENCODE_FINALIZE);
  if (error == 0) {
    size_t size = 0;
    void* buffer = spng_get_png_buffer(ctx, &size, &error);
    if (buffer != nullptr) {
      result.assign(static_cast<const char*>(buffer), size);
      std::free(buffer);
    }
  } else {
    std::fprintf(stderr, "spng_encode_image: %s\n", spng_strerror(error));
  }
  spng_ctx_free(ctx);
  return image.idat_size > 0 ? SplitIdat(result, image.idat_size) : result;
}

std::string PngDeclaring(uint32_t width, uint32_t height) {
  std::string png("\x89PNG\r\n\x1A\n", 8);
  std::string ihdr;
  AppendBe32(&ihdr, width);
  AppendBe32(&ihdr, height);
  ihdr += std::string("\x08\x06\x00\x00\x00", 5);
  AppendChunk(&png, "IHDR", ihdr);
  // A stored (uncompressed) empty zlib stream.
  AppendChunk(&png, "IDAT", std::string("\x78\x01\x01\x00\x00\xFF\xFF\x00\x00\x00\x01", 11));
  AppendChunk(&png, "IEND", std::string());
  return png;
}

}  // namespace testing
}  // namespace codec
}  // namespace tessera
