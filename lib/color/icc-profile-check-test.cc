#include "lib/color/icc-profile-check.h"

#include <cstdint>
#include <string>
#include <vector>

#include "gtest/gtest.h"
#include "lib/color/color-profile.h"
#include "lib/color/testing/icc-fixtures.h"
#include "lib/utility/testing/byte-writers.h"

namespace tessera {
namespace color {
namespace {

constexpr auto Put32 = tessera::testing::PutBe32At;
constexpr auto Put16 = tessera::testing::PutBe16At;

// An RGB display profile with one tag, `signature`, holding `body`.
std::string Profile(const char* signature, const std::string& body, uint32_t tag_count = 1) {
  std::string p(128 + 4 + 12, '\0');
  p.replace(12, 12, "mntrRGB XYZ ");
  p.replace(36, 4, "acsp");
  Put32(&p, 8, 0x04300000);
  Put32(&p, 128, tag_count);
  p.replace(132, 4, signature);
  Put32(&p, 136, static_cast<uint32_t>(p.size()));
  Put32(&p, 140, static_cast<uint32_t>(body.size()));
  p += body;
  Put32(&p, 0, static_cast<uint32_t>(p.size()));
  return p;
}

// A 16-bit table ('mft2') with 3 inputs, 3 outputs and `grid` points a side,
// holding only `held` bytes of table data.
std::string Lut16(uint8_t grid, size_t held) {
  std::string tag(52, '\0');
  tag.replace(0, 4, "mft2");
  tag[8] = 3;
  tag[9] = 3;
  tag[10] = static_cast<char>(grid);
  Put16(&tag, 48, 2);
  Put16(&tag, 50, 2);
  tag.resize(tag.size() + held);
  return tag;
}

TEST(IccProfileCheckTest, RefusesProfilesBuiltToBeExpensiveOrInconsistent) {
  const std::string p3 = testing::DisplayP3Profile();
  std::string truncated_header = p3;
  Put32(&truncated_header, 0, static_cast<uint32_t>(p3.size() + 1));
  std::string many_tags = p3;
  Put32(&many_tags, 128, 100000);
  const size_t whole_lut = 2 * 3 * 2 + 17 * 17 * 17 * 3 * 2 + 2 * 3 * 2;
  struct Case {
    const char* what;
    std::string profile;
    bool affordable;
  };
  const Case cases[] = {
      {"a display profile", p3, true},
      {"a pipeline of a few elements", testing::MultiProcessIccProfile(4), true},
      {"a pipeline of 100 000 elements", testing::MultiProcessIccProfile(100000), false},
      {"a table with all its data", Profile("A2B0", Lut16(17, whole_lut)), true},
      {"a table larger than its data", Profile("A2B0", Lut16(255, whole_lut)), false},
      {"a size beyond the bytes", truncated_header, false},
      {"100 000 tags", many_tags, false},
      {"a tag beyond the end", Profile("A2B0", Lut16(17, whole_lut)).substr(0, 200), false},
      {"nothing but a header", p3.substr(0, 100), false},
  };
  for (const Case& c : cases) {
    const auto* bytes = reinterpret_cast<const uint8_t*>(c.profile.data());
    EXPECT_EQ(IccProfileIsAffordable(bytes, c.profile.size()), c.affordable) << c.what;
    // lcms2 never sees a refused one: the pixels are taken as they are.
    if (!c.affordable) {
      EXPECT_TRUE(ColorTransform::FromIcc(bytes, c.profile.size(), PixelLayout::kBgra8).is_identity()) << c.what;
    }
  }
}

}  // namespace
}  // namespace color
}  // namespace tessera
