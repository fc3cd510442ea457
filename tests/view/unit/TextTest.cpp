#include "base/Text.hpp"

#include <gtest/gtest.h>

using namespace view;

TEST(ViewTextTest, WhatWouldSteerATerminalIsShownAsASign) {
  EXPECT_EQ(visibleText("a\033[31mb\n\177"), "a␛[31mb␊␡");
  EXPECT_EQ(visibleText(std::string_view("a\0b", 3)), "a␀b");
  EXPECT_EQ(visibleText("\xC2\x9B"), "⟨9B⟩");
  EXPECT_EQ(visibleText("x\u202Ecod\u202C"), "x⟨202E⟩cod⟨202C⟩");
  EXPECT_EQ(visibleText("\u2066\u200B\uFEFF\u2028"), "⟨2066⟩⟨200B⟩⟨FEFF⟩⟨2028⟩");
  EXPECT_EQ(visibleText("\U000E0041"), "⟨E0041⟩");
}

TEST(ViewTextTest, OrdinaryTextStaysAsItIs) {
  EXPECT_EQ(visibleText("Été, 日本 – 😀.txt"), "Été, 日本 – 😀.txt");
}

TEST(ViewTextTest, BytesThatAreNoUTF8BecomeReplacementCharacters) {
  EXPECT_EQ(visibleText("a\xFFz"), "a\uFFFDz");
  EXPECT_EQ(visibleText("\xC0\x80"), "\uFFFD\uFFFD");            // an overlong NUL
  EXPECT_EQ(visibleText("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD");  // a surrogate
  EXPECT_EQ(visibleText("\xF4\x90\x80\x80"), "\uFFFD\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(visibleText("\xE2\x82"), "\uFFFD\uFFFD");  // cut off
}

TEST(ViewTextTest, LinesKeepTheirNewlines) {
  EXPECT_EQ(visibleLines("a\nb\033"), "a\nb␛");
  EXPECT_EQ(visibleLines(""), "");
}

TEST(ViewTextTest, TextIsCutToColumns) {
  EXPECT_EQ(fitEnd("abcdef", 6), "abcdef");
  EXPECT_EQ(fitEnd("abcdefg", 6), "abcde…");
  EXPECT_EQ(fitEnd("abc", 0), "");
  EXPECT_EQ(fitMiddle("/Users/somebody/Movies/Film.mov", 16), "/User…s/Film.mov");
  EXPECT_EQ(fitMiddle("/a/b", 16), "/a/b");
}

TEST(ViewTextTest, ASCIIHasALikenessOrAQuestionMark) {
  EXPECT_EQ(asciiText("a…b · Été␛"), "a...b - ?t?^[");
}

TEST(ViewTextTest, SearchIgnoresTheCaseOfLatinLetters) {
  EXPECT_TRUE(containsIgnoringCase("/Users/Scan305", "sCAN"));
  EXPECT_TRUE(containsIgnoringCase("abc", ""));
  EXPECT_FALSE(containsIgnoringCase("abc", "abcd"));
}

TEST(ViewTextTest, CountsAreGroupedByThousands) {
  EXPECT_EQ(prettyCount(0), "0");
  EXPECT_EQ(prettyCount(999), "999");
  EXPECT_EQ(prettyCount(1000), "1,000");
  EXPECT_EQ(prettyCount(1234567), "1,234,567");
}

TEST(ViewTextTest, BytesHaveTheUnitThatFits) {
  EXPECT_EQ(prettyBytes(1), "1 byte");
  EXPECT_EQ(prettyBytes(1023), "1023 bytes");
  EXPECT_EQ(prettyBytes(1536), "1.5 KiB");
  EXPECT_EQ(prettyBytes(uint64_t{1023} << 10 | 1000), "1.0 MiB");
  EXPECT_EQ(prettyBytes(uint64_t{40} << 30), "40 GiB");
  EXPECT_EQ(prettyBytes(UINT64_MAX), "16 EiB");
}

TEST(ViewTextTest, AShareIsAHundredOnlyWhenItIsAll) {
  EXPECT_EQ(prettyShare(0, 0), "0.0 %");
  EXPECT_EQ(prettyShare(1, 8), "12.5 %");
  EXPECT_EQ(prettyShare(9999999, 10000000), "99.9 %");
  EXPECT_EQ(prettyShare(7, 7), "100.0 %");
}

TEST(ViewTextTest, DurationsAreSaidAsPeopleSayThem) {
  EXPECT_EQ(prettyDuration(0.2), "0.2 s");
  EXPECT_EQ(prettyDuration(9.96), "10 s");
  EXPECT_EQ(prettyDuration(59.6), "1 min 00 s");
  EXPECT_EQ(prettyDuration(7620), "2 h 07 min");
}

TEST(ViewTextTest, ANumberIsTheWholeText) {
  uint64_t number = 7;
  EXPECT_TRUE(parseNumber("18446744073709551615", number));
  EXPECT_EQ(number, UINT64_MAX);
  for (const char* text : {"", "-1", "+1", "1 ", " 1", "1x", "18446744073709551616"}) {
    EXPECT_FALSE(parseNumber(text, number)) << text;
  }
  int64_t negative = 0;
  EXPECT_TRUE(parseNumber("-2082844800", negative));
  EXPECT_EQ(negative, -2082844800);
}
