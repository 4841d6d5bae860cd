#include "lib/utility/text-conversion.h"

#include <gtest/gtest.h>

#include <ctime>
#include <string>

namespace tessera {
namespace utility {
namespace {

// Runs a conversion with both standard streams captured.
struct Captured {
  std::string out;
  std::string err;
};

template <typename F>
Captured Capture(F f) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  f();
  Captured c;
  c.err = testing::internal::GetCapturedStderr();
  c.out = testing::internal::GetCapturedStdout();
  return c;
}

TEST(TextConversionTest, ValidTextRoundTripsIncludingSurrogatePairs) {
  // U+00E9, U+4E2D and U+1F600 (outside the BMP: a surrogate pair in UTF-16).
  const std::string utf8 = "a\xC3\xA9\xE4\xB8\xAD\xF0\x9F\x98\x80z";
  const std::u16string utf16 = u"a\u00E9\u4E2D\xD83D\xDE00z";

  std::u16string wide = u"old";
  ASSERT_EQ(UTF8ToUTF16(utf8, &wide), 0);
  EXPECT_EQ(wide, utf16);
  std::string narrow = "old";
  ASSERT_EQ(UTF16ToUTF8(wide, &narrow), 0);
  EXPECT_EQ(narrow, utf8);

  EXPECT_EQ(UTF8ToUTF16(utf8), utf16);
  EXPECT_EQ(UTF16ToUTF8(utf16), utf8);
}

TEST(TextConversionTest, EmptyInputReplacesOutputWithEmpty) {
  std::u16string wide = u"stale";
  EXPECT_EQ(UTF8ToUTF16(std::string(), &wide), 0);
  EXPECT_TRUE(wide.empty());
  std::string narrow = "stale";
  EXPECT_EQ(UTF16ToUTF8(std::u16string(), &narrow), 0);
  EXPECT_TRUE(narrow.empty());
}

TEST(TextConversionTest, StopsAtEmbeddedNul) {
  EXPECT_EQ(UTF8ToUTF16(std::string("ab\0cd", 5)), u"ab");
  EXPECT_EQ(UTF16ToUTF8(std::u16string(u"xy\0z", 4)), "xy");
}

TEST(TextConversionTest, InvalidUTF8WarnsOnStderrAndLeavesOutputAlone) {
  std::u16string wide = u"untouched";
  int status = 0;
  Captured c = Capture([&] { status = UTF8ToUTF16("\xC3\x28", &wide); });
  EXPECT_EQ(status, -1);
  EXPECT_EQ(wide, u"untouched");
  EXPECT_EQ(c.err, "Warning: u_strFromUTF8: error code 10 at line 120\n");
  EXPECT_EQ(c.out, "");

  // Lone continuation byte, overlong form, encoded surrogate, truncated tail.
  for (const char* bad : {"\x80", "\xC0\xAF", "\xED\xA0\x80", "ok\xE4\xB8"}) {
    std::u16string value = u"x";
    Captured each = Capture([&] { value = UTF8ToUTF16(std::string(bad)); });
    EXPECT_TRUE(value.empty()) << bad;
    EXPECT_EQ(each.err, "Warning: u_strFromUTF8: error code 10 at line 120\n");
  }
}

TEST(TextConversionTest, UnpairedSurrogatesAreRefused) {
  for (const std::u16string& bad : {std::u16string(u"\xD800"), std::u16string(u"a\xDC00" u"b"),
                                    std::u16string(u"\xDE00\xD83D")}) {
    std::string narrow = "untouched";
    int status = 0;
    Captured c = Capture([&] { status = UTF16ToUTF8(bad, &narrow); });
    EXPECT_EQ(status, -1);
    EXPECT_EQ(narrow, "untouched");
    EXPECT_EQ(c.err, "Warning: u_strToUTF8: error code 10 at line 83\n");
    EXPECT_EQ(c.out, "");
    Capture([&] { EXPECT_EQ(UTF16ToUTF8(bad), ""); });
  }
}

TEST(TextConversionTest, IsValidUTF8AnswersQuietly) {
  Captured c = Capture([] {
    EXPECT_TRUE(IsValidUTF8(""));
    EXPECT_TRUE(IsValidUTF8("plain"));
    EXPECT_TRUE(IsValidUTF8("\xF0\x9F\x98\x80"));
    EXPECT_FALSE(IsValidUTF8("\xC3\x28"));
    EXPECT_FALSE(IsValidUTF8("\xFF"));
  });
  EXPECT_EQ(c.err, "");
}

TEST(TextConversionTest, FormatLocalTime) {
  std::time_t now = std::time(nullptr);
  char year[8];
  std::strftime(year, sizeof year, "%Y", std::localtime(&now));
  std::string formatted = FormatLocalTime("year %Y \xC3\xA9");
  // Tolerate a test run across midnight of New Year's Eve.
  EXPECT_TRUE(formatted == std::string("year ") + year + " \xC3\xA9" || formatted.size() == 12) << formatted;

  // The result must fit into 128 bytes with its terminator.
  EXPECT_EQ(FormatLocalTime(std::string(127, 'x')), std::string(127, 'x'));
  EXPECT_EQ(FormatLocalTime(std::string(128, 'x')), "");
  Captured c = Capture([] { EXPECT_EQ(FormatLocalTime("\xC3\x28%Y"), ""); });
  EXPECT_EQ(c.err, "Warning: u_strFromUTF8: error code 10 at line 120\n");
}

}  // namespace
}  // namespace utility
}  // namespace tessera
