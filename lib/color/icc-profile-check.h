// A look at an embedded ICC profile's structure before lcms2 parses it, so
// that a profile built to be expensive is refused at once. lcms2 believes
// the counts a profile declares: a curve of four billion entries is
// allocated before it is read, and a float pipeline of 100 000 elements makes
// building a transform take minutes. Internal to lib/color.
#ifndef TESSERA_LIB_COLOR_ICC_PROFILE_CHECK_H_
#define TESSERA_LIB_COLOR_ICC_PROFILE_CHECK_H_

#include <cstddef>
#include <cstdint>

namespace tessera {
namespace color {

// Larger profiles exist (press profiles with big tables) but are not
// embedded in the pictures a thumbnail is made of.
constexpr size_t kMaxIccProfileBytes = size_t{8} << 20;
// Real profiles have a few dozen tags at most.
constexpr uint32_t kMaxIccTags = 200;
// Processing elements in one multi-process-element tag (a real one has three
// or four: curves, matrix or table, curves).
constexpr uint32_t kMaxIccProcessingElements = 16;
// Segments of one curve of a curve-set element.
constexpr uint32_t kMaxIccCurveSegments = 64;

// True when the profile is well formed enough to hand to lcms2 and every
// table it declares lies within it: the header's size within `size` and
// kMaxIccProfileBytes, a tag table within the profile, every tag within it,
// tag counts and element counts within the limits above, and every curve
// and colour lookup table no larger than the bytes that hold it.
bool IccProfileIsAffordable(const uint8_t* icc, size_t size);

}  // namespace color
}  // namespace tessera

#endif  // TESSERA_LIB_COLOR_ICC_PROFILE_CHECK_H_
