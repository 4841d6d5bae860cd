// The encoder table on Windows: the platform's own image encoders, GDI+'s
// (flat API), which the frame writer looks up by MIME type and saves with.
// Thumbnails are saved by image-encoder.cc, as on every platform. GDI+ is
// started once per process, on first use, and stays up until the process
// ends.
#include <windows.h>
// GDI+ needs the Windows types first.
#include <gdiplus.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "lib/image/image-encoder.h"
#include "lib/utility/text-conversion.h"

namespace tessera {
namespace image {
namespace {

namespace gdip = Gdiplus::DllExports;

// GdiplusStartup once, thread-safely; false when GDI+ could not start.
bool EnsureGdiplus() {
  static const bool started = [] {
    Gdiplus::GdiplusStartupInput input;
    ULONG_PTR token = 0;
    return Gdiplus::GdiplusStartup(&token, &input, nullptr) == Gdiplus::Ok;
  }();
  return started;
}

// The class id of the installed encoder whose MIME type is exactly `mime`.
bool FindEncoder(const wchar_t* mime, CLSID* clsid) {
  if (!EnsureGdiplus()) return false;
  UINT count = 0;
  UINT bytes = 0;
  if (gdip::GdipGetImageEncodersSize(&count, &bytes) != Gdiplus::Ok || bytes == 0) return false;
  std::vector<uint8_t> table(bytes);
  auto* codecs = reinterpret_cast<Gdiplus::ImageCodecInfo*>(table.data());
  if (gdip::GdipGetImageEncoders(count, bytes, codecs) != Gdiplus::Ok) return false;
  for (UINT i = 0; i < count; ++i) {
    if (codecs[i].MimeType != nullptr && wcscmp(codecs[i].MimeType, mime) == 0) {
      *clsid = codecs[i].Clsid;
      return true;
    }
  }
  return false;
}

struct ImageDisposer {
  void operator()(Gdiplus::GpBitmap* bitmap) const { gdip::GdipDisposeImage(bitmap); }
};

Status Save(const Bitmap& bitmap, const std::string& utf8_path, const wchar_t* mime,
            const Gdiplus::EncoderParameters* parameters) {
  if (bitmap.empty()) return Status::InvalidArgument("empty bitmap");
  // Strict: a path that is not valid UTF-8 is refused, not guessed at.
  const std::u16string path = utility::UTF8ToUTF16(utf8_path);
  if (path.empty()) return Status::InvalidArgument("path is not valid UTF-8: " + utf8_path);
  CLSID clsid;
  if (!FindEncoder(mime, &clsid)) return Status::NotSupported("no GDI+ encoder for the format");
  // GDI+ only reads the pixels while saving; the 32bpp RGB format ignores
  // the fourth byte, so the bitmap is saved opaque.
  Gdiplus::GpBitmap* raw = nullptr;
  Gdiplus::GpStatus status = gdip::GdipCreateBitmapFromScan0(
      bitmap.width(), bitmap.height(), static_cast<INT>(bitmap.stride()), PixelFormat32bppRGB,
      const_cast<BYTE*>(bitmap.data()), &raw);
  if (status != Gdiplus::Ok) return Status::Internal("GdipCreateBitmapFromScan0: " + std::to_string(status));
  std::unique_ptr<Gdiplus::GpBitmap, ImageDisposer> image(raw);
  status = gdip::GdipSaveImageToFile(image.get(), reinterpret_cast<const WCHAR*>(path.c_str()), &clsid, parameters);
  if (status != Gdiplus::Ok) return Status::IoError("GdipSaveImageToFile: " + std::to_string(status));
  return Status::OK();
}

// What the frame writer saves with: GDI+'s encoder as it comes, with no
// encoder parameters (its default quality).
Status GdiplusSaveJpeg(const Bitmap& bitmap, const std::string& utf8_path) {
  return Save(bitmap, utf8_path, L"image/jpeg", nullptr);
}

Status GdiplusSavePng(const Bitmap& bitmap, const std::string& utf8_path) {
  return Save(bitmap, utf8_path, L"image/png", nullptr);
}

// GDI+'s own table, asked for anew every time; only the formats saved here
// come out of it.
class GdiplusEncoderTable : public EncoderTable {
 public:
  int GetSize(uint32_t* count, uint32_t* bytes) const override {
    if (!EnsureGdiplus()) return Gdiplus::GdiplusNotInitialized;
    UINT encoder_count = 0;
    UINT table_bytes = 0;
    const Gdiplus::GpStatus status = gdip::GdipGetImageEncodersSize(&encoder_count, &table_bytes);
    if (status != Gdiplus::Ok) return status;
    *count = encoder_count;
    *bytes = table_bytes;
    return 0;
  }

  int GetEncoders(uint32_t count, uint32_t bytes, std::vector<ImageEncoder>* encoders) const override {
    if (!EnsureGdiplus()) return Gdiplus::GdiplusNotInitialized;
    // The entries come first, the strings they point at after them.
    if (uint64_t{count} * sizeof(Gdiplus::ImageCodecInfo) > bytes) return Gdiplus::InvalidParameter;
    std::vector<Gdiplus::ImageCodecInfo> table((bytes + sizeof(Gdiplus::ImageCodecInfo) - 1) /
                                               sizeof(Gdiplus::ImageCodecInfo));
    const Gdiplus::GpStatus status = gdip::GdipGetImageEncoders(count, bytes, table.data());
    if (status != Gdiplus::Ok) return status;
    std::vector<ImageEncoder> list;
    for (UINT i = 0; i < count; ++i) {
      const WCHAR* mime = table[i].MimeType;
      if (mime == nullptr) continue;
      if (wcscmp(mime, L"image/jpeg") == 0) list.push_back({"image/jpeg", &GdiplusSaveJpeg});
      if (wcscmp(mime, L"image/png") == 0) list.push_back({"image/png", &GdiplusSavePng});
    }
    *encoders = std::move(list);
    return 0;
  }
};

}  // namespace

const EncoderTable& PlatformEncoderTable() {
  static const GdiplusEncoderTable table;
  return table;
}

}  // namespace image
}  // namespace tessera
