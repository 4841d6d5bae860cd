#include "lib/utility/text-conversion.h"

#include <gtest/gtest.h>

#include <string>

namespace tessera {
namespace utility {
namespace {

using ::testing::internal::CaptureStderr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStderr;
using ::testing::internal::GetCapturedStdout;

TEST(TextConversionTest, ValidTextRoundTrips) {
  // U+00E9, U+4E2D and U+1F600, which takes a surrogate pair in UTF-16.
  const std::string utf8 = "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80z";
  const std::u16string utf16 = u"a\u00E9\u4E2D\xD83D\xDE00z";
  std::u16string wide = u"old";
  ASSERT_EQ(UTF8ToUTF16(utf8, &wide), 0);
  EXPECT_EQ(wide, utf16);
  std::string narrow = "old";
  ASSERT_EQ(UTF16ToUTF8(wide, &narrow), 0);
  EXPECT_EQ(narrow, utf8);

  EXPECT_EQ(UTF8ToUTF16(std::string("ab\0cd", 5)), u"ab");  // up to the NUL
  EXPECT_EQ(UTF16ToUTF8(std::u16string(u"xy\0z", 4)), "xy");
  EXPECT_EQ(UTF8ToUTF16(std::string(), &wide), 0);
  EXPECT_TRUE(wide.empty());
}

TEST(TextConversionTest, InvalidUTF8WarnsOnStderrAndLeavesOutputAlone) {
  const std::string warning = "Warning: u_strFromUTF8: error code 10 at line 120\n";
  // C3 28, an encoded surrogate, a cut sequence.
  for (const char* bad : {"\xC3\x28", "\xED\xA0\x80", "ok\xE4\xB8"}) {
    std::u16string wide = u"untouched";
    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(UTF8ToUTF16(bad, &wide), -1);
    EXPECT_EQ(UTF8ToUTF16(std::string(bad)), u"");
    EXPECT_EQ(GetCapturedStderr(), warning + warning);  // once per form
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(wide, u"untouched");
  }
}

TEST(TextConversionTest, UnpairedSurrogatesAreRefused) {
  for (const std::u16string& bad : {std::u16string(u"a\xDC00" u"b"), std::u16string(u"\xDE00\xD83D")}) {
    std::string narrow = "untouched";
    CaptureStderr();
    EXPECT_EQ(UTF16ToUTF8(bad, &narrow), -1);
    EXPECT_EQ(GetCapturedStderr(), "Warning: u_strToUTF8: error code 10 at line 83\n");
    EXPECT_EQ(narrow, "untouched");
  }
}

TEST(TextConversionTest, IsValidUTF8AnswersQuietly) {
  CaptureStderr();
  EXPECT_TRUE(IsValidUTF8(""));
  EXPECT_TRUE(IsValidUTF8("\xF0\x9F\x98\x80"));
  EXPECT_FALSE(IsValidUTF8("\xC3\x28"));
  EXPECT_FALSE(IsValidUTF8("\xFF"));
  EXPECT_EQ(GetCapturedStderr(), "");
}

// The limit is 127 wide characters, not bytes: a result in a multi-byte
// script fits as long as its UTF-16 length does.
TEST(TextConversionTest, FormatLocalTimeFits127WideCharacters) {
  EXPECT_EQ(FormatLocalTime("%Y").size(), 4u);
  EXPECT_EQ(FormatLocalTime(std::string(127, 'x')), std::string(127, 'x'));
  EXPECT_EQ(FormatLocalTime(std::string(128, 'x')), "");
  std::string alpha;
  for (int i = 0; i < 127; ++i) alpha += "\xce\xb1";  // U+03B1, 2 bytes, 1 unit
  EXPECT_EQ(FormatLocalTime(alpha), alpha);
  EXPECT_EQ(FormatLocalTime(alpha + "x"), "");
}

}  // namespace
}  // namespace utility
}  // namespace tessera
