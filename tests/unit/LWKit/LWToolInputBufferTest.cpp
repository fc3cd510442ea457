#include "LWKit/LWToolInputBuffer.hpp"

#include <gtest/gtest.h>

#include <random>
#include <string_view>
#include <vector>

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

TEST(LWToolInputBuffer, HowTheBytesArriveMakesNoDifference) {
  constexpr std::string_view kAlphabet = "ab\n\n\r\0\xE2\x82\xAC\xC3\xFF\xF0\x9F\x98\x80\xED\xF8"sv;
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (const auto mode : {LWToolInputBuffer::Mode::Lines, LWToolInputBuffer::Mode::Characters}) {
    for (int round = 0; round < 500; ++round) {
      std::string text;
      for (size_t length = random() % 200; length > 0; --length) {
        text += kAlphabet[random() % kAlphabet.size()];
      }
      const auto whole = piecesOf(text, mode, [&] { return text.size(); });
      ASSERT_EQ(piecesOf(text, mode, [] { return size_t{1}; }), whole);
      ASSERT_EQ(piecesOf(text, mode, [&] { return 1 + random() % 7; }), whole);
    }
  }
}
