// The encoder table on POSIX: our own encoders (image-encoder.cc).
#include "lib/image/image-encoder.h"

namespace tessera {
namespace image {

const std::vector<ImageEncoder>& ImageEncoders() {
  static const std::vector<ImageEncoder> encoders = {{"image/jpeg", &SaveJpeg}, {"image/png", &SavePng}};
  return encoders;
}

}  // namespace image
}  // namespace tessera
