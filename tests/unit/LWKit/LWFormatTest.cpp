#include "LWKit/LWFormat.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>

#include "support/doubles/TestRandom.hpp"

TEST(LWFormat, ArgumentsAreTakenInOrderOrByPosition) {
  EXPECT_EQ(LWFormat("%s,%d", "SCAN", 7), "SCAN,7");
  EXPECT_EQ(LWFormat("%2$u of %1$@", "disk", 3U), "3 of disk");
  EXPECT_EQ(LWFormat("%1$@ %1$@", "again"), "again again");
}

TEST(LWFormat, ATranslationMayReorderRepeatAndDropArguments) {
  EXPECT_EQ(LWFormat("%2$lu / %1$llu / %2$lu", uint64_t{9}, 4U), "4 / 9 / 4");
  EXPECT_EQ(LWFormat("nothing", 1, "two"), "nothing");
}

TEST(LWFormat, ASpecifierWithoutArgumentPrintsNothing) {
  EXPECT_EQ(LWFormat("<%s>"), "<>");
  EXPECT_EQ(LWFormat("<%2$s>", "one"), "<>");
  EXPECT_EQ(LWFormat("<%0$s>", "one"), "<%0$s>");
  EXPECT_EQ(LWFormat("<%999999999999999999999$s>", "one"), "<>");
  EXPECT_EQ(LWFormat("%s%s%s", 1), "1");
}

TEST(LWFormat, AMismatchedSpecifierPrintsTheArgumentByItsTrueType) {
  EXPECT_EQ(LWFormat("%d", "text"), "text");
  EXPECT_EQ(LWFormat("%s", 5), "5");
  EXPECT_EQ(LWFormat("%@", std::numeric_limits<uint64_t>::max()), "18446744073709551615");
  EXPECT_EQ(LWFormat("%n"), "%n");
  EXPECT_EQ(LWFormat("%s", 2.5), "2.5");
  EXPECT_EQ(LWFormat("%f", "text"), "text");
  EXPECT_EQ(LWFormat("%x", "text"), "text");
  EXPECT_EQ(LWFormat("%p", "text"), "text");
}

TEST(LWFormat, TheArgumentsOwnWidthDecidesWhateverTheLengthModifier) {
  EXPECT_EQ(LWFormat("%hhu", 70000U), "70000");
  EXPECT_EQ(LWFormat("%X", int32_t{-1}), "FFFFFFFF");
  EXPECT_EQ(LWFormat("%llX", int32_t{-1}), "FFFFFFFF");
  EXPECT_EQ(LWFormat("%d", std::numeric_limits<int64_t>::min()), "-9223372036854775808");
  EXPECT_EQ(LWFormat("%d", std::numeric_limits<uint32_t>::max()), "4294967295");
}

TEST(LWFormat, FlagsWidthAndPrecisionAsInPrintf) {
  EXPECT_EQ(LWFormat("%08X|%5d|%-5d|%+d|%05d", 0xABCU, 42, 42, 42, -42),
            "00000ABC|   42|42   |+42|-0042");
  EXPECT_EQ(LWFormat("%.3f %.03fs %g", 1.5, 0.25, 0.5), "1.500 0.250s 0.5");
  EXPECT_EQ(LWFormat("%.3s|%6s|%-6s|", "abcdef", "abc", "abc"), "abc|   abc|abc   |");
  EXPECT_EQ(LWFormat("%*s|%-*d|", 4, "ab", 4, 7), "  ab|7   |");
  EXPECT_EQ(LWFormat("%c%%%o", 'A', 8U), "A%10");
}

TEST(LWFormat, AnIncompleteSpecifierPrintsItself) {
  EXPECT_EQ(LWFormat("100%", 1), "100%");
  EXPECT_EQ(LWFormat("%1$", "x"), "%1$");
  EXPECT_EQ(LWFormat("%-08.3ll", 1), "%-08.3ll");
  EXPECT_EQ(LWFormat("%!", 1), "%!");
  EXPECT_EQ(LWFormat(""), "");
}

TEST(LWFormat, NoWidthMakesUsAllocateAtWill) {
  EXPECT_LE(LWFormat("%999999999d", 1).size(), 256U);
  EXPECT_LE(LWFormat("%.999999999d", 1).size(), 256U);
  EXPECT_LE(LWFormat("%.999999999f", 1e300).size(), 512U);
  EXPECT_LE(LWFormat("%*d", std::numeric_limits<int32_t>::max(), 1).size(), 256U);
  EXPECT_LE(LWFormat("%*d", std::numeric_limits<int64_t>::min(), 1).size(), 256U);
  EXPECT_LE(LWFormat("%*d", std::numeric_limits<uint64_t>::max(), 1).size(), 256U);
}

