// JPEG through libjpeg-turbo, PNG through libspng, encoded in memory and
// written through the file layer: through the file a caller holds open where
// the platform keeps one (POSIX), else at its path. Both platforms write the
// same bytes for the same picture.
#include "lib/image/image-encoder.h"

#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include <jpeglib.h>
#include <spng.h>

namespace tessera {
namespace image {
namespace {

constexpr int kJpegQuality = 85;
// Up to this longer side chroma keeps full resolution (4:4:4); above, 4:2:0.
constexpr int kFullChromaMaxSide = 640;

Status CannotWrite(const std::string& utf8_path, int error) {
  return Status::IoError("cannot write '" + utf8_path + "': " + std::strerror(error));
}

// Owns one libjpeg compressor. libjpeg reports errors by calling error_exit,
// which must not return; ours longjmps back into Compress(), the only
// function that calls into the library after setjmp. Compress() keeps no
// locals with destructors, so the jump skips nothing; the compressor is
// destroyed by ~JpegEncoder on every path.
class JpegEncoder {
 public:
  JpegEncoder() {
    std::memset(&cinfo_, 0, sizeof(cinfo_));
    cinfo_.err = jpeg_std_error(&error_.manager);
    error_.manager.error_exit = &ErrorExit;
    error_.manager.output_message = &IgnoreMessage;
    error_.message[0] = '\0';
  }
  ~JpegEncoder() {
    jpeg_destroy_compress(&cinfo_);
    std::free(buffer_);
  }
  JpegEncoder(const JpegEncoder&) = delete;
  JpegEncoder& operator=(const JpegEncoder&) = delete;

  Status Encode(const Bitmap& bitmap, std::string* out) {
    if (!Compress(bitmap)) return Status::IoError(std::string("JPEG encoding failed: ") + error_.message);
    out->assign(reinterpret_cast<const char*>(buffer_), buffer_size_);
    return Status::OK();
  }

 private:
  struct ErrorManager {
    jpeg_error_mgr manager;  // first, so the library's pointer is ours too
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
  };

  static void ErrorExit(j_common_ptr cinfo) {
    ErrorManager* error = reinterpret_cast<ErrorManager*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, error->message);
    std::longjmp(error->jump, 1);
  }

  // Warnings (such as a premature end of data) cannot arise while encoding
  // from memory; nothing is printed.
  static void IgnoreMessage(j_common_ptr) {}

  bool Compress(const Bitmap& bitmap) {
    if (setjmp(error_.jump)) return false;
    jpeg_create_compress(&cinfo_);
    // libjpeg grows the buffer with malloc; ~JpegEncoder frees it.
    jpeg_mem_dest(&cinfo_, &buffer_, &buffer_size_);
    cinfo_.image_width = static_cast<JDIMENSION>(bitmap.width());
    cinfo_.image_height = static_cast<JDIMENSION>(bitmap.height());
    cinfo_.input_components = 4;
    // Straight from the bitmap's rows: libjpeg-turbo reads BGRA and skips alpha.
    cinfo_.in_color_space = JCS_EXT_BGRX;
    jpeg_set_defaults(&cinfo_);
    jpeg_set_quality(&cinfo_, kJpegQuality, TRUE);
    cinfo_.optimize_coding = TRUE;
    const int longer_side = bitmap.width() > bitmap.height() ? bitmap.width() : bitmap.height();
    const int luma_sampling = longer_side <= kFullChromaMaxSide ? 1 : 2;
    cinfo_.comp_info[0].h_samp_factor = luma_sampling;
    cinfo_.comp_info[0].v_samp_factor = luma_sampling;
    for (int i = 1; i < 3; ++i) {
      cinfo_.comp_info[i].h_samp_factor = 1;
      cinfo_.comp_info[i].v_samp_factor = 1;
    }
    // JFIF only: no EXIF, no ICC profile, no comments.
    jpeg_start_compress(&cinfo_, TRUE);
    constexpr int kBatch = 16;
    JSAMPROW rows[kBatch];
    while (cinfo_.next_scanline < cinfo_.image_height) {
      const int first = static_cast<int>(cinfo_.next_scanline);
      int count = 0;
      for (; count < kBatch && first + count < bitmap.height(); ++count) {
        // libjpeg's row type is not const-qualified; it only reads.
        rows[count] = const_cast<JSAMPROW>(bitmap.row(first + count));
      }
      jpeg_write_scanlines(&cinfo_, rows, static_cast<JDIMENSION>(count));
    }
    jpeg_finish_compress(&cinfo_);
    return true;
  }

