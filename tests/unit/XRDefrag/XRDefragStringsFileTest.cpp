#include "XRDefragStringsFile.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "XRDefragPropertyListGuard.hpp"
#include "support/doubles/ScratchFile.hpp"
#include "support/doubles/TestRandom.hpp"

namespace {

using namespace std::string_literals;

std::string bigEndian(uint64_t value, size_t size) {
  std::string bytes;
  for (size_t index = size; index-- > 0;) {
    bytes += static_cast<char>(value >> (8 * index) & 0xFF);
  }
  return bytes;
}

/// A binary property list of the given objects, whose numbers take four bytes.
std::string binaryList(const std::vector<std::string>& objects) {
  std::string bytes = "bplist00";
  std::string table;
  for (const std::string& object : objects) {
    table += bigEndian(bytes.size(), 4);
    bytes += object;
  }
  const size_t tableOffset = bytes.size();
  return bytes + table + "\0\0\0\0\0\0\4\4"s + bigEndian(objects.size(), 8) + bigEndian(0, 8) +
         bigEndian(tableOffset, 8);
}

std::string xml(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + body +
         "</plist>\n";
}

std::string repeated(const std::string& text, size_t count) {
  std::string result;
  while (count-- > 0) {
    result += text;
  }
  return result;
}

std::string utf16(const std::u16string& text, std::endian order) {
  std::string bytes;
  for (const char16_t unit : text) {
    const auto high = static_cast<char>(unit >> 8);
    const auto low = static_cast<char>(unit & 0xFF);
    bytes += order == std::endian::big ? high : low;
    bytes += order == std::endian::big ? low : high;
  }
  return bytes;
}

const std::string kSmallBinaryList = binaryList({"\xD1"s + bigEndian(1, 4) + bigEndian(2, 4),
                                                 "\x53"
                                                 "key"s,
                                                 "\x55"
                                                 "value"s});

using Map = LWStringTable::Map;

}  // namespace

TEST(XRDefragStringsFile, AnXMLDictionaryTranslates) {
  EXPECT_EQ(XRDefragStringsFile::parse(
                xml("<dict><key>No device specified.</key><string>Kein Ger\xC3\xA4t.</string>"
                    "<key>a &amp; b</key><string>&lt;c&gt;</string></dict>")),
            (Map{{"No device specified.", "Kein Ger\xC3\xA4t."}, {"a & b", "<c>"}}));
}

TEST(XRDefragStringsFile, ABinaryDictionaryTranslates) {
  EXPECT_EQ(XRDefragStringsFile::parse(kSmallBinaryList), (Map{{"key", "value"}}));
}

TEST(XRDefragStringsFile, AnEmptyDictionaryTranslatesNothing) {
  EXPECT_EQ(XRDefragStringsFile::parse(xml("<dict/>")), Map{});
}

TEST(XRDefragStringsFile, ValuesThatAreNoStringsTranslateNothing) {
  EXPECT_EQ(XRDefragStringsFile::parse(xml("<dict><key>a</key><integer>1</integer><key>b</key>"
                                           "<array><string>x</string></array>"
                                           "<key>c</key><string>d</string></dict>")),
            (Map{{"c", "d"}}));
}

TEST(XRDefragStringsFile, OnlyADictionaryWillDo) {
  EXPECT_FALSE(XRDefragStringsFile::parse(xml("<array><string>a</string></array>")));
  EXPECT_FALSE(XRDefragStringsFile::parse(xml("<string>a</string>")));
  EXPECT_FALSE(XRDefragStringsFile::parse(binaryList({"\xA0"})));
}

TEST(XRDefragStringsFile, WhatIsNoPropertyListIsRefused) {
  for (const std::string& bytes :
       {""s, " "s, "hello"s, "{ a = b; }"s, "{\"a\": \"b\"}"s, "bplist00"s, "<"s, "<html>"s,
        std::string(100, '\0'), "bplist00"s + std::string(64, '\xFF'),
        xml("<dict><key>a</key><string>b</string>"), "\xFF\xFE<\0p\0"s}) {
    EXPECT_FALSE(XRDefragStringsFile::parse(bytes)) << bytes;
  }
}

