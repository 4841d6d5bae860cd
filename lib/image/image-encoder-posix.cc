// The encoder table on POSIX: our own encoders (image-encoder.cc).
#include "lib/image/image-encoder.h"

#include <algorithm>

namespace tessera {
namespace image {
namespace {

// The two encoders linked in; neither step can fail.
constexpr ImageEncoder kEncoders[] = {{"image/jpeg", &SaveJpeg}, {"image/png", &SavePng}};
constexpr uint32_t kEncoderCount = sizeof(kEncoders) / sizeof(kEncoders[0]);

class LinkedEncoderTable : public EncoderTable {
 public:
  int GetSize(uint32_t* count, uint32_t* bytes) const override {
    *count = kEncoderCount;
    *bytes = static_cast<uint32_t>(sizeof(kEncoders));
    return 0;
  }
  int GetEncoders(uint32_t count, uint32_t /*bytes*/, std::vector<ImageEncoder>* encoders) const override {
    encoders->assign(kEncoders, kEncoders + std::min(count, kEncoderCount));
    return 0;
  }
};

}  // namespace

const EncoderTable& PlatformEncoderTable() {
  static const LinkedEncoderTable table;
  return table;
}

}  // namespace image
}  // namespace tessera
