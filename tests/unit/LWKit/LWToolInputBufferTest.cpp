#include "LWKit/LWToolInputBuffer.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string_view>
#include <vector>

#include "support/doubles/TestRandom.hpp"

namespace {

using namespace std::string_view_literals;

constexpr const char* kNoText = "(no text)";

void append(LWToolInputBuffer& buffer, std::string_view text) {
  buffer.append(std::as_bytes(std::span(text)));
}

std::vector<std::string> takeAll(LWToolInputBuffer& buffer) {
  std::vector<std::string> pieces;
  while (const auto piece = buffer.next()) {
    pieces.push_back(piece->text.value_or(kNoText));
  }
  return pieces;
}

/// The pieces of a text that arrives in chunks of the sizes that `nextSize` gives.
template <typename NextSize>
std::vector<std::string> piecesOf(std::string_view text, LWToolInputBuffer::Mode mode,
                                  NextSize nextSize) {
  LWToolInputBuffer buffer;
  buffer.setMode(mode);
  std::vector<std::string> pieces;
  while (!text.empty()) {
    const size_t size = std::min<size_t>(nextSize(), text.size());
    append(buffer, text.substr(0, size));
    text.remove_prefix(size);
    const auto taken = takeAll(buffer);
    pieces.insert(pieces.end(), taken.begin(), taken.end());
  }
  return pieces;
}

using Pieces = std::vector<std::string>;

}  // namespace

TEST(LWToolInputBuffer, LinesAreCutAtNewlinesOneAtATime) {
  LWToolInputBuffer buffer;
  EXPECT_FALSE(buffer.next());
  append(buffer, "SCAN\nQUIT\n");
  EXPECT_EQ(buffer.next()->text, "SCAN");
  EXPECT_EQ(buffer.next()->text, "QUIT");
  EXPECT_FALSE(buffer.next());
}

TEST(LWToolInputBuffer, ALineMayArriveInPiecesAndAnUnfinishedOneIsNeverDelivered) {
  LWToolInputBuffer buffer;
  append(buffer, "SC");
  EXPECT_FALSE(buffer.next());
  append(buffer, "AN\nQU");
  EXPECT_EQ(buffer.next()->text, "SCAN");
  EXPECT_FALSE(buffer.next());
  append(buffer, "IT");
  EXPECT_FALSE(buffer.next());
}

TEST(LWToolInputBuffer, AnEmptyLineIsALineAndACarriageReturnIsKept) {
  LWToolInputBuffer buffer;
  append(buffer, "\n\na\r\n");
  EXPECT_EQ(takeAll(buffer), (Pieces{"", "", "a\r"}));
}

TEST(LWToolInputBuffer, ALineThatIsNotUTF8HasNoText) {
  LWToolInputBuffer buffer;
  append(buffer, "a\xFFz\nb\n\xE2\x82\xAC\n");
  EXPECT_EQ(takeAll(buffer), (Pieces{kNoText, "b", "\xE2\x82\xAC"}));
}

TEST(LWToolInputBuffer, ALineMayHoldNulCharacters) {
  LWToolInputBuffer buffer;
  append(buffer, "a\0b\n"sv);
  EXPECT_EQ(buffer.next()->text, "a\0b"sv);
}

TEST(LWToolInputBuffer, CharactersAreCutWhole) {
  LWToolInputBuffer buffer;
  buffer.setMode(LWToolInputBuffer::Mode::Characters);
  append(buffer, "a\n\xE2\x82");
  EXPECT_EQ(takeAll(buffer), (Pieces{"a", "\n"}));
  append(buffer, "\xAC");
  EXPECT_EQ(takeAll(buffer), (Pieces{"\xE2\x82\xAC"}));
}

TEST(LWToolInputBuffer, AByteThatBeginsNoCharacterStandsForItself) {
  LWToolInputBuffer buffer;
  buffer.setMode(LWToolInputBuffer::Mode::Characters);
  append(buffer, "\xBFz\xC3zz\xF8zzzz\xFCzzzzz");
  EXPECT_EQ(takeAll(buffer), (Pieces{"\xC2\xBF", "z", "\xC3\x83", "z", "z", "\xC3\xB8", "z", "z",
                                     "z", "z", "\xC3\xBC", "z", "z", "z", "z", "z"}));
}

TEST(LWToolInputBuffer, AChangeOfModeAppliesToWhatHasNotBeenCutOut) {
  LWToolInputBuffer buffer;
  append(buffer, "ab\ncd\nrest");
  EXPECT_EQ(buffer.next()->text, "ab");
  buffer.setMode(LWToolInputBuffer::Mode::Characters);
  EXPECT_EQ(buffer.next()->text, "c");
  EXPECT_EQ(buffer.next()->text, "d");
  buffer.setMode(LWToolInputBuffer::Mode::Lines);
  EXPECT_EQ(takeAll(buffer), Pieces{""});
  append(buffer, "\n");
  EXPECT_EQ(takeAll(buffer), Pieces{"rest"});
}

