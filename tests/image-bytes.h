// Byte-level builders for test images that the tests write themselves.
#ifndef TESSERA_TESTS_IMAGE_BYTES_H_
#define TESSERA_TESTS_IMAGE_BYTES_H_

#include <zlib.h>

#include <cstdint>
#include <string>
#include <vector>

namespace tessera {
namespace testing {

inline void PutBe32(std::string* s, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) s->push_back(static_cast<char>(v >> shift));
}

inline std::string PngChunk(const char* type, const std::string& data) {
  std::string chunk;
  PutBe32(&chunk, static_cast<uint32_t>(data.size()));
  const std::string body = std::string(type, 4) + data;
  chunk += body;
  PutBe32(&chunk, static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef*>(body.data()),
                                              static_cast<uInt>(body.size()))));
  return chunk;
}

// A grey PNG of width x height whose pixels are all zero: about a thousandth
// of its decoded size, yet every row must be inflated to decode it. Only the
// first `rows` rows are there when given.
inline std::string ZeroPng(uint32_t width, uint32_t height, uint32_t rows = UINT32_MAX) {
  if (rows > height) rows = height;
  std::string ihdr;
  PutBe32(&ihdr, width);
  PutBe32(&ihdr, height);
  ihdr += std::string("\x08\x00\x00\x00\x00", 5);  // 8-bit grey, no interlace
  z_stream z = {};
  deflateInit(&z, 9);
  const std::vector<uint8_t> row(width + 1, 0);  // filter byte + pixels
  std::string idat;
  std::vector<uint8_t> out(1 << 16);
  for (uint32_t y = 0; y <= rows; ++y) {
    const bool last = y == rows;
    z.next_in = const_cast<Bytef*>(row.data());
    z.avail_in = last ? 0 : static_cast<uInt>(row.size());
    do {
      z.next_out = out.data();
      z.avail_out = static_cast<uInt>(out.size());
      deflate(&z, last ? Z_FINISH : Z_NO_FLUSH);
      idat.append(reinterpret_cast<char*>(out.data()), out.size() - z.avail_out);
    } while (z.avail_out == 0);
  }
  deflateEnd(&z);
  return std::string("\x89PNG\r\n\x1a\n", 8) + PngChunk("IHDR", ihdr) + PngChunk("IDAT", idat) +
         PngChunk("IEND", "");
}

}  // namespace testing
}  // namespace tessera

#endif  // TESSERA_TESTS_IMAGE_BYTES_H_
