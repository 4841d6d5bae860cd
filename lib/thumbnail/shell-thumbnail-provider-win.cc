// The Windows Shell as thumbnail provider: the shell item for the path, the
// thumbnail handler registered for its type, and one bitmap from it. The
// caller has initialised COM on this thread and releases the provider before
// it uninitialises COM.
//
// Video frames that the generator exported itself are the exception: such a
// frame is our own JPEG, decoded exactly as it was written, so it is read
// back with GDI+ and reduced here, with no Shell round trip (which would also
// depend on a JPEG handler being registered on the machine).
#include <windows.h>
// Shell, COM and GDI+ declarations need the Windows types first.
#include <gdiplus.h>
#include <shlobj.h>
#include <shobjidl.h>
#include <thumbcache.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

#include "lib/image/area-resample.h"
#include "lib/image/bitmap.h"
#include "lib/thumbnail/thumbnail-provider.h"
#include "lib/utility/text-conversion.h"
#include "lib/video/exported-frames.h"

namespace tessera {
namespace thumbnail {
namespace {

template <typename Interface>
struct ComReleaser {
  void operator()(Interface* object) const { object->Release(); }
};
template <typename Interface>
using ComRef = std::unique_ptr<Interface, ComReleaser<Interface>>;

struct BitmapDeleter {
  void operator()(HBITMAP bitmap) const { DeleteObject(bitmap); }
};
using ScopedBitmap = std::unique_ptr<std::remove_pointer<HBITMAP>::type, BitmapDeleter>;

struct DcDeleter {
  void operator()(HDC dc) const { DeleteDC(dc); }
};
using ScopedDc = std::unique_ptr<std::remove_pointer<HDC>::type, DcDeleter>;

// Copies a GDI bitmap into an opaque top-down BGRA bitmap. Fails for a
// bitmap that GDI cannot describe or that exceeds the bitmap limits.
HRESULT CopyBitmap(HBITMAP handle, image::Bitmap* out) {
  BITMAP description;
  if (GetObjectW(handle, sizeof(description), &description) != sizeof(description)) return E_FAIL;
  const int width = description.bmWidth;
  const int height = description.bmHeight < 0 ? -description.bmHeight : description.bmHeight;
  // The Shell reports a handler that produced nothing as a 1x1 bitmap.
  if (width <= 1 && height <= 1) return E_FAIL;
  image::Bitmap pixels;
  if (!image::Bitmap::Create(width, height, &pixels).ok()) return E_OUTOFMEMORY;

  BITMAPINFO info = {};
  info.bmiHeader.biSize = sizeof(info.bmiHeader);
  info.bmiHeader.biWidth = width;
  info.bmiHeader.biHeight = -height;  // top-down rows
  info.bmiHeader.biPlanes = 1;
  info.bmiHeader.biBitCount = 32;
  info.bmiHeader.biCompression = BI_RGB;
  ScopedDc dc(CreateCompatibleDC(nullptr));
  if (!dc) return E_FAIL;
  if (GetDIBits(dc.get(), handle, 0, static_cast<UINT>(height), pixels.data(), &info, DIB_RGB_COLORS) != height) {
    return E_FAIL;
  }
  for (int y = 0; y < height; ++y) {
    uint8_t* row = pixels.row(y);
    for (int x = 0; x < width; ++x) row[x * 4 + 3] = 0xFF;
  }
  *out = std::move(pixels);
  return S_OK;
}

namespace gdip = Gdiplus::DllExports;

// GdiplusStartup once per process, thread-safely; GDI+ then stays up until
// the process ends. False when GDI+ could not start.
bool EnsureGdiplus() {
  static const bool started = [] {
    Gdiplus::GdiplusStartupInput input;
    ULONG_PTR token = 0;
    return Gdiplus::GdiplusStartup(&token, &input, nullptr) == Gdiplus::Ok;
  }();
  return started;
}

struct GdipImageDisposer {
  void operator()(Gdiplus::GpBitmap* bitmap) const { gdip::GdipDisposeImage(bitmap); }
};
using GdipBitmapRef = std::unique_ptr<Gdiplus::GpBitmap, GdipImageDisposer>;

// Decodes the JPEG at `path` with GDI+ into an opaque BGRA bitmap whose
// longer side is at most cx (reduced by area average, never enlarged). *out
// is untouched on failure. GDI+ holds the file only during the call.
HRESULT DecodeFrameFile(const std::u16string& path, uint32_t cx, image::Bitmap* out) {
  if (!EnsureGdiplus()) return E_FAIL;
  Gdiplus::GpBitmap* raw = nullptr;
  if (gdip::GdipCreateBitmapFromFile(reinterpret_cast<const WCHAR*>(path.c_str()), &raw) != Gdiplus::Ok) {
    return E_FAIL;
  }
  GdipBitmapRef decoded(raw);
  UINT width = 0;
  UINT height = 0;
  if (gdip::GdipGetImageWidth(decoded.get(), &width) != Gdiplus::Ok ||
      gdip::GdipGetImageHeight(decoded.get(), &height) != Gdiplus::Ok || width == 0 || height == 0) {
    return E_FAIL;
  }
  // Bitmap::Create applies the pixel limits before anything is copied.
  image::Bitmap pixels;
  if (!image::Bitmap::Create(static_cast<int>(width), static_cast<int>(height), &pixels).ok()) {
    return E_OUTOFMEMORY;
  }

  Gdiplus::GpRect rect(0, 0, static_cast<INT>(width), static_cast<INT>(height));
  Gdiplus::BitmapData data = {};
  if (gdip::GdipBitmapLockBits(decoded.get(), &rect, Gdiplus::ImageLockModeRead, PixelFormat32bppARGB, &data) !=
      Gdiplus::Ok) {
    return E_FAIL;
  }
  // 32bppARGB is B, G, R, A in memory: the bitmap's own layout. Rows are
  // copied one by one since the stride may be padded or negative.
  const auto* scan0 = static_cast<const uint8_t*>(data.Scan0);
  for (int y = 0; y < pixels.height(); ++y) {
    uint8_t* row = pixels.row(y);
    std::memcpy(row, scan0 + static_cast<ptrdiff_t>(y) * data.Stride, pixels.stride());
    for (int x = 0; x < pixels.width(); ++x) row[x * 4 + 3] = 0xFF;
  }
  gdip::GdipBitmapUnlockBits(decoded.get(), &data);
  decoded.reset();

  int fit_width = 0;
  int fit_height = 0;
  image::FitWithin(pixels.width(), pixels.height(), cx, &fit_width, &fit_height);
  if (fit_width == pixels.width() && fit_height == pixels.height()) {
    *out = std::move(pixels);
    return S_OK;
  }
  image::Bitmap reduced;
  if (!image::AreaResample(pixels, fit_width, fit_height, &reduced).ok()) return E_OUTOFMEMORY;
  *out = std::move(reduced);
  return S_OK;
}

class ShellThumbnailProvider : public ThumbnailProvider {
 public:
  int32_t CreateItem(const std::u16string& path) override {
    if (IsExportedFrame(utility::UTF16ToUTF8(path))) {
      frame_path_ = path;
      return static_cast<int32_t>(S_OK);
    }
    IShellItem* item = nullptr;
    HRESULT hr =
        SHCreateItemFromParsingName(reinterpret_cast<const wchar_t*>(path.c_str()), nullptr, IID_PPV_ARGS(&item));
    if (FAILED(hr)) return static_cast<int32_t>(hr);
    item_.reset(item);
    return static_cast<int32_t>(hr);
  }