TEST(LWToolInputBuffer, ALineOfAMegabyteArrivesWhole) {
  const std::string line(1 << 20, 'x');
  EXPECT_EQ(piecesOf(line + "\n", LWToolInputBuffer::Mode::Lines, [] { return 4096U; }),
            Pieces{line});
}

namespace {

constexpr std::string_view kAlphabet = "ab\n\n\r\0\xE2\x82\xAC\xC3\xFF\xF0\x9F\x98\x80\xED\xF8"sv;

std::string randomText(std::mt19937& random) {
  std::string text;
  for (size_t length = random() % 200; length > 0; --length) {
    text += kAlphabet[random() % kAlphabet.size()];
  }
  return text;
}

/// Bytes of the character at the start of a text; 0 if none begins there that UTF-8 allows.
size_t characterLength(std::string_view text) {
  const auto lead = static_cast<uint8_t>(text.empty() ? 0xFF : text[0]);
  const size_t length = lead < 0x80   ? 1
                        : lead < 0xC2 ? 0
                        : lead < 0xE0 ? 2
                        : lead < 0xF0 ? 3
                        : lead < 0xF5 ? 4
                                      : 0;
  if (length == 0 || length > text.size()) {
    return 0;
  }
  uint32_t value = length == 1 ? lead : lead & (0xFFU >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<uint8_t>(text[i]);
    if (byte >> 6 != 2) {
      return 0;
    }
    value = value << 6 | (byte & 0x3F);
  }
  constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = value >= 0xD800 && value < 0xE000;
  return value >= kLeast[length] && value <= 0x10FFFF && !isSurrogate ? length : 0;
}

bool isText(std::string_view line) {
  while (!line.empty()) {
    const size_t length = characterLength(line);
    if (length == 0) {
      return false;
    }
    line.remove_prefix(length);
  }
  return true;
}

/// Whether the mode changes behind a piece.
bool switchesMode(std::string_view piece) {
  return std::hash<std::string_view>()(piece) % 5 == 0;
}

/// What a stream is cut into, seen as a whole. The mode changes behind some pieces.
Pieces modelPieces(std::string_view text) {
  Pieces pieces;
  for (bool isInLines = true;;) {
    if (isInLines) {
      const size_t newline = text.find('\n');
      if (newline == std::string_view::npos) {
        return pieces;
      }
      const std::string_view line = text.substr(0, newline);
      pieces.emplace_back(isText(line) ? line : kNoText);
      text.remove_prefix(newline + 1);
    } else {
      const auto lead = static_cast<uint8_t>(text.empty() ? 0 : text[0]);
      size_t announced = 1;
      for (const uint32_t bound : {0xC0, 0xE0, 0xF0, 0xF8, 0xFC}) {
        announced += lead >= bound ? 1 : 0;
      }
      if (text.size() < announced) {
        return pieces;
      }
      const size_t length = characterLength(text);
      const std::string asLatin1 = {static_cast<char>(0xC0 | lead >> 6),
                                    static_cast<char>(0x80 | (lead & 0x3F))};
      pieces.push_back(length > 0 ? std::string(text.substr(0, length)) : asLatin1);
      text.remove_prefix(std::max<size_t>(length, 1));
    }
    isInLines ^= switchesMode(pieces.back());
  }
}

}  // namespace

TEST(LWToolInputBuffer, AnySplitAndAnyChangesOfModeGiveThePiecesThatAModelForetells) {
  const unsigned seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 2000; ++round) {
    const std::string text = randomText(random);
    LWToolInputBuffer buffer;
    bool isInLines = true;
    Pieces pieces;
    for (size_t at = 0; at < text.size();) {
      const size_t size = std::min<size_t>(1 + random() % 9, text.size() - at);
      append(buffer, std::string_view(text).substr(at, size));
      at += size;
      while (const auto piece = buffer.next()) {
        pieces.push_back(piece->text.value_or(kNoText));
        isInLines ^= switchesMode(pieces.back());
        buffer.setMode(isInLines ? LWToolInputBuffer::Mode::Lines
                                 : LWToolInputBuffer::Mode::Characters);
      }
    }
    ASSERT_EQ(pieces, modelPieces(text)) << testing::PrintToString(text);
  }
}

TEST(LWToolInputBuffer, HowTheBytesArriveMakesNoDifference) {
  const unsigned seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  for (const auto mode : {LWToolInputBuffer::Mode::Lines, LWToolInputBuffer::Mode::Characters}) {
    for (int round = 0; round < 500; ++round) {
      const std::string text = randomText(random);
      const auto whole = piecesOf(text, mode, [&] { return text.size(); });
      ASSERT_EQ(piecesOf(text, mode, [] { return size_t{1}; }), whole);
      ASSERT_EQ(piecesOf(text, mode, [&] { return 1 + random() % 7; }), whole);
    }
  }
}
