#include "lib/image/exif-orientation.h"

#include <cstdint>
#include <string>
#include <vector>

#include "gtest/gtest.h"

namespace tessera {
namespace image {
namespace {

// Builds a TIFF block whose IFD0 holds the given (tag, type, value) entries,
// with an optional "Exif\0\0" prefix.
std::vector<uint8_t> MakeExif(bool little_endian, const std::vector<std::vector<uint32_t>>& entries,
                              bool prefix = false) {
  std::vector<uint8_t> out;
  auto put = [&](uint32_t v, int bytes) {
    for (int i = 0; i < bytes; ++i) {
      const int shift = 8 * (little_endian ? i : bytes - 1 - i);
      out.push_back(static_cast<uint8_t>(v >> shift));
    }
  };
  auto put16 = [&](uint32_t v) { put(v, 2); };
  auto put32 = [&](uint32_t v) { put(v, 4); };
  if (prefix) out.insert(out.end(), {'E', 'x', 'i', 'f', 0, 0});
  out.insert(out.end(), little_endian ? std::initializer_list<uint8_t>{'I', 'I'}
                                      : std::initializer_list<uint8_t>{'M', 'M'});
  put16(42);
  put32(8);
  put16(static_cast<uint32_t>(entries.size()));
  for (const auto& e : entries) {
    put16(e[0]);
    put16(e[1]);
    put32(1);
    if (e[1] == 3) {
      put16(e[2]);
      put16(0);
    } else {
      put32(e[2]);
    }
  }
  put32(0);
  return out;
}

TEST(ExifOrientationTest, ReadsBothByteOrdersWithOrWithoutPrefix) {
  for (bool le : {true, false}) {
    for (bool prefix : {true, false}) {
      for (uint32_t orientation = 1; orientation <= 8; ++orientation) {
        // Another tag first, so the walker has to step over entries.
        const auto exif = MakeExif(le, {{0x010f, 3, 7}, {0x0112, 3, orientation}}, prefix);
        EXPECT_EQ(ExifOrientation(exif.data(), exif.size()), static_cast<int>(orientation))
            << "le=" << le << " prefix=" << prefix;
      }
    }
    const auto as_long = MakeExif(le, {{0x0112, 4, 6}});
    EXPECT_EQ(ExifOrientation(as_long.data(), as_long.size()), 6);
  }
}

TEST(ExifOrientationTest, MissingOrInvalidGivesOne) {
  const auto no_tag = MakeExif(true, {{0x010f, 3, 6}});
  EXPECT_EQ(ExifOrientation(no_tag.data(), no_tag.size()), 1);
  const auto out_of_range = MakeExif(false, {{0x0112, 3, 9}});
  EXPECT_EQ(ExifOrientation(out_of_range.data(), out_of_range.size()), 1);
  const auto wrong_type = MakeExif(true, {{0x0112, 2, 6}});
  EXPECT_EQ(ExifOrientation(wrong_type.data(), wrong_type.size()), 1);
  EXPECT_EQ(ExifOrientation(nullptr, 0), 1);
  const std::string junk = "Exif\0\0XX*\0\0\0\0\0";
  EXPECT_EQ(ExifOrientation(reinterpret_cast<const uint8_t*>(junk.data()), junk.size()), 1);
}

TEST(ExifOrientationTest, TruncatedOrHostileBlocksAreSafe) {
  const auto exif = MakeExif(true, {{0x010f, 3, 1}, {0x0112, 3, 6}}, true);
  // Every truncation: never reads past the end, and finds the tag only when
  // its entry is complete.
  for (size_t n = 0; n < exif.size(); ++n) {
    std::vector<uint8_t> cut(exif.begin(), exif.begin() + n);
    const int orientation = ExifOrientation(cut.data(), cut.size());
    EXPECT_TRUE(orientation == 1 || (orientation == 6 && n >= 6 + 8 + 2 + 24)) << n;
  }
  // IFD offset and entry count pointing far outside the block.
  auto bad_offset = exif;
  bad_offset[6 + 4] = 0xff;
  bad_offset[6 + 7] = 0x7f;
  EXPECT_EQ(ExifOrientation(bad_offset.data(), bad_offset.size()), 1);
  auto bad_count = exif;
  bad_count[6 + 8] = 0xff;
  bad_count[6 + 9] = 0xff;
  EXPECT_EQ(ExifOrientation(bad_count.data(), bad_count.size()), 6);  // found before the end
  auto bad_count_no_tag = MakeExif(true, {{0x010f, 3, 1}});
  bad_count_no_tag[8] = 0xff;
  bad_count_no_tag[9] = 0xff;
  EXPECT_EQ(ExifOrientation(bad_count_no_tag.data(), bad_count_no_tag.size()), 1);
}

}  // namespace
}  // namespace image
}  // namespace tessera