TEST(XRDefragStringsFile, XMLThatIsNotUTF8IsRefused) {
  EXPECT_FALSE(XRDefragStringsFile::parse(xml("<dict><key>a</key><string>\xFF</string></dict>")));
}

TEST(XRDefragStringsFile, AByteOrderMarkTellsHowXMLIsEncoded) {
  const std::u16string list =
      u"<?xml version=\"1.0\" encoding=\"UTF-16\"?>\n<plist version=\"1.0\"><dict>"
      u"<key>No device specified.</key><string>Ger\u00E4t \U0001F600?</string></dict></plist>\n";
  const Map expected{{"No device specified.", "Ger\xC3\xA4t \xF0\x9F\x98\x80?"}};
  EXPECT_EQ(XRDefragStringsFile::parse("\xFE\xFF" + utf16(list, std::endian::big)), expected);
  EXPECT_EQ(XRDefragStringsFile::parse("\xFF\xFE" + utf16(list, std::endian::little)), expected);
  EXPECT_EQ(XRDefragStringsFile::parse("\xEF\xBB\xBF" + xml("<dict><key>No device specified.</key>"
                                                            "<string>Ger\xC3\xA4t "
                                                            "\xF0\x9F\x98\x80?</string></dict>")),
            expected);
}

TEST(XRDefragStringsFile, UTF16WithHalfACharacterIsRefused) {
  const std::u16string before = u"<plist version=\"1.0\"><dict><key>a</key><string>";
  const std::u16string after = u"</string></dict></plist>";
  const auto parse = [](const std::u16string& list) {
    return XRDefragStringsFile::parse("\xFE\xFF" + utf16(list, std::endian::big));
  };
  EXPECT_EQ(parse(before + u"b" + after), (Map{{"a", "b"}}));
  EXPECT_FALSE(parse(before + char16_t{0xD83D} + after));
  EXPECT_FALSE(parse(before + char16_t{0xDE00} + after));
  EXPECT_FALSE(XRDefragStringsFile::parse("\xFE\xFF" +
                                          utf16(before + u"b" + after, std::endian::big) + "\n"));
}

TEST(XRDefragStringsFile, NulCharactersAreRefusedWhereTheyStopTheLibrary) {
  const std::string dictionary = "\xD1"s + bigEndian(1, 4) + bigEndian(2, 4);
  EXPECT_FALSE(XRDefragStringsFile::parse(binaryList({dictionary, "\x53k\0y"s, "\x51v"})));
  EXPECT_FALSE(XRDefragStringsFile::parse(binaryList({dictionary, "\x62\0k\0\0"s, "\x51v"})));
  EXPECT_EQ(XRDefragStringsFile::parse(binaryList({dictionary, "\x62\0k\0y"s, "\x51v"})),
            (Map{{"ky", "v"}}));
  EXPECT_FALSE(XRDefragStringsFile::parse(xml("<dict><key>a\0b</key><string>c</string></dict>"s)));
  EXPECT_FALSE(XRDefragStringsFile::parse(xml("<dict><key>a</key><string>b\0c</string></dict>"s)));
}

TEST(XRDefragStringsFile, ATranslationThatIsNotUTF8TranslatesNothing) {
  EXPECT_EQ(XRDefragStringsFile::parse(xml("<dict><key>a</key><string>&#xD800;</string></dict>")),
            Map{});
}

