#include "lib/image/exif-orientation.h"

#include <cstring>

namespace tessera {
namespace image {
namespace {

constexpr uint16_t kOrientationTag = 0x0112;
constexpr uint16_t kTypeShort = 3;
constexpr uint16_t kTypeLong = 4;

// Reads integers of the block's byte order; every read is bounds-checked by
// the caller through Has().
class TiffReader {
 public:
  TiffReader(const uint8_t* data, size_t size, bool little_endian)
      : data_(data), size_(size), little_endian_(little_endian) {}

  bool Has(uint64_t offset, uint64_t length) const {
    return offset <= size_ && length <= size_ - offset;
  }
  uint16_t U16(size_t offset) const {
    const uint8_t* p = data_ + offset;
    return little_endian_ ? static_cast<uint16_t>(p[0] | p[1] << 8)
                          : static_cast<uint16_t>(p[0] << 8 | p[1]);
  }
  uint32_t U32(size_t offset) const {
    const uint8_t* p = data_ + offset;
    return little_endian_ ? (uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 |
                             uint32_t{p[3]} << 24)
                          : (uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 |
                             uint32_t{p[3]});
  }

 private:
  const uint8_t* data_;
  size_t size_;
  bool little_endian_;
};

}  // namespace

int ExifOrientation(const uint8_t* exif, size_t size) {
  if (exif == nullptr) return 1;
  static constexpr char kExifPrefix[6] = {'E', 'x', 'i', 'f', 0, 0};
  if (size >= sizeof(kExifPrefix) && std::memcmp(exif, kExifPrefix, sizeof(kExifPrefix)) == 0) {
    exif += sizeof(kExifPrefix);
    size -= sizeof(kExifPrefix);
  }
  if (size < 8) return 1;
  bool little_endian;
  if (exif[0] == 'I' && exif[1] == 'I') {
    little_endian = true;
  } else if (exif[0] == 'M' && exif[1] == 'M') {
    little_endian = false;
  } else {
    return 1;
  }
  const TiffReader reader(exif, size, little_endian);
  if (reader.U16(2) != 42) return 1;

  // IFD0 only: the orientation of the main image lives there.
  const uint32_t ifd = reader.U32(4);
  if (!reader.Has(ifd, 2)) return 1;
  const uint32_t count = reader.U16(ifd);
  for (uint32_t i = 0; i < count; ++i) {
    const uint64_t entry = uint64_t{ifd} + 2 + uint64_t{i} * 12;
    if (!reader.Has(entry, 12)) return 1;  // truncated directory
    const size_t e = static_cast<size_t>(entry);
    if (reader.U16(e) != kOrientationTag) continue;
    if (reader.U32(e + 4) < 1) return 1;
    // A SHORT value sits left-aligned in the 4-byte value field; a few
    // writers store the tag as a LONG.
    const uint16_t type = reader.U16(e + 2);
    uint32_t value;
    if (type == kTypeShort) {
      value = reader.U16(e + 8);
    } else if (type == kTypeLong) {
      value = reader.U32(e + 8);
    } else {
      return 1;
    }
    return value >= 1 && value <= 8 ? static_cast<int>(value) : 1;
  }
  return 1;
}

}  // namespace image
}  // namespace tessera
