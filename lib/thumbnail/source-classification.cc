#include "lib/thumbnail/source-classification.h"

#include <cctype>

namespace tessera {
namespace thumbnail {

const std::unordered_set<std::string>& kImageExtensions() {
  static const std::unordered_set<std::string> extensions = {
      "jpg", "jpeg", "jpe", "bmp", "png", "tif", "tiff", "gif", "arw", "srf", "sr2",
      "dcr", "k25",  "kdc", "cr2", "crw", "nef", "mrw",  "ptx", "pef", "raf", "3fr",
      "erf", "mef",  "mos", "orf", "rw2", "dng", "x3f",  "raw", "heic", "heif",
  };
  return extensions;
}

const std::unordered_set<std::string>& kVideoExtensions() {
  // Audio-only ("mka", "m4a", "m4b", "m4r", "ac3", "amr"), disc ("iso", "ifo",
  // "vob") and "dat" names belong here too: their handlers, or the frame
  // fallback, may still produce a picture.
  static const std::unordered_set<std::string> extensions = {
      "3gp",  "3g2",  "asf",  "dat",   "divx",  "dvr-ms", "m2t",  "m2ts", "mk3d", "mka",
      "mks",  "m4a",  "m4v",  "mkv",   "mp4",   "mts",    "m4p",  "m4b",  "m4r",  "mov",
      "qt",   "tp",   "trp",  "ts",    "vob",   "wmv",    "xvid", "ac3",  "amr",  "rm",
      "rmvb", "ifo",  "mpeg", "mpg",   "mpe",   "m1v",    "m2v",  "mpeg1", "mpeg2", "mpeg4",
      "ogv",  "webm", "flv",  "f4v",   "avi",   "swf",    "vdr",  "iso",
  };
  return extensions;
}

const std::unordered_set<std::string>& kHeifExtensions() {
  static const std::unordered_set<std::string> extensions = {"heic", "heif"};
  return extensions;
}

const std::unordered_set<std::string>& kCameraRawExtensions() {
  static const std::unordered_set<std::string> extensions = {
      "arw", "srf", "sr2", "dcr", "k25", "kdc", "cr2", "crw", "nef", "mrw", "ptx",
      "pef", "raf", "3fr", "erf", "mef", "mos", "orf", "rw2", "dng", "x3f", "raw",
  };
  return extensions;
}

std::string GetExtension(const std::string& path) {
  const size_t separator = path.find_last_of("/\\");
  const size_t start = separator == std::string::npos ? 0 : separator + 1;
  const size_t dot = path.rfind('.');
  if (dot == std::string::npos || dot < start || dot + 1 == path.size()) return std::string();
  return path.substr(dot + 1);
}

std::string ToLowerAscii(std::string text) {
  for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

bool IsImageExtension(const std::string& extension) { return kImageExtensions().count(extension) != 0; }

bool IsVideoExtension(const std::string& extension) { return kVideoExtensions().count(extension) != 0; }

bool IsSupportedExtension(const std::string& extension) {
  return IsImageExtension(extension) || IsVideoExtension(extension);
}

bool IsSupportedPath(const std::string& path) { return IsSupportedExtension(ToLowerAscii(GetExtension(path))); }

bool IsHeifExtension(const std::string& extension) { return kHeifExtensions().count(extension) != 0; }

bool IsCameraRawPath(const std::string& path) {
  return kCameraRawExtensions().count(ToLowerAscii(GetExtension(path))) != 0;
}

}  // namespace thumbnail
}  // namespace tessera
