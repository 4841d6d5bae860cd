// Linked into a test-only Windows build of the tool: in the Shell's place
// sits a handler that never answers BindToHandler, as a broken third-party
// handler would. The run must still end on time: our decoders take over
// once the Shell's bound has passed, and the process ends with its report
// although the handler's thread never returns.
#include <windows.h>

#include <memory>
#include <string>

#include "lib/image/bitmap.h"
#include "lib/thumbnail/shell-thumbnail-provider.h"
#include "lib/thumbnail/thumbnail-extraction.h"
#include "lib/thumbnail/thumbnail-provider.h"

namespace tessera {
namespace {

class HangingProvider : public thumbnail::ThumbnailProvider {
 public:
  int32_t CreateItem(const std::u16string&) override { return 0; }
  int32_t BindToHandler() override {
    for (;;) Sleep(INFINITE);
  }
  int32_t GetThumbnail(uint32_t, image::Bitmap*) override { return -1; }
};

const bool kInstalled = [] {
  thumbnail::SetThumbnailProviderFactory([] {
    return thumbnail::CreateShellFirstChain([]() -> std::unique_ptr<thumbnail::ThumbnailProvider> {
      return std::make_unique<HangingProvider>();
    });
  });
  return true;
}();

}  // namespace
}  // namespace tessera
