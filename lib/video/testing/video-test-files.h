// Test helpers for the video code: reading a JPEG back into RGB, and running
// the ffmpeg command to make clips. Scratch directories come from
// lib/utility/testing/scratch-dir.h.
#ifndef TESSERA_LIB_VIDEO_TESTING_VIDEO_TEST_FILES_H_
#define TESSERA_LIB_VIDEO_TESTING_VIDEO_TEST_FILES_H_

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// After <cstdio> and <cstddef>: jpeglib.h uses FILE and size_t.
#include <jpeglib.h>

namespace tessera {
namespace thumbnail {
namespace testing_util {

struct RgbImage {
  int width = 0;
  int height = 0;
  std::vector<unsigned char> rgb;
  const unsigned char* At(int x, int y) const { return &rgb[(static_cast<size_t>(y) * width + x) * 3]; }
};

// Reads a baseline JPEG; false when the file is missing or not a JPEG.
inline bool ReadJpeg(const std::string& path, RgbImage* out) {
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  unsigned char magic[2] = {0, 0};
  const bool is_jpeg = std::fread(magic, 1, 2, file) == 2 && magic[0] == 0xFF && magic[1] == 0xD8;
  std::rewind(file);
  if (!is_jpeg) {
    std::fclose(file);
    return false;
  }
  jpeg_decompress_struct info;
  jpeg_error_mgr error;
  info.err = jpeg_std_error(&error);
  jpeg_create_decompress(&info);
  jpeg_stdio_src(&info, file);
  jpeg_read_header(&info, TRUE);
  info.out_color_space = JCS_RGB;
  jpeg_start_decompress(&info);
  out->width = static_cast<int>(info.output_width);
  out->height = static_cast<int>(info.output_height);
  out->rgb.assign(static_cast<size_t>(out->width) * out->height * 3, 0);
  while (info.output_scanline < info.output_height) {
    unsigned char* row = &out->rgb[static_cast<size_t>(info.output_scanline) * out->width * 3];
    jpeg_read_scanlines(&info, &row, 1);
  }
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
  std::fclose(file);
  return true;
}

// Runs `ffmpeg -v error -y <args>`; true on success.
inline bool RunFfmpeg(const std::string& args) {
  return std::system(("ffmpeg -nostdin -v error -y " + args + " >/dev/null 2>&1").c_str()) == 0;
}

inline bool IsReddish(const unsigned char* rgb) { return rgb[0] > 150 && rgb[1] < 90 && rgb[2] < 90; }
inline bool IsBluish(const unsigned char* rgb) { return rgb[2] > 150 && rgb[0] < 90 && rgb[1] < 90; }

}  // namespace testing_util
}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_VIDEO_TESTING_VIDEO_TEST_FILES_H_
