// The video frames this process has exported as JPEG files and not yet
// removed. A frame file is our own product, so a provider may decode it
// directly instead of asking the platform for a thumbnail of it.
//
// Paths are UTF-8 and compared byte for byte: the generator registers and
// looks up exactly the string it passes around. All functions are
// thread-safe; the set lives for the whole process.
#ifndef TESSERA_LIB_VIDEO_EXPORTED_FRAMES_H_
#define TESSERA_LIB_VIDEO_EXPORTED_FRAMES_H_

#include <string>

namespace tessera {
namespace thumbnail {

// Records `path` as a frame file that has just been written completely.
void RegisterExportedFrame(const std::string& path);

// Forgets `path`; called when the frame file is removed. Unknown paths are
// ignored.
void UnregisterExportedFrame(const std::string& path);

// Whether `path` is a registered frame file.
bool IsExportedFrame(const std::string& path);

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_EXPORTED_FRAMES_H_
