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

// A CMYK output profile of a coated press, like FOGRA39 (lcms2): a 9-step
// table from the Neugebauer mix of these solid overprints (in sRGB), black
// darkening towards kPressBlack. The magenta-and-yellow solid prints as
// (237, 28, 36), where the naive conversion gives pure red.
constexpr int kPressOverprints[8][3] = {
    {255, 255, 255},  // paper
    {255, 242, 0},    // Y
    {236, 0, 140},    // M
    {237, 28, 36},    // M + Y
    {0, 174, 239},    // C
    {0, 166, 81},     // C + Y
    {46, 49, 146},    // C + M
    {45, 40, 42},     // C + M + Y
};
constexpr int kPressBlack = 35;
std::string PressCmykProfile();

// A gray profile with a pure power curve of `gamma` and a D50 white (lcms2).
std::string GrayGammaProfile(double gamma);

}  // namespace testing
}  // namespace color
}  // namespace tessera

#endif  // TESSERA_LIB_COLOR_TESTING_ICC_FIXTURES_H_
