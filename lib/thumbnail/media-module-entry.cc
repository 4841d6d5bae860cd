// The loadable media module's one export: the table of its entry points.
#include "lib/thumbnail/media-module.h"
#include "lib/thumbnail/video-thumbnail.h"

namespace tessera {
namespace thumbnail {
namespace {

MediaSource* CreateMediaSource() { return MediaSource::Create().release(); }

const MediaModuleTable kTable = {
    kMediaModuleAbiVersion,
    &CreateMediaSource,
    &IsVideoContent,
    &ExtractVideoThumbnail,
};

}  // namespace
}  // namespace thumbnail
}  // namespace tessera

extern "C" __attribute__((visibility("default"))) const tessera::thumbnail::MediaModuleTable*
TesseraMediaModuleTable() {
  return &tessera::thumbnail::kTable;
}
