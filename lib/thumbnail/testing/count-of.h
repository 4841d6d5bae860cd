// Counts the occurrences of a text in captured output, for tests that check
// that a failure logs exactly one line.
#ifndef TESSERA_LIB_THUMBNAIL_TESTING_COUNT_OF_H_
#define TESSERA_LIB_THUMBNAIL_TESTING_COUNT_OF_H_

#include <string>

namespace tessera {
namespace thumbnail {
namespace testing {

inline int CountOf(const std::string& text, const std::string& needle) {
  int n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

}  // namespace testing
}  // namespace thumbnail
}  // namespace tessera

#endif  // TESSERA_LIB_THUMBNAIL_TESTING_COUNT_OF_H_
