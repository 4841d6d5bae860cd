// Linked into a test-only build of the tool: the thumbnail provider refuses
// every ".mp4" source at BindToHandler, as a platform without a handler for
// the video would, and works as usual for every other path (the exported
// frame file among them). That sends each video run through the frame
// fallback.
#include <memory>
#include <string>
#include <utility>

#include "lib/image/bitmap.h"
#include "lib/thumbnail/thumbnail-extraction.h"
#include "lib/thumbnail/thumbnail-provider.h"

namespace tessera {
namespace {

class FailingVideoProvider : public thumbnail::ThumbnailProvider {
 public:
  explicit FailingVideoProvider(std::unique_ptr<thumbnail::ThumbnailProvider> platform)
      : platform_(std::move(platform)) {}

  int32_t CreateItem(const std::u16string& path) override {
    static const std::u16string kRefused = u".mp4";
    refuse_ = path.size() >= kRefused.size() &&
              path.compare(path.size() - kRefused.size(), kRefused.size(), kRefused) == 0;
    return platform_->CreateItem(path);
  }
  int32_t BindToHandler() override {
    return refuse_ ? thumbnail::kProviderNoHandler : platform_->BindToHandler();
  }
  int32_t GetThumbnail(uint32_t cx, image::Bitmap* out) override { return platform_->GetThumbnail(cx, out); }

 private:
  std::unique_ptr<thumbnail::ThumbnailProvider> platform_;
  bool refuse_ = false;
};

// Installed before main runs; the factory store is a function-local static,
// so the order of static initialisation does not matter.
const bool kInstalled = [] {
  thumbnail::SetThumbnailProviderFactory([]() -> std::unique_ptr<thumbnail::ThumbnailProvider> {
    return std::make_unique<FailingVideoProvider>(thumbnail::CreatePlatformThumbnailProvider());
  });
  return true;
}();

}  // namespace
}  // namespace tessera
