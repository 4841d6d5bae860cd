// Fuzzes the frame reader and the video thumbnails on arbitrary media bytes.
// FFmpeg is opened by path in this code, so the input goes to a scratch file
// in memory-backed storage. Every failure must be a clean exception or
// status; a hang shows up as a libFuzzer time-out.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "fuzz/fuzz-file.h"
#include "lib/image/bitmap.h"
#include "lib/video/source-reader.h"
#include "lib/video/video-thumbnail.h"

namespace {

std::u16string Widen(const std::string& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const tessera::fuzz::ScratchFile media("media.mp4");
  static const tessera::fuzz::ScratchFile frame("frame.jpg");
  if (!media.Write(data, size)) return 0;

  try {
    tessera::thumbnail::SourceReader reader(Widen(media.path()));
    reader.ExportFrame(Widen(frame.path()), 1);
  } catch (const std::exception&) {
    // A refused file is the expected outcome for most inputs.
  }
  ::unlink(frame.path().c_str());

  (void)tessera::thumbnail::IsVideoContent(media.path());
  tessera::image::Bitmap bitmap;
  (void)tessera::thumbnail::ExtractVideoThumbnail(media.path(), 360, &bitmap);
  return 0;
}
