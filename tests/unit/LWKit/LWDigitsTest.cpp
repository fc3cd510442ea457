#include "LWKit/LWDigits.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <limits>
#include <string>

#include "support/doubles/TestRandom.hpp"

namespace {

template <typename Number>
std::string decimal(Number number) {
  std::array<char, kLWDecimalBytes> text;
  return {text.data(), LWPutDecimal(text.data(), number)};
}

std::string hexadecimal(uint32_t number) {
  std::array<char, kLWHexadecimalBytes> text;
  return {text.data(), LWPutHexadecimal(text.data(), number)};
}

std::string plainHexadecimal(uint32_t number) {
  std::array<char, 9> text;
  std::snprintf(text.data(), text.size(), "%08X", number);
  return text.data();
}

TEST(LWDigits, NumbersOfEveryLengthHaveTheirDigitsOnly) {
  for (uint64_t power = 1; power <= 1'000'000'000'000'000'000; power *= 10) {
    for (const int64_t number : {static_cast<int64_t>(power - 1), static_cast<int64_t>(power),
                                 static_cast<int64_t>(power + power / 2)}) {
      EXPECT_EQ(decimal(number), std::to_string(number));
      EXPECT_EQ(decimal(-number), std::to_string(-number));
      if (number <= UINT32_MAX) {
        EXPECT_EQ(decimal(static_cast<uint32_t>(number)), std::to_string(number));
      }
    }
  }
}

TEST(LWDigits, TheLimitsAreWrittenInFull) {
  EXPECT_EQ(decimal(uint32_t{0}), "0");
  EXPECT_EQ(decimal(int64_t{0}), "0");
  EXPECT_EQ(decimal(UINT32_MAX), "4294967295");
  EXPECT_EQ(decimal(std::numeric_limits<int64_t>::max()), "9223372036854775807");
  EXPECT_EQ(decimal(std::numeric_limits<int64_t>::min()), "-9223372036854775808");
}

TEST(LWDigits, HexadecimalNumbersHaveEightUppercaseDigits) {
  EXPECT_EQ(hexadecimal(0), "00000000");
  EXPECT_EQ(hexadecimal(0x01234567), "01234567");
  EXPECT_EQ(hexadecimal(0x89ABCDEF), "89ABCDEF");
  EXPECT_EQ(hexadecimal(UINT32_MAX), "FFFFFFFF");
}

TEST(LWDigits, RandomNumbersReadAsTheLibraryWritesThem) {
  const auto seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  TestRandom random(seed);
  for (int round = 0; round < 200'000; round++) {
    const uint32_t number = random() >> random() % 32;
    const auto wide = static_cast<int64_t>((uint64_t{random()} << 32 | random()) >> random() % 64);
    ASSERT_EQ(decimal(number), std::to_string(number));
    ASSERT_EQ(decimal(wide), std::to_string(wide));
    ASSERT_EQ(hexadecimal(number), plainHexadecimal(number));
  }
}

}  // namespace
