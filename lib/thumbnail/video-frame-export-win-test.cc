// The generator's frame export on Windows (Media Foundation reads the clip,
// GDI+ writes the JPEG), on a small H.264 clip (96x64, 2 s at 10 frames/s).
#include <windows.h>
// GDI+ needs the Windows types first.
#include <gdiplus.h>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "lib/utility/testing/scratch-dir.h"
#include "lib/thumbnail/thumbnail-helper.h"
#include "lib/utility/text-conversion.h"

namespace tessera {
namespace thumbnail {
namespace {

// A Unix source folder (cross build run under Wine) is Wine's Z: drive.
std::string DataPath(const std::string& name) {
  std::string path = std::string(TESSERA_VIDEO_TEST_DATA) + "/" + name;
  return path[0] == '/' ? "Z:" + path : path;
}

// Width and height of an image file as GDI+ reads it; 0x0 when unreadable.
std::pair<UINT, UINT> ImageSize(const std::string& path) {
  Gdiplus::GdiplusStartupInput input;
  ULONG_PTR token = 0;
  if (Gdiplus::GdiplusStartup(&token, &input, nullptr) != Gdiplus::Ok) return {0, 0};
  std::u16string wide = utility::UTF8ToUTF16(path);
  Gdiplus::GpImage* image = nullptr;
  std::pair<UINT, UINT> size{0, 0};
  if (Gdiplus::DllExports::GdipLoadImageFromFile(reinterpret_cast<const WCHAR*>(wide.c_str()), &image) ==
      Gdiplus::Ok) {
    Gdiplus::DllExports::GdipGetImageWidth(image, &size.first);
    Gdiplus::DllExports::GdipGetImageHeight(image, &size.second);
    Gdiplus::DllExports::GdipDisposeImage(image);
  }
  Gdiplus::GdiplusShutdown(token);
  return size;
}

TEST(VideoFrameExportWinTest, ExportWritesTheFrameAsJpegOrThrows) {
  test::ScratchDir dir;
  const std::string frame = dir.Path("frame.jpg");
  ASSERT_EQ(ExportVideoFrame(DataPath("clip-96x64.mp4"), frame), 0);
  EXPECT_EQ(ImageSize(frame), std::make_pair(96u, 64u));

  EXPECT_THROW(ExportVideoFrame(DataPath("missing.mp4"), dir.Path("none.jpg")), std::runtime_error);
  EXPECT_THROW(ExportVideoFrame(frame, dir.Path("none.jpg")), std::runtime_error);  // not a video
}

}  // namespace
}  // namespace thumbnail
}  // namespace tessera
