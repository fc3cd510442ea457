#include "HFSPlus/HFSPlusNameCompare.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusUnicode.hpp"
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

int sign(int32_t order) {
  return order < 0 ? -1 : order > 0 ? 1 : 0;
}

int folded(std::u16string_view a, std::u16string_view b) {
  return sign(HFSPlusCompareNamesFolded(diskName(a), diskName(b)));
}

int binary(std::u16string_view a, std::u16string_view b) {
  return sign(HFSPlusCompareNamesBinary(diskName(a), diskName(b)));
}

/// The published order, spelled out: fold, drop what is ignored, compare what is left.
int foldedByTheBook(std::u16string_view a, std::u16string_view b) {
  const auto fold = [](std::u16string_view text) {
    std::u16string units;
    for (const char16_t unit : text) {
      if (const char16_t value = HFSPlusFoldedUnit(unit); value != 0) {
        units += value;
      }
    }
    return units;
  };
  return sign(fold(a).compare(fold(b)));
}

TEST(HFSPlusNameCompare, FoldingTakesUpperAndLowerCaseForTheSame) {
  EXPECT_EQ(folded(u"A", u"a"), 0);
  EXPECT_EQ(folded(u"Read Me", u"READ mE"), 0);
  EXPECT_EQ(folded(u"\u0394\u0416", u"\u03B4\u0436"), 0);
}

TEST(HFSPlusNameCompare, BinaryTellsUpperFromLowerCase) {
  EXPECT_EQ(binary(u"A", u"a"), -1);
  EXPECT_EQ(binary(u"a", u"A"), 1);
  EXPECT_EQ(binary(u"a", u"a"), 0);
}

TEST(HFSPlusNameCompare, TheFirstDifferenceDecides) {
  EXPECT_EQ(folded(u"abcX", u"ABDa"), -1);
  EXPECT_EQ(folded(u"abd", u"abcz"), 1);
  EXPECT_EQ(binary(u"ab\u0100", u"ab\u00FFz"), 1);
  EXPECT_EQ(binary(u"\xD800", u"\uFFFD"), -1);
}

TEST(HFSPlusNameCompare, TheBeginningOfAnotherNameComesFirst) {
  EXPECT_EQ(folded(u"", u"a"), -1);
  EXPECT_EQ(folded(u"a", u""), 1);
  EXPECT_EQ(folded(u"", u""), 0);
  EXPECT_EQ(folded(u"abcdefgh", u"ABCDEFGHI"), -1);
  EXPECT_EQ(binary(u"", u"a"), -1);
  EXPECT_EQ(binary(u"abc", u"ab"), 1);
  EXPECT_EQ(binary(u"", u""), 0);
}

TEST(HFSPlusNameCompare, FoldingSkipsIgnoredUnitsWhereverTheyStand) {
  EXPECT_EQ(folded(u"a\u200Db", u"ab"), 0);
  EXPECT_EQ(folded(u"\uFEFFab\u202A", u"a\u200Cb"), 0);
  EXPECT_EQ(folded(u"\u200D", u""), 0);
  EXPECT_EQ(folded(u"ab\u200D", u"abc"), -1);
  EXPECT_EQ(binary(u"a\u200Db", u"ab"), 1);
}

TEST(HFSPlusNameCompare, FoldingPutsNULBehindEverything) {
  EXPECT_EQ(folded(std::u16string_view(u"\0", 1), u"zzz"), 1);
  EXPECT_EQ(folded(std::u16string_view(u"\0", 1), u"\uFFFE"), 1);
  EXPECT_EQ(binary(std::u16string_view(u"\0", 1), u"a"), -1);
}

TEST(HFSPlusNameCompare, BothOrdersAgreeWithTheBookOnRandomNames) {
  const auto seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  constexpr std::u16string_view kUnits =
      u"aAbB\u00E9\u0391\u03B1\u200D\uFEFF\u0130\uFFFF\xD83D"
      u":/";
  const auto randomName = [&] {
    std::u16string name;
    for (size_t length = random() % 12; length > 0; length--) {
      name += random() % 20 == 0 ? u'\0' : kUnits[random() % kUnits.size()];
    }
    return name;
  };
  for (int round = 0; round < 20000; round++) {
    const auto common = randomName();
    const auto a = common + randomName();
    const auto b = common + randomName();
    ASSERT_EQ(folded(a, b), foldedByTheBook(a, b));
    ASSERT_EQ(folded(a, b), -folded(b, a));
    ASSERT_EQ(binary(a, b), sign(a.compare(b)));
  }
}

}  // namespace
