#include "LWKit/LWUnicode.hpp"

#include <gtest/gtest.h>

TEST(LWUnicode, EveryCharacterSurvivesTheWayThereAndBack) {
  for (char32_t character = 0; character <= 0x10FFFF; ++character) {
    if (character >= 0xD800 && character <= 0xDFFF) {
      continue;
    }
    std::u16string units;
    if (character < 0x10000) {
      units = {static_cast<char16_t>(character)};
    } else {
      units = {static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10)),
               static_cast<char16_t>(0xDC00 + ((character - 0x10000) & 0x3FF))};
    }
    const std::string text = LWUTF8FromUTF16(units);
    const size_t length = character < 0x80      ? 1
                          : character < 0x800   ? 2
                          : character < 0x10000 ? 3
                                                : 4;
    ASSERT_EQ(text.size(), length);
    ASSERT_EQ(LWUTF8SequenceLength(text), length);
    ASSERT_EQ(LWUTF16FromUTF8(text), units);
  }
}

TEST(LWUnicode, MalformedBytesAreRefused) {
  for (const char* text : {"\x80", "\xBF", "\xC0\x80", "\xC1\xBF", "\xC3", "\xE0\x9F\xBF",
                           "\xE2\x82", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF0\x8F\xBF\xBF",
                           "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "a\xE2z", "\xC3\xC3"}) {
    EXPECT_FALSE(LWUTF16FromUTF8(text)) << text;
    EXPECT_FALSE(LWIsUTF8(text)) << text;
  }
}

TEST(LWUnicode, AnEmptyTextIsWellFormed) {
  EXPECT_EQ(LWUTF16FromUTF8(""), u"");
  EXPECT_TRUE(LWIsUTF8(""));
  EXPECT_EQ(LWUTF8SequenceLength(""), 0U);
}

TEST(LWUnicode, ALoneSurrogateBecomesTheReplacementCharacter) {
  const std::string replacement = "\xEF\xBF\xBD";
  EXPECT_EQ(LWUTF8FromUTF16(std::u16string{0xD800}), replacement);
  EXPECT_EQ(LWUTF8FromUTF16(std::u16string{0xDC00, u'a'}), replacement + "a");
  EXPECT_EQ(LWUTF8FromUTF16(std::u16string{0xD83D, u'a'}), replacement + "a");
  EXPECT_EQ(LWUTF8FromUTF16(std::u16string{0xD83D, 0xD83D, 0xDE00}),
            replacement + "\xF0\x9F\x98\x80");
}
