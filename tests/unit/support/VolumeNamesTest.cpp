#include "support/VolumeNames.hpp"

#include <gtest/gtest.h>

using namespace support;

TEST(VolumeNames, ComposedLettersAreStoredDecomposed) {
  EXPECT_EQ(storedName("é"), u"e\u0301");
  EXPECT_EQ(storedName("Å"), u"A\u030A");
  EXPECT_EQ(storedName("ệ"), u"e\u0323\u0302");
  EXPECT_EQ(storedName("한"), u"\u1112\u1161\u11AB");
  EXPECT_EQ(storedName("가"), u"\u1100\u1161");
  EXPECT_EQ(storedName("日本"), u"日本");
}

TEST(VolumeNames, MarksAreStoredInTheOrderOfTheirClasses) {
  EXPECT_EQ(storedName("a\u0301\u0323b"), u"a\u0323\u0301b");
  EXPECT_EQ(storedName("a\u0301\u0302"), u"a\u0301\u0302");
}

TEST(VolumeNames, CharactersBeyondTheFirstPlaneAreTwoUnits) {
  EXPECT_EQ(storedName("😀"), u"\xD83D\xDE00");
  EXPECT_EQ(utf8FromUnits(u"\xD83D\xDE00"), "😀");
  EXPECT_EQ(utf8FromUnits(u"\xD83D"), "\uFFFD");
}

TEST(VolumeNames, FoldedOrderIgnoresCaseAndInvisibleUnits) {
  EXPECT_EQ(compareNamesFolded(u"ABC", u"abc"), 0);
  EXPECT_EQ(compareNamesFolded(u"a\u200Db", u"ab"), 0);
  EXPECT_LT(compareNamesFolded(u"a", u"B"), 0);
  EXPECT_LT(compareNamesFolded(u"a", u"aa"), 0);
  EXPECT_EQ(compareNamesFolded(u"Ω", u"ω"), 0);
  EXPECT_EQ(compareNamesFolded(u"Ж", u"ж"), 0);
  // A NUL unit sorts behind everything.
  EXPECT_GT(compareNamesFolded(std::u16string_view(u"\0", 1), u"z"), 0);
}

TEST(VolumeNames, BinaryOrderGoesByUnits) {
  EXPECT_LT(compareNamesBinary(u"B", u"a"), 0);
  EXPECT_LT(compareNamesBinary(u"a", u"aa"), 0);
  EXPECT_EQ(compareNamesBinary(u"a", u"a"), 0);
}
