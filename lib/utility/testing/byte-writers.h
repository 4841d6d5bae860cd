// Byte writers and readers for the files that tests lay out by hand:
// appended in either byte order, written over the bytes at `at` (which must
// already be there), or read from there.
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

inline void AppendBe16(std::string* s, uint32_t v) {
  s->push_back(static_cast<char>((v >> 8) & 0xFF));
  s->push_back(static_cast<char>(v & 0xFF));
}

inline void AppendBe32(std::string* s, uint32_t v) {
  AppendBe16(s, v >> 16);
  AppendBe16(s, v & 0xFFFF);
}

inline void PutLe32At(std::string* s, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*s)[at + i] = static_cast<char>(v >> (8 * i));
}

inline void PutBe16At(std::string* s, size_t at, uint16_t v) {
  (*s)[at] = static_cast<char>(v >> 8);
  (*s)[at + 1] = static_cast<char>(v);
}

inline void PutBe32At(std::string* s, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*s)[at + i] = static_cast<char>(v >> (24 - 8 * i));
}

inline uint32_t ReadLe16(const std::string& s, size_t at) {
  return uint32_t{static_cast<uint8_t>(s[at])} | uint32_t{static_cast<uint8_t>(s[at + 1])} << 8;
}

inline uint32_t ReadLe32(const std::string& s, size_t at) { return ReadLe16(s, at) | ReadLe16(s, at + 2) << 16; }

inline uint32_t ReadBe32(const std::string& s, size_t at) {
  uint32_t v = 0;
  for (int i = 0; i < 4; ++i) v = v << 8 | static_cast<uint8_t>(s[at + i]);
  return v;
}

}  // namespace testing
}  // namespace tessera

#endif  // TESSERA_LIB_UTILITY_TESTING_BYTE_WRITERS_H_
