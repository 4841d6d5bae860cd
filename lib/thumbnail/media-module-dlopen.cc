// Loads libtessera-media.so on first use and forwards the media entry points
// to it. Linked into the tool instead of the FFmpeg code itself.
#include <dlfcn.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <string>

#include "lib/log/log.h"
#include "lib/thumbnail/media-module.h"
#include "lib/thumbnail/video-thumbnail.h"

namespace tessera {
namespace thumbnail {
namespace {

constexpr char kLogComponent[] = "thumbnail_debug";

std::string& ModulePathOverride() {
  static std::string* path = new std::string();
  return *path;
}

// The module beside the running executable.
std::string DefaultModulePath() {
  char buffer[4096];
  const ssize_t n = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  if (n <= 0) return kMediaModuleFileName;
  std::string exe(buffer, static_cast<size_t>(n));
  const size_t slash = exe.rfind('/');
  return (slash == std::string::npos ? std::string(".") : exe.substr(0, slash)) + "/" +
         kMediaModuleFileName;
}

// The table, or nullptr when the module is missing or unusable (logged once).
// The module stays loaded for the life of the process.
const MediaModuleTable* Module() {
  static std::once_flag once;
  static const MediaModuleTable* table = nullptr;
  std::call_once(once, [] {
    const std::string path =
        ModulePathOverride().empty() ? DefaultModulePath() : ModulePathOverride();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      const char* error = dlerror();
      LOG_ERROR(kLogComponent, "cannot load the media module '%s': %s", path.c_str(),
                error ? error : "unknown error");
      return;
    }
    using Entry = const MediaModuleTable* (*)();
    auto entry = reinterpret_cast<Entry>(dlsym(handle, kMediaModuleEntry));
    const MediaModuleTable* candidate = entry ? entry() : nullptr;
    if (candidate == nullptr || candidate->abi_version != kMediaModuleAbiVersion) {
      LOG_ERROR(kLogComponent, "the media module '%s' does not match this program", path.c_str());
      return;
    }
    table = candidate;
  });
  return table;
}

// Stands in for the media source when the module is unavailable.
class UnavailableMediaSource : public MediaSource {
 public:
  int32_t Open(const std::u16string&, MediaSourceCallback*) override { return kMediaFail; }
  int32_t GetNativeVideoType(NativeVideoType*) override { return kMediaFail; }
  int32_t SetFirstVideoOutputBgrx() override { return kMediaFail; }
  int32_t SelectFirstVideoStream() override { return kMediaFail; }
  int32_t GetFrameSize(uint32_t*, uint32_t*) override { return kMediaFail; }
  int32_t GetRotation(uint32_t*) override { return kMediaFail; }
  int32_t GetCharacteristics(uint32_t*) override { return kMediaFail; }
  int32_t SetCurrentPosition(int64_t) override { return kMediaFail; }
  int32_t ReadSample() override { return kMediaFail; }
};

}  // namespace

void SetMediaModulePath(const std::string& path) { ModulePathOverride() = path; }

std::unique_ptr<MediaSource> MediaSource::Create() {
  const MediaModuleTable* module = Module();
  MediaSource* source = module ? module->create_media_source() : nullptr;
  if (source == nullptr) return std::make_unique<UnavailableMediaSource>();
  return std::unique_ptr<MediaSource>(source);
}

bool IsVideoContent(const std::string& utf8_path) {
  const MediaModuleTable* module = Module();
  return module != nullptr && module->is_video_content(utf8_path);
}

Status ExtractVideoThumbnail(const std::string& utf8_path, uint32_t cx, image::Bitmap* out) {
  const MediaModuleTable* module = Module();
  if (module == nullptr) return Status::NotSupported("the media module is not available");
  return module->extract_video_thumbnail(utf8_path, cx, out);
}

}  // namespace thumbnail
}  // namespace tessera
