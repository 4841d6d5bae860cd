// The loadable media module's one export: the table of its entry points.
#include "lib/video/media-module.h"
#include "lib/video/video-thumbnail.h"

namespace tessera {
namespace thumbnail {
namespace {

MediaSource* CreateMediaSource(std::chrono::steady_clock::time_point deadline) {
  return CreateFfmpegMediaSource(deadline).release();
}

const MediaModuleTable kTable = {
    kMediaModuleAbiVersion,
    &CreateMediaSource,
    &IsVideoContent,
    &ExtractVideoThumbnail,
};

}  // namespace
}  // namespace thumbnail
}  // namespace tessera

extern "C" TESSERA_MODULE_EXPORT const tessera::thumbnail::MediaModuleTable*
TesseraMediaModuleTable() {
  return &tessera::thumbnail::kTable;
}
