// JPEG through libjpeg-turbo, PNG through libspng, written through a
// descriptor that the file layer opened.
#include "lib/image/image-encoder.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include <jpeglib.h>
#include <spng.h>

namespace tessera {
namespace image {
namespace {

constexpr int kJpegQuality = 85;
// Up to this longer side chroma keeps full resolution (4:4:4); above, 4:2:0.
constexpr int kFullChromaMaxSide = 640;

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};
using ScopedFile = std::unique_ptr<FILE, FileCloser>;

Status CannotWrite(const std::string& utf8_path, int error) {
  return Status::IoError("cannot write '" + utf8_path + "': " + std::strerror(error));
}

// A stream over a duplicate of the held descriptor, with the file emptied
// and the stream at its start: a file may be saved into more than once (the
// video fallback writes the output of a failed first attempt again).
Status StreamInto(const file::OpenFile& file, const std::string& utf8_path, ScopedFile* out) {
  const int descriptor = file.descriptor();
  if (ftruncate(descriptor, 0) != 0 || lseek(descriptor, 0, SEEK_SET) != 0) return CannotWrite(utf8_path, errno);
  // Close-on-exec, so that the descriptor does not leak into child processes.
  const int copy = fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
  if (copy < 0) return CannotWrite(utf8_path, errno);
  FILE* stream = fdopen(copy, "wb");
  if (stream == nullptr) {
    const int error = errno;
    close(copy);
    return CannotWrite(utf8_path, error);
  }
  out->reset(stream);
  return Status::OK();
}

// Flushes and closes, reporting errors that only show up at that point
// (a full disk, for example).
Status CloseAfterWriting(ScopedFile* file, const std::string& utf8_path) {
  const bool write_failed = std::ferror(file->get()) != 0;
  const int close_result = std::fclose(file->release());
  if (write_failed || close_result != 0) return Status::IoError("cannot write '" + utf8_path + "'");
  return Status::OK();
}

// Runs `encode` on a stream into `file`, then checks that the name still
// leads to what was written.
template <typename Encode>
Status SaveInto(const file::OpenFile& file, const std::string& utf8_path, Encode encode) {
  ScopedFile stream;
  Status status = StreamInto(file, utf8_path, &stream);
  if (!status.ok()) return status;
  status = encode(stream.get());
  const Status closed = CloseAfterWriting(&stream, utf8_path);
  if (!status.ok()) return status;
  if (!closed.ok()) return closed;
  if (!file::FSNamesOpenFile(utf8_path, file)) {
    return Status::IoError("'" + utf8_path + "' was replaced while it was written");
  }
  return Status::OK();
}

Status OpenForWriting(const std::string& utf8_path, file::OpenFile* file) {
  if (file::FSOpenForWriting(utf8_path, file) != 0) {
    return Status::IoError("cannot create '" + utf8_path + "': " + std::strerror(errno));
  }
  return Status::OK();
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
  ~JpegEncoder() { jpeg_destroy_compress(&cinfo_); }
  JpegEncoder(const JpegEncoder&) = delete;
  JpegEncoder& operator=(const JpegEncoder&) = delete;

  Status Encode(const Bitmap& bitmap, FILE* file) {
    if (Compress(bitmap, file)) return Status::OK();
    return Status::IoError(std::string("JPEG encoding failed: ") + error_.message);
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

  bool Compress(const Bitmap& bitmap, FILE* file) {
    if (setjmp(error_.jump)) return false;
    jpeg_create_compress(&cinfo_);
    jpeg_stdio_dest(&cinfo_, file);
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
};

struct SpngFreer {
  void operator()(spng_ctx* ctx) const { spng_ctx_free(ctx); }
};
using SpngPtr = std::unique_ptr<spng_ctx, SpngFreer>;

Status SpngError(const char* what, int code) {
  return Status::IoError(std::string("PNG encoding failed in ") + what + ": " + spng_strerror(code));
}

Status EncodeJpeg(const Bitmap& bitmap, FILE* stream) {
  std::unique_ptr<JpegEncoder> encoder(new (std::nothrow) JpegEncoder);
  if (!encoder) return Status::Internal("out of memory for the JPEG encoder");
  return encoder->Encode(bitmap, stream);
}

Status EncodePng(const Bitmap& bitmap, FILE* stream) {
  SpngPtr ctx(spng_ctx_new(SPNG_CTX_ENCODER));
  if (!ctx) return Status::Internal("out of memory for the PNG encoder");
  int rc = spng_set_png_file(ctx.get(), stream);
  if (rc != 0) return SpngError("spng_set_png_file", rc);
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
  return Status::OK();
}

// Saves through `file` when it holds the file open, else opens the path.
template <typename Encode>
Status Save(const Bitmap& bitmap, const file::OpenFile& file, const std::string& utf8_path, Encode encode) {
  if (bitmap.empty()) return Status::InvalidArgument("cannot save an empty bitmap");
  if (file.is_open()) return SaveInto(file, utf8_path, encode);
  file::OpenFile opened;
  const Status status = OpenForWriting(utf8_path, &opened);
  if (!status.ok()) return status;
  return SaveInto(opened, utf8_path, encode);
}

}  // namespace

Status SaveJpeg(const Bitmap& bitmap, const std::string& utf8_path) {
  return SaveJpeg(bitmap, file::OpenFile(), utf8_path);
}

Status SavePng(const Bitmap& bitmap, const std::string& utf8_path) {
  return SavePng(bitmap, file::OpenFile(), utf8_path);
}

Status SaveJpeg(const Bitmap& bitmap, const file::OpenFile& file, const std::string& utf8_path) {
  return Save(bitmap, file, utf8_path, [&bitmap](FILE* stream) { return EncodeJpeg(bitmap, stream); });
}

Status SavePng(const Bitmap& bitmap, const file::OpenFile& file, const std::string& utf8_path) {
  return Save(bitmap, file, utf8_path, [&bitmap](FILE* stream) { return EncodePng(bitmap, stream); });
}

namespace {

// The two encoders linked in; neither step can fail.
constexpr ImageEncoder kEncoders[] = {{"image/jpeg", &SaveJpeg}, {"image/png", &SavePng}};
constexpr uint32_t kEncoderCount = sizeof(kEncoders) / sizeof(kEncoders[0]);

class LinkedEncoderTable : public EncoderTable {
 public:
  int GetSize(uint32_t* count, uint32_t* bytes) const override {
    *count = kEncoderCount;
    *bytes = static_cast<uint32_t>(sizeof(kEncoders));
    return 0;
  }
  int GetEncoders(uint32_t count, uint32_t /*bytes*/, std::vector<ImageEncoder>* encoders) const override {
    encoders->assign(kEncoders, kEncoders + std::min(count, kEncoderCount));
    return 0;
  }
};

}  // namespace

const EncoderTable& PlatformEncoderTable() {
  static const LinkedEncoderTable table;
  return table;
}

}  // namespace image
}  // namespace tessera