  int32_t BindToHandler() override {
    if (!frame_path_.empty()) {
      frame_bound_ = true;
      return static_cast<int32_t>(S_OK);
    }
    if (!item_) return kProviderNotReady;
    IThumbnailProvider* handler = nullptr;
    HRESULT hr = item_->BindToHandler(nullptr, BHID_ThumbnailHandler, IID_PPV_ARGS(&handler));
    if (FAILED(hr)) return static_cast<int32_t>(hr);
    handler_.reset(handler);
    return static_cast<int32_t>(hr);
  }

  int32_t GetThumbnail(uint32_t cx, image::Bitmap* out) override {
    if (frame_bound_) return static_cast<int32_t>(DecodeFrameFile(frame_path_, cx, out));
    if (!handler_) return kProviderNotReady;
    HBITMAP raw = nullptr;
    WTS_ALPHATYPE alpha = WTSAT_UNKNOWN;
    HRESULT hr = handler_->GetThumbnail(cx, &raw, &alpha);
    ScopedBitmap bitmap(raw);
    if (FAILED(hr)) return static_cast<int32_t>(hr);
    if (!bitmap) return static_cast<int32_t>(E_FAIL);
    return static_cast<int32_t>(CopyBitmap(bitmap.get(), out));
  }

 private:
  // Set instead of the item for one of our own exported frames.
  std::u16string frame_path_;
  bool frame_bound_ = false;
  // Released in reverse order: the handler, then the item.
  ComRef<IShellItem> item_;
  ComRef<IThumbnailProvider> handler_;
};

}  // namespace

std::unique_ptr<ThumbnailProvider> CreatePlatformThumbnailProvider() {
  return std::make_unique<ShellThumbnailProvider>();
}

}  // namespace thumbnail
}  // namespace tessera
