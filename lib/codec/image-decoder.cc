#include "lib/codec/image-decoder.h"

#include <cstring>

#include "lib/codec/decoders.h"

namespace tessera {
namespace codec {
namespace {

bool HasAt(const uint8_t* head, size_t size, size_t offset, const char* magic, size_t length) {
  return size >= offset + length && std::memcmp(head + offset, magic, length) == 0;
}

uint32_t ReadLe32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

// "BM" alone is too weak a signature (text files start with it), so the DIB
// header size must be one of the known ones.
bool LooksLikeBmp(const uint8_t* head, size_t size) {
  if (!HasAt(head, size, 0, "BM", 2) || size < 18) return false;
  switch (ReadLe32(head + 14)) {
    case 12: case 16: case 40: case 52: case 56: case 64: case 108: case 124:
      return true;
    default:
      return false;
  }
}

bool IsBrand(const uint8_t* p, const char* brand) { return std::memcmp(p, brand, 4) == 0; }

// ISO base media files whose major brand says HEIF still image, HEVC- or
// AV1-coded (AVIF): libheif decodes both, with the HEVC and AV1 decoders
// Debian builds it with.
bool LooksLikeHeif(const uint8_t* head, size_t size) {
  if (!HasAt(head, size, 4, "ftyp", 4) || size < 12) return false;
  static const char* const kHeifBrands[] = {"heic", "heix", "hevc", "hevx", "heim",
                                           "heis", "mif1", "msf1", "avif", "avis"};
  const uint8_t* major = head + 8;
  for (const char* brand : kHeifBrands) {
    if (IsBrand(major, brand)) return true;
  }
  return false;
}

}  // namespace

ImageFormat SniffImageFormat(const uint8_t* head, size_t size) {
  if (head == nullptr) return ImageFormat::kUnknown;
  if (HasAt(head, size, 0, "\xFF\xD8\xFF", 3)) return ImageFormat::kJpeg;
  if (HasAt(head, size, 0, "\x89PNG\r\n\x1A\n", 8)) return ImageFormat::kPng;
  // Camera RAW containers with their own signatures; TIFF-shaped ones
  // (CR2, NEF, DNG, ARW, ...) are reported as TIFF.
  if (HasAt(head, size, 6, "HEAPCCDR", 8) || HasAt(head, size, 0, "FUJIFILMCCD-RAW", 15) ||
      HasAt(head, size, 0, "\0MRM", 4) || HasAt(head, size, 0, "IIRO", 4) ||
      HasAt(head, size, 0, "IIRS", 4) || HasAt(head, size, 0, "MMOR", 4) ||
      HasAt(head, size, 0, "IIU\0", 4) || HasAt(head, size, 0, "FOVb", 4)) {
    return ImageFormat::kRaw;
  }
  if (HasAt(head, size, 0, "II*\0", 4) || HasAt(head, size, 0, "MM\0*", 4) ||
      HasAt(head, size, 0, "II+\0", 4) || HasAt(head, size, 0, "MM\0+", 4)) {
    return ImageFormat::kTiff;
  }
  if (HasAt(head, size, 0, "GIF87a", 6) || HasAt(head, size, 0, "GIF89a", 6)) {
    return ImageFormat::kGif;
  }
  if (HasAt(head, size, 0, "RIFF", 4) && HasAt(head, size, 8, "WEBP", 4)) return ImageFormat::kWebp;
  if (LooksLikeHeif(head, size)) return ImageFormat::kHeif;
  if (LooksLikeBmp(head, size)) return ImageFormat::kBmp;
  return ImageFormat::kUnknown;
}

std::unique_ptr<ImageDecoder> CreateImageDecoder(ImageFormat format) {
  switch (format) {
    case ImageFormat::kJpeg:
      return CreateJpegDecoder();
    case ImageFormat::kPng:
      return CreatePngDecoder();
    case ImageFormat::kTiff:
      return CreateTiffDecoder();
    case ImageFormat::kGif:
      return CreateGifDecoder();
    case ImageFormat::kWebp:
      return CreateWebpDecoder();
    case ImageFormat::kHeif:
      return CreateHeifDecoder();
    case ImageFormat::kRaw:
      return CreateRawDecoder();
    case ImageFormat::kBmp:
      return CreateBmpDecoder();
    case ImageFormat::kUnknown:
      break;
  }
  return nullptr;
}

}  // namespace codec
}  // namespace tessera
