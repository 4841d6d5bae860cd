// Byte writers for the files that tests lay out by hand: appended
// little-endian, or written big-endian over the bytes at `at` (which must
// already be there).
#ifndef TESSERA_LIB_UTILITY_TESTING_BYTE_WRITERS_H_
#define TESSERA_LIB_UTILITY_TESTING_BYTE_WRITERS_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace tessera {
namespace testing {

inline void AppendLe16(std::string* s, uint32_t v) {
  s->push_back(static_cast<char>(v & 0xFF));
  s->push_back(static_cast<char>((v >> 8) & 0xFF));
}

inline void AppendLe32(std::string* s, uint32_t v) {
  AppendLe16(s, v & 0xFFFF);
  AppendLe16(s, v >> 16);
}

inline void PutBe16At(std::string* s, size_t at, uint16_t v) {
  (*s)[at] = static_cast<char>(v >> 8);
  (*s)[at + 1] = static_cast<char>(v);
}

inline void PutBe32At(std::string* s, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*s)[at + i] = static_cast<char>(v >> (24 - 8 * i));
}

}  // namespace testing
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_TESTING_BYTE_WRITERS_H_
