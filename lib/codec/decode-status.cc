// The "too large" and "cancelled" statuses of image-decoder.h, and the "not
// camera RAW" one of raw/raw-decoder.h. They live
// apart from the format dispatch so that a decoder linked into a module on
// its own (HEIF, RAW, TIFF, GIF, WebP) does not drag every other decoder and
// its library in with it.
#include <string>

#include "lib/codec/image-decoder.h"
#include "lib/codec/raw/raw-decoder.h"

namespace tessera {
namespace codec {
namespace {

constexpr char kTooLargePrefix[] = "declared image size over the limits: ";
constexpr char kNotCameraRawPrefix[] = "not camera RAW: ";

}  // namespace

Status ImageTooLargeError(uint64_t width, uint64_t height) {
  return Status::InvalidArgument(kTooLargePrefix + std::to_string(width) + "x" +
                                 std::to_string(height));
}

Status DecodeCancelledError() { return Status::Timeout("decode cancelled"); }

bool IsImageTooLarge(const Status& status) {
  return status.code() == Status::Code::kInvalidArgument &&
         status.message().compare(0, sizeof(kTooLargePrefix) - 1, kTooLargePrefix) == 0;
}

Status NotCameraRawError(const std::string& why) { return Status::NotSupported(kNotCameraRawPrefix + why); }

bool IsNotCameraRaw(const Status& status) {
  return status.code() == Status::Code::kNotSupported &&
         status.message().compare(0, sizeof(kNotCameraRawPrefix) - 1, kNotCameraRawPrefix) == 0;
}

}  // namespace codec
}  // namespace tessera
