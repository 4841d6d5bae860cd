// The "too large" and "cancelled" statuses of image-decoder.h. They live
// apart from the format dispatch so that a decoder linked into a module on
// its own (HEIF, RAW, TIFF, GIF, WebP) does not drag every other decoder and
// its library in with it.
#include <string>

#include "lib/codec/image-decoder.h"

namespace tessera {
namespace codec {
namespace {

constexpr char kTooLargePrefix[] = "declared image size over the limits: ";

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

}  // namespace codec
}  // namespace tessera
