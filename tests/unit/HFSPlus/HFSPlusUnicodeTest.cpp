#include "HFSPlus/HFSPlusUnicode.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

const std::filesystem::path kTables = std::filesystem::path(XRDEFRAG_SOURCE_DIR) / "tools/unicode";

/// The rows of a published table: unit and the text behind it.
std::map<uint16_t, std::string> readTable(const char* name) {
  std::ifstream file(kTables / name);
  std::map<uint16_t, std::string> rows;
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line[0] != '#') {
      const size_t tab = line.find('\t');
      rows[static_cast<uint16_t>(std::stoul(line.substr(0, tab), nullptr, 16))] =
          line.substr(tab + 1);
    }
  }
  return rows;
}

std::u16string unitsOf(const std::string& hexadecimal) {
  std::u16string units;
  std::istringstream stream(hexadecimal);
  for (std::string word; stream >> word;) {
    units += static_cast<char16_t>(std::stoul(word, nullptr, 16));
  }
  return units;
}

std::string contentOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(HFSPlusUnicode, FoldsEveryUnitAsThePublishedTable) {
  const auto table = readTable("case-folding.tsv");
  ASSERT_GT(table.size(), 300U);
  for (uint32_t unit = 0; unit <= 0xFFFF; unit++) {
    const auto row = table.find(static_cast<uint16_t>(unit));
    const auto expected = row == table.end() ? unit : std::stoul(row->second, nullptr, 16);
    ASSERT_EQ(HFSPlusFoldedUnit(static_cast<uint16_t>(unit)), expected) << std::hex << unit;
  }
}

TEST(HFSPlusUnicode, KnowsTheCombiningClassOfEveryUnit) {
  const auto table = readTable("combining-class.tsv");
  ASSERT_GT(table.size(), 300U);
  for (uint32_t unit = 0; unit <= 0xFFFF; unit++) {
    const auto row = table.find(static_cast<uint16_t>(unit));
    const auto expected = row == table.end() ? 0 : std::stoul(row->second);
    ASSERT_EQ(HFSPlusCombiningClass(static_cast<uint16_t>(unit)), expected) << std::hex << unit;
  }
}

TEST(HFSPlusUnicode, DecomposesEveryUnitAsThePublishedTable) {
  const auto table = readTable("decomposition.tsv");
  ASSERT_GT(table.size(), 900U);
  for (uint32_t unit = 0; unit <= 0xFFFF; unit++) {
    if (unit >= 0xAC00 && unit <= 0xD7A3) {
      continue;
    }
    const std::u16string text(1, static_cast<char16_t>(unit));
    const auto row = table.find(static_cast<uint16_t>(unit));
    ASSERT_EQ(HFSPlusDecomposedName(text), row == table.end() ? text : unitsOf(row->second))
        << std::hex << unit;
  }
}

TEST(HFSPlusUnicode, TakesEveryHangulSyllableApart) {
  char16_t syllable = 0xAC00;
  for (char16_t leading = 0x1100; leading <= 0x1112; leading++) {
    for (char16_t vowel = 0x1161; vowel <= 0x1175; vowel++) {
      const std::u16string open{leading, vowel};
      ASSERT_EQ(HFSPlusDecomposedName({&syllable, 1}), open);
      syllable++;
      for (char16_t trailing = 0x11A8; trailing <= 0x11C2; trailing++, syllable++) {
        ASSERT_EQ(HFSPlusDecomposedName({&syllable, 1}), open + trailing);
      }
    }
  }
  EXPECT_EQ(syllable, 0xD7A4);
  EXPECT_EQ(HFSPlusDecomposedName({&syllable, 1}), std::u16string(1, syllable));
}

TEST(HFSPlusUnicode, LeavesCompatibilityIdeographsAndSymbolsAlone) {
  // U+2126 (ohm) and U+F900 have canonical decompositions that the format leaves out.
  const std::u16string text = u"\u2126\u212B\uF900\uFA2D\u226E";
  EXPECT_EQ(HFSPlusDecomposedName(text), text);
}

TEST(HFSPlusUnicode, OrdersMarksByClassAndKeepsTheOrderWithinAClass) {
  // U+0301 and U+0308 have class 230, U+0323 has 220, U+0327 has 202.
  EXPECT_EQ(HFSPlusDecomposedName(u"a\u0301\u0323"), u"a\u0323\u0301");
  EXPECT_EQ(HFSPlusDecomposedName(u"a\u0308\u0301"), u"a\u0308\u0301");
  EXPECT_EQ(HFSPlusDecomposedName(u"a\u0301\u0308"), u"a\u0301\u0308");
  EXPECT_EQ(HFSPlusDecomposedName(u"\u0301\u0323\u0327"), u"\u0327\u0323\u0301");
}

TEST(HFSPlusUnicode, OrdersAMarkThatComesOutOfALetterWithThoseBehindIt) {
  // U+00E1 is a with U+0301; the dot below goes before it.
  EXPECT_EQ(HFSPlusDecomposedName(u"\u00E1\u0323"), u"a\u0323\u0301");
  EXPECT_EQ(HFSPlusDecomposedName(u"\u1EAD\u0327x\u0301\u0323"),
            u"a\u0327\u0323\u0302x\u0323\u0301");
}

TEST(HFSPlusUnicode, DecomposingTwiceChangesNothingMore) {
  std::u16string all;
  for (uint32_t unit = 1; unit <= 0xFFFF; unit++) {
    all += static_cast<char16_t>(unit);
  }
  const auto once = HFSPlusDecomposedName(all);
  EXPECT_EQ(HFSPlusDecomposedName(once), once);
}

TEST(HFSPlusUnicode, KeepsSurrogatesAndPlainText) {
  EXPECT_EQ(HFSPlusDecomposedName(u"plain:text/x"), u"plain:text/x");
  EXPECT_EQ(HFSPlusDecomposedName(u"\U0001F600"), u"\U0001F600");
  EXPECT_EQ(HFSPlusDecomposedName({}), u"");
}

TEST(HFSPlusUnicode, TheGeneratorMakesTheCommittedTablesAgain) {
  const auto generator = kTables / "generate_unicode_tables.py";
  if (std::system("python3 -c '' 2>/dev/null") != 0) {
    GTEST_SKIP() << "needs python3";
  }
  const auto made = std::filesystem::path(testing::TempDir()) / "HFSPlusUnicodeTables.cpp";
  const std::string command = "python3 '" + generator.string() + "' > '" + made.string() + "'";
  ASSERT_EQ(std::system(command.c_str()), 0);
  EXPECT_EQ(contentOf(made), contentOf(std::filesystem::path(XRDEFRAG_SOURCE_DIR) /
                                       "src/HFSPlus/HFSPlusUnicodeTables.cpp"));
  std::filesystem::remove(made);
}

}  // namespace