TEST(XRDefragStringsFile, DeepNestingIsRefusedBeforeAnybodyRecurses) {
  constexpr size_t kDepth = 60'000;
  EXPECT_FALSE(
      XRDefragStringsFile::parse(xml(repeated("<array>", kDepth) + repeated("</array>", kDepth))));
  EXPECT_FALSE(XRDefragStringsFile::parse(
      xml(repeated("<dict><key>a</key>", kDepth / 2) + repeated("</dict>", kDepth / 2))));
  std::vector<std::string> objects;
  for (size_t number = 1; number <= kDepth; ++number) {
    objects.push_back("\xA1"s + bigEndian(number, 4));
  }
  objects.emplace_back("\x08");
  EXPECT_FALSE(XRDefragStringsFile::parse(binaryList(objects)));
}

TEST(XRDefragStringsFile, ReferencesThatExpandWithoutEndAreRefused) {
  std::vector<std::string> doubling;
  for (size_t number = 1; number <= 14; ++number) {
    doubling.push_back("\xA8"s + repeated(bigEndian(number, 4), 8));
  }
  doubling.emplace_back("\x08");
  EXPECT_FALSE(XRDefragStringsFile::parse(binaryList(doubling)));

  constexpr size_t kLength = 100'000;
  constexpr size_t kCount = 20'000;
  const std::string root = "\xDF\x12"s + bigEndian(kCount, 4) + repeated(bigEndian(1, 4), kCount) +
                           repeated(bigEndian(2, 4), kCount);
  const std::string text = "\x5F\x12"s + bigEndian(kLength, 4) + std::string(kLength, 'x');
  EXPECT_FALSE(XRDefragStringsFile::parse(binaryList({root,
                                                      "\x51"
                                                      "a",
                                                      text})));

  EXPECT_FALSE(XRDefragStringsFile::parse(binaryList({"\xA1"s + bigEndian(0, 4)})));
}

TEST(XRDefragStringsFile, FilesAreReadUpToALimit) {
  const std::string text = xml("<dict><key>a</key><string>b</string></dict>");
  const doubles::ScratchFile small(std::as_bytes(std::span(text)));
  EXPECT_EQ(XRDefragStringsFile::read(small.path()), (Map{{"a", "b"}}));
  const std::string padded = text + std::string(XRDefragStringsFile::kSizeLimit, ' ');
  const doubles::ScratchFile large(std::as_bytes(std::span(padded)));
  EXPECT_FALSE(XRDefragStringsFile::read(large.path()));
  EXPECT_FALSE(XRDefragStringsFile::read("/dev/zero"));
  EXPECT_FALSE(XRDefragStringsFile::read("/dev/null"));
  EXPECT_FALSE(XRDefragStringsFile::read("/"));
  EXPECT_FALSE(XRDefragStringsFile::read("/nowhere/at/all"));
  EXPECT_FALSE(XRDefragStringsFile::read(""));
}

TEST(XRDefragStringsFile, DamagedFilesAreHarmless) {
  const unsigned seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  const std::string text =
      xml("<dict><key>a</key><string>b &amp; c</string><key>d</key><array><true/></array></dict>");
  for (const std::string& original : {kSmallBinaryList, text}) {
    for (int round = 0; round < 5'000; ++round) {
      std::string bytes = original;
      for (size_t changes = 1 + random() % 4; changes > 0; --changes) {
        bytes[random() % bytes.size()] = static_cast<char>(random());
      }
      bytes.resize(random() % 4 == 0 ? random() % bytes.size() : bytes.size());
      const auto strings = XRDefragStringsFile::parse(bytes);
      ASSERT_TRUE(!strings || strings->size() <= 2);
    }
  }
}

TEST(XRDefragPropertyListGuard, ModestListsPass) {
  EXPECT_TRUE(XRDefragPropertyListGuard::isModestBinary(kSmallBinaryList));
  EXPECT_FALSE(XRDefragPropertyListGuard::isModestXML(kSmallBinaryList));
  EXPECT_TRUE(XRDefragPropertyListGuard::isModestXML(" \n<plist/>"));
  EXPECT_FALSE(XRDefragPropertyListGuard::isModestBinary("<plist/>"));
}
