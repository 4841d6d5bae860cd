// ICC profiles for tests, made with lcms2 or laid out byte by byte.
#ifndef TESSERA_LIB_COLOR_TESTING_ICC_FIXTURES_H_
#define TESSERA_LIB_COLOR_TESTING_ICC_FIXTURES_H_

#include <cstdint>
#include <string>

namespace tessera {
namespace color {
namespace testing {

// An RGB display profile whose only tag is a float pipeline (D2B0) of
// `elements` processing elements, every one of them the same 3 x 3 matrix:
// a few bytes for each however many there are (and next to nothing once
// compressed in a PNG), but one step each for every colour lcms2 samples
// when it builds a transform.
std::string MultiProcessIccProfile(uint32_t elements);

// An sRGB-like profile with the Display P3 primaries (lcms2).
std::string DisplayP3Profile();

}  // namespace testing
}  // namespace color
}  // namespace tessera

#endif  // TESSERA_LIB_COLOR_TESTING_ICC_FIXTURES_H_
