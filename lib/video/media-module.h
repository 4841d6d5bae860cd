// The FFmpeg-based media code (media source, video content test, video
// thumbnails) is built twice: as a static library that tests and tools may
// link directly, and as a loadable module, tessera-media (a .so or .dll), that the tool
// loads beside its executable on first use. A run that decodes no video then
// never maps FFmpeg's libraries, which would otherwise cost every run tens of
// milliseconds of start-up and tens of megabytes of memory.
//
// The module exports one C function, kMediaModuleEntry, returning the table
// below. The loader (media-module-loader.cc) defines CreateFfmpegMediaSource,
// IsVideoContent and ExtractVideoThumbnail by forwarding to that table; when
// the module cannot be loaded they fail cleanly (no video content, a
// NotSupported status, a media source whose every call fails) after one
// ERROR line.
//
// The module carries its own copies of our libraries, whose process-wide
// state (the run's deadline, the job running on a thread) is never set
// there: whatever the module needs of it is passed in by the caller.
#ifndef TESSERA_LIB_VIDEO_MEDIA_MODULE_H_
#define TESSERA_LIB_VIDEO_MEDIA_MODULE_H_

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "lib/image/bitmap.h"
#include "lib/utility/cancellation.h"
#include "lib/utility/status.h"
#include "lib/video/media-source.h"

namespace tessera {
namespace thumbnail {

// Raised whenever the table's layout or meaning changes, so that a stale
// module next to a newer executable is refused instead of misused.
constexpr uint32_t kMediaModuleAbiVersion = 4;
constexpr char kMediaModuleEntry[] = "TesseraMediaModuleTable";
constexpr char kMediaModuleFileStem[] = "tessera-media";

struct MediaModuleTable {
  uint32_t abi_version;
  // A new media source (CreateFfmpegMediaSource); the caller owns it (delete
  // through MediaSource).
  MediaSource* (*create_media_source)(std::chrono::steady_clock::time_point deadline);
  bool (*is_video_content)(const std::string& utf8_path,
                           const std::shared_ptr<const utility::Cancellation>& cancellation);
  Status (*extract_video_thumbnail)(const std::string& utf8_path, uint32_t cx, image::Bitmap* out,
                                    const std::shared_ptr<const utility::Cancellation>& cancellation,
                                    uint32_t largest_cx);
};

// The FFmpeg media source, none of whose opens, seeks and reads goes on past
// `deadline` (steady clock): they fail as timed out instead. What
// MediaSource::Create gives on POSIX, with the run's deadline
// (media-source-posix.cc).
std::unique_ptr<MediaSource> CreateFfmpegMediaSource(std::chrono::steady_clock::time_point deadline);

// Loads the module from `path` instead of from the executable's directory.
// Only effective before the first use of the media functions (tests call it
// first thing); not thread-safe against that first use.
void SetMediaModulePath(const std::string& path);

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_MEDIA_MODULE_H_
