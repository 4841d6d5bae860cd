// Loads the media module (tessera-media) on first use and forwards the media entry points
// to it. Linked into the tool instead of the FFmpeg code itself.
#include <memory>
#include <string>

#include "lib/utility/module-loader.h"
#include "lib/video/media-module.h"
#include "lib/video/video-thumbnail.h"

namespace tessera {
namespace thumbnail {
namespace {

utility::ModuleLoader& Loader() {
  static auto* loader = new utility::ModuleLoader("media", kMediaModuleFileStem, kMediaModuleEntry,
                                                   kMediaModuleAbiVersion);
  return *loader;
}

const MediaModuleTable* Module() { return Loader().Get<MediaModuleTable>(); }

// Stands in for the media source when the module is unavailable.
class UnavailableMediaSource : public MediaSource {
 public:
  int32_t CreateAttributes() override { return kMediaFail; }
  int32_t EnableVideoProcessing() override { return kMediaFail; }
  int32_t SetAsyncCallback(MediaSourceCallback*) override { return kMediaFail; }
  int32_t CreateSourceReader(const std::u16string&) override { return kMediaFail; }
  int32_t GetCurrentMediaType(NativeVideoType*) override { return kMediaFail; }
  int32_t GetMajorType(bool*) override { return kMediaFail; }
  int32_t CreateMediaType() override { return kMediaFail; }
  int32_t SetMajorTypeVideo() override { return kMediaFail; }
  int32_t SetSubtypeRgb32() override { return kMediaFail; }
  int32_t SetCurrentMediaType() override { return kMediaFail; }
  int32_t SelectFirstVideoStream() override { return kMediaFail; }
  int32_t GetFrameSize(uint32_t*, uint32_t*) override { return kMediaFail; }
  int32_t GetRotation(uint32_t*) override { return kMediaFail; }
  int32_t GetPresentationAttribute() override { return kMediaFail; }
  int32_t ConvertPresentationAttribute(uint32_t*) override { return kMediaFail; }
  int32_t SetCurrentPosition(int64_t) override { return kMediaFail; }
  int32_t ReadSample() override { return kMediaFail; }
};

}  // namespace

void SetMediaModulePath(const std::string& path) { Loader().SetPath(path); }

std::unique_ptr<MediaSource> CreateFfmpegMediaSource(std::chrono::steady_clock::time_point deadline) {
  const MediaModuleTable* module = Module();
  MediaSource* source = module ? module->create_media_source(deadline) : nullptr;
  if (source == nullptr) return std::make_unique<UnavailableMediaSource>();
  return std::unique_ptr<MediaSource>(source);
}

bool IsVideoContent(const std::string& utf8_path,
                    const std::shared_ptr<const utility::Cancellation>& cancellation) {
  const MediaModuleTable* module = Module();
  return module != nullptr && module->is_video_content(utf8_path, cancellation);
}

Status ExtractVideoThumbnail(const std::string& utf8_path, uint32_t cx, image::Bitmap* out,
                             const std::shared_ptr<const utility::Cancellation>& cancellation, uint32_t largest_cx) {
  const MediaModuleTable* module = Module();
  if (module == nullptr) return Status::NotSupported("the media module is not available");
  return module->extract_video_thumbnail(utf8_path, cx, out, cancellation, largest_cx);
}

}  // namespace thumbnail
}  // namespace tessera
