#include "HFSPlus/HFSPlusNameText.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "LWKit/LWUnicode.hpp"
#include "XRDefragReport.hpp"
#include "support/doubles/TestRandom.hpp"

namespace {

std::vector<std::byte> diskName(std::u16string_view text) {
  std::vector<std::byte> bytes;
  for (const char16_t unit : text) {
    bytes.push_back(static_cast<std::byte>(unit >> 8));
    bytes.push_back(static_cast<std::byte>(unit & 0xFF));
  }
  return bytes;
}

std::string plain(std::u16string_view text) {
  return HFSPlusNameString(diskName(text));
}

std::string outputSafe(std::u16string_view text) {
  const auto units = diskName(text);
  std::string line(HFSPlusOutputSafeNameMaxBytes(units), '\0');
  line.resize(static_cast<size_t>(HFSPlusPutOutputSafeName(line.data(), units) - line.data()));
  return line;
}

TEST(HFSPlusNameText, ShowsASlashAsAColon) {
  EXPECT_EQ(plain(u"a/b/"), "a:b:");
  EXPECT_EQ(outputSafe(u"a/b"), "a:b");
}

TEST(HFSPlusNameText, AnotherMeaningIsSeenAtEveryPlaceOfAName) {
  for (size_t length = 1; length <= 12; length++) {
    for (size_t place = 0; place < length; place++) {
      std::u16string name(length, u'n');
      std::string expected(length, 'n');
      name[place] = u'/';
      expected[place] = ':';
      EXPECT_EQ(outputSafe(name), expected);
      name[place] = u'\u012F';  // the lower half of which is a slash
      EXPECT_EQ(outputSafe(name), expected.replace(place, 1, "\u012F"));
    }
  }
}

TEST(HFSPlusNameText, EscapesCommasBackslashesAndNULsForReportLines) {
  EXPECT_EQ(outputSafe(u"a,b\\d"), "a\\,b\\\\d");
  EXPECT_EQ(outputSafe(std::u16string_view(u"\0\0x", 3)), "\\xC0\\x80\\xC0\\x80x");
  EXPECT_EQ(plain(std::u16string_view(u"\0x", 2)), std::string("\0x", 2));
  EXPECT_EQ(plain(u"a,b\\d"), "a,b\\d");
}

TEST(HFSPlusNameText, WritesUTF8OfEveryLength) {
  EXPECT_EQ(plain(u"z\u007F\u0080\u07FF\u0800\uFFFD\U00010000\U0010FFFF"),
            "z\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBD\xF0\x90\x80\x80\xF4\x8F\xBF\xBF");
}

TEST(HFSPlusNameText, ReplacesHalvesOfSurrogatePairs) {
  const char16_t high = 0xD83D;
  const char16_t low = 0xDE00;
  EXPECT_EQ(plain({&high, 1}), "\uFFFD");
  EXPECT_EQ(plain({&low, 1}), "\uFFFD");
  EXPECT_EQ(plain(std::u16string{high, high, low}), "\uFFFD\U0001F600");
  EXPECT_EQ(plain(std::u16string{low, high, u'/'}), "\uFFFD\uFFFD:");
}

TEST(HFSPlusNameText, HoldsTheLongestNames) {
  EXPECT_EQ(outputSafe(std::u16string(255, u'\0')).size(), 255U * 8);
  EXPECT_EQ(plain(std::u16string(255, u'\uFFFF')).size(), 255U * 3);
  EXPECT_EQ(plain({}), "");
}

TEST(HFSPlusNameText, OnePassGivesWhatDecodingAndEscapingGive) {
  const auto seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  constexpr std::u16string_view kUnits = u",\\a\u00E9\u20AC\xD83D\xDE00";
  constexpr std::u16string_view kPlainUnits = u"az09 +-.[]\x01\x7F";
  for (int round = 0; round < 40000; round++) {
    const auto plainOfEight = random() % 9;
    std::u16string name;
    for (size_t length = random() % 20; length > 0; length--) {
      const bool isPlain = random() % 8 < plainOfEight;
      const auto units = isPlain ? kPlainUnits : kUnits;
      name += !isPlain && random() % 8 == 0 ? u'\0' : units[random() % units.size()];
    }
    ASSERT_EQ(plain(name), LWUTF8FromUTF16(name));
    ASSERT_EQ(outputSafe(name), outputSafeString(LWUTF8FromUTF16(name)));
  }
}

}  // namespace