TEST(LWFormat, NoRepetitionOfALongArgumentMakesUsAllocateAtWill) {
  const std::string argument(100'000, 'x');
  std::string format;
  for (int count = 0; count < 10'000; ++count) {
    format += "%1$@";
  }
  EXPECT_LE(LWFormat(format, argument).size(), size_t{2} << 20);
  EXPECT_EQ(LWFormat("%@", std::string(4 << 20, 'y')).size(), size_t{4} << 20);
}

TEST(LWFormat, TextMayHoldAnyByte) {
  using namespace std::string_view_literals;
  EXPECT_EQ(LWFormat("%@!"sv, "a\0b\xFF"sv), "a\0b\xFF!"sv);
  EXPECT_EQ(LWFormat("\0%d"sv, 1),
            "\0"
            "1"sv);
}

namespace {

/// A specifier without its argument's place: flags, width and precision.
std::string randomShape(TestRandom& random) {
  std::string shape;
  for (const char flag : {'-', '0', '+'}) {
    shape += random() % 3 == 0 ? std::string(1, flag) : "";
  }
  shape += random() % 2 == 0 ? std::to_string(1 + random() % 30) : "";
  shape += random() % 3 == 0 ? "." + std::to_string(random() % 20) : "";
  return shape;
}

template <typename... Arguments>
std::string printed(const std::string& format, Arguments... arguments) {
  char buffer[512];
  const int length = std::snprintf(buffer, sizeof buffer, format.c_str(), arguments...);
  return std::string(buffer, static_cast<size_t>(length));
}

/// Numbers that are small, large, and at the ends of their types.
uint64_t randomNumber(TestRandom& random) {
  constexpr uint64_t kEnds[] = {
      0, 1, 9, 10, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF, ~uint64_t{0} >> 1, ~uint64_t{0}};
  const uint64_t any = uint64_t{random()} << 32 | random();
  return random() % 2 == 0 ? kEnds[random() % std::size(kEnds)] : any >> random() % 64;
}

}  // namespace

TEST(LWFormat, PrintsWhatPrintfPrintsAndEveryArgumentAtItsPlace) {
  const uint32_t seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  TestRandom random(seed);
  constexpr const char* kWords[] = {"", "a", "some words", "more words than any width has room"};
  for (int round = 0; round < 5000; ++round) {
    const auto number = static_cast<int>(randomNumber(random));
    const auto large = static_cast<unsigned long long>(randomNumber(random));
    const char* word = kWords[random() % std::size(kWords)];
    const double real = (static_cast<double>(random()) - 2e9) * (random() % 2 == 0 ? 1e-9 : 1e9);
    std::string byPosition;
    std::string expected;
    for (uint32_t pieces = 1 + random() % 6; pieces > 0; --pieces) {
      const std::string shape = randomShape(random);
      byPosition += "[";
      expected += "[";
      switch (random() % 4) {
        case 0: {
          const char conversion = "duxXo"[random() % 5];
          byPosition += "%1$" + shape + conversion;
          expected += printed("%" + shape + conversion, number);
          break;
        }
        case 1: {
          const char conversion = "uxXo"[random() % 4];
          byPosition += "%2$" + shape + "ll" + conversion;
          expected += printed("%" + shape + "ll" + conversion, large);
          break;
        }
        case 2:
          byPosition += "%3$" + shape + "s";
          expected += printed("%" + shape + "s", word);
          break;
        default: {
          const char conversion = "feEgG"[random() % 5];
          byPosition += "%4$" + shape + conversion;
          expected += printed("%" + shape + conversion, real);
        }
      }
      byPosition += "]%%";
      expected += "]%";
    }
    ASSERT_EQ(LWFormat(byPosition, number, large, word, real), expected) << byPosition;

    // Arguments in order, their widths and precisions among them.
    const int width = static_cast<int>(random() % 60) - 30;
    const int precision = static_cast<int>(random() % 30) - 10;
    ASSERT_EQ(LWFormat("%*d|%.*s|%*.*llx|%-5u|%@", width, number, precision, word, width, precision,
                       large, 7U, word),
              printed("%*d|%.*s|%*.*llx|%-5u|%s", width, number, precision, word, width, precision,
                      large, 7U, word))
        << width << " " << precision;
  }
}

TEST(LWFormat, AnyFormatIsHarmless) {
  constexpr std::string_view kAlphabet = "%%%%1234567890$*.-+ #'hlqjztdiuxXocsS@pfFeEgGn!";
  const unsigned seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 20'000; ++round) {
    std::string format;
    for (size_t length = random() % 24; length > 0; --length) {
      format += kAlphabet[random() % kAlphabet.size()];
    }
    const std::string result = LWFormat(format, -1, 2U, "three", 4.0, static_cast<void*>(nullptr),
                                        std::numeric_limits<uint64_t>::max());
    ASSERT_LE(result.size(), 24U * 600U) << format;
  }
}
