#include "lib/thumbnail/shell-thumbnail-provider.h"

#include <windows.h>
// Shell and COM declarations need the Windows types first.
#include <shlobj.h>
#include <shobjidl.h>
#include <thumbcache.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>

#include "lib/image/bitmap.h"
#include "lib/thumbnail/thumbnail-provider.h"

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

class ShellThumbnailProvider : public ThumbnailProvider {
 public:
  int32_t CreateItem(const std::u16string& path) override {
    IShellItem* item = nullptr;
    HRESULT hr =
        SHCreateItemFromParsingName(reinterpret_cast<const wchar_t*>(path.c_str()), nullptr, IID_PPV_ARGS(&item));
    if (FAILED(hr)) return static_cast<int32_t>(hr);
    item_.reset(item);
    return static_cast<int32_t>(hr);
  }

  int32_t BindToHandler() override {
    if (!item_) return kProviderNotReady;
    IThumbnailProvider* handler = nullptr;
    HRESULT hr = item_->BindToHandler(nullptr, BHID_ThumbnailHandler, IID_PPV_ARGS(&handler));
    if (FAILED(hr)) return static_cast<int32_t>(hr);
    handler_.reset(handler);
    return static_cast<int32_t>(hr);
  }

  int32_t GetThumbnail(uint32_t cx, image::Bitmap* out) override {
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
  // Released in reverse order: the handler, then the item.
  ComRef<IShellItem> item_;
  ComRef<IThumbnailProvider> handler_;
};

}  // namespace

std::unique_ptr<ThumbnailProvider> CreateShellThumbnailProvider() {
  return std::make_unique<ShellThumbnailProvider>();
}

}  // namespace thumbnail
}  // namespace tessera
