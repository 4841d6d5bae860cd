// What a source file is, decided by its file-name extension alone (the
// content is never looked at).
//
// Extensions are passed without the dot. The sets hold lowercase ASCII and
// compare bytes exactly, so callers lowercase first (ToLowerAscii);
// IsSupportedPath does that itself.
//
// Every function here is thread-safe: the sets are function-local statics,
// built once on first use and only read afterwards.
#ifndef TESSERA_LIB_THUMBNAIL_SOURCE_CLASSIFICATION_H_
#define TESSERA_LIB_THUMBNAIL_SOURCE_CLASSIFICATION_H_

#include <string>
#include <unordered_set>

namespace tessera {
namespace thumbnail {

// Still images and camera RAW formats (32 entries).
const std::unordered_set<std::string>& kImageExtensions();
// Video, and audio/container/disc names that are handled like video
// (48 entries). Disjoint from the image set.
const std::unordered_set<std::string>& kVideoExtensions();
// "heic" and "heif", which are also image extensions.
const std::unordered_set<std::string>& kHeifExtensions();
// The camera RAW formats among the image extensions (22 entries).
const std::unordered_set<std::string>& kCameraRawExtensions();

// The extension of the last path component (after the last '/' or '\'):
// the text after its last '.'. "" when the component has no dot or ends in
// one. "dir/.profile" gives "profile"; "a.tar.gz" gives "gz".
std::string GetExtension(const std::string& path);

// `text` with ASCII capitals lowered byte by byte (std::tolower in the
// default locale); bytes of UTF-8 sequences are kept.
std::string ToLowerAscii(std::string text);

bool IsImageExtension(const std::string& extension);
bool IsVideoExtension(const std::string& extension);
// Image or video.
bool IsSupportedExtension(const std::string& extension);
// Whether the lowercased extension of `path` is an image or video one.
bool IsSupportedPath(const std::string& path);
bool IsHeifExtension(const std::string& extension);
// Whether the lowercased extension of `path` is a camera RAW one.
bool IsCameraRawPath(const std::string& path);

}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_SOURCE_CLASSIFICATION_H_