  jpeg_compress_struct cinfo_;
  ErrorManager error_;
  unsigned char* buffer_ = nullptr;
  unsigned long buffer_size_ = 0;  // NOLINT(runtime/int): libjpeg's type
};

struct SpngFreer {
  void operator()(spng_ctx* ctx) const { spng_ctx_free(ctx); }
};
using SpngPtr = std::unique_ptr<spng_ctx, SpngFreer>;

Status SpngError(const char* what, int code) {
  return Status::IoError(std::string("PNG encoding failed in ") + what + ": " + spng_strerror(code));
}

Status EncodeJpeg(const Bitmap& bitmap, std::string* out) {
  std::unique_ptr<JpegEncoder> encoder(new (std::nothrow) JpegEncoder);
  if (!encoder) return Status::Internal("out of memory for the JPEG encoder");
  return encoder->Encode(bitmap, out);
}

struct SpngBufferFreer {
  void operator()(void* buffer) const { std::free(buffer); }
};

Status EncodePng(const Bitmap& bitmap, std::string* out) {
  SpngPtr ctx(spng_ctx_new(SPNG_CTX_ENCODER));
  if (!ctx) return Status::Internal("out of memory for the PNG encoder");
  int rc = spng_set_option(ctx.get(), SPNG_ENCODE_TO_BUFFER, 1);
  if (rc != 0) return SpngError("spng_set_option", rc);
  spng_ihdr ihdr = {};
  ihdr.width = static_cast<uint32_t>(bitmap.width());
  ihdr.height = static_cast<uint32_t>(bitmap.height());
  ihdr.bit_depth = 8;
  ihdr.color_type = SPNG_COLOR_TYPE_TRUECOLOR;
  rc = spng_set_ihdr(ctx.get(), &ihdr);
  if (rc != 0) return SpngError("spng_set_ihdr", rc);
  rc = spng_encode_image(ctx.get(), nullptr, 0, SPNG_FMT_PNG, SPNG_ENCODE_PROGRESSIVE | SPNG_ENCODE_FINALIZE);
  if (rc != 0) return SpngError("spng_encode_image", rc);

  std::unique_ptr<uint8_t[]> rgb(new (std::nothrow) uint8_t[static_cast<size_t>(bitmap.width()) * 3]);
  if (!rgb) return Status::Internal("out of memory for a PNG row");
  for (int y = 0; y < bitmap.height(); ++y) {
    const uint8_t* in = bitmap.row(y);
    uint8_t* out = rgb.get();
    for (int x = 0; x < bitmap.width(); ++x, in += 4, out += 3) {
      out[0] = in[2];
      out[1] = in[1];
      out[2] = in[0];
    }
    rc = spng_encode_row(ctx.get(), rgb.get(), static_cast<size_t>(bitmap.width()) * 3);
    // The last row reports the end of the image.
    if (rc != 0 && !(rc == SPNG_EOI && y == bitmap.height() - 1)) return SpngError("spng_encode_row", rc);
  }
  size_t size = 0;
  int error = 0;
  std::unique_ptr<void, SpngBufferFreer> png(spng_get_png_buffer(ctx.get(), &size, &error));
  if (!png) return SpngError("spng_get_png_buffer", error);
  out->assign(static_cast<const char*>(png.get()), size);
  return Status::OK();
}

// Encodes, then writes the bytes through `file` when it holds the file
// open, else into the file made at the path, and checks that the name still
// leads to what was written.
template <typename Encode>
Status Save(const Bitmap& bitmap, const file::OpenFile& file, const std::string& utf8_path, Encode encode) {
  if (bitmap.empty()) return Status::InvalidArgument("cannot save an empty bitmap");
  std::string bytes;
  Status status = encode(&bytes);
  if (!status.ok()) return status;
  file::OpenFile opened;
  const file::OpenFile* target = &file;
  if (!file.is_open()) {
    if (file::FSOpenForWriting(utf8_path, &opened) != 0) {
      return Status::IoError("cannot create '" + utf8_path + "': " + std::strerror(errno));
    }
    target = &opened;
  }
  if (file::FSWriteOpenFile(utf8_path, *target, bytes.data(), bytes.size()) != 0) {
    return CannotWrite(utf8_path, errno);
  }
  if (!file::FSNamesOpenFile(utf8_path, *target)) {
    return Status::IoError("'" + utf8_path + "' was replaced while it was written");
  }
  return Status::OK();
}

}  // namespace

Status SaveJpeg(const Bitmap& bitmap, const std::string& utf8_path) {
  return SaveJpeg(bitmap, file::OpenFile(), utf8_path);
}

Status SavePng(const Bitmap& bitmap, const std::string& utf8_path) {
  return SavePng(bitmap, file::OpenFile(), utf8_path);
}

Status SaveJpeg(const Bitmap& bitmap, const file::OpenFile& file, const std::string& utf8_path) {
  return Save(bitmap, file, utf8_path, [&bitmap](std::string* out) { return EncodeJpeg(bitmap, out); });
}

Status SavePng(const Bitmap& bitmap, const file::OpenFile& file, const std::string& utf8_path) {
  return Save(bitmap, file, utf8_path, [&bitmap](std::string* out) { return EncodePng(bitmap, out); });
}

}  // namespace image
}  // namespace tessera
