#include "LWKit/LWStringUtilities.hpp"

#include <gtest/gtest.h>

#include <limits>

#include "support/doubles/TestRandom.hpp"

using Words = std::vector<std::string>;

TEST(LWStringUtilities, ALineIsSplitAtRunsOfBlanksAndTabs) {
  EXPECT_EQ(LWTrimmedComponents("  MAP   --cnid 16 "), (Words{"MAP", "--cnid", "16"}));
  EXPECT_EQ(LWTrimmedComponents("\tMAP\t \tx"), (Words{"MAP", "x"}));
  EXPECT_EQ(LWTrimmedComponents(""), Words{});
  EXPECT_EQ(LWTrimmedComponents(" \t "), Words{});
  EXPECT_EQ(LWTrimmedComponents("one"), Words{"one"});
}

TEST(LWStringUtilities, NothingElseSeparatesWords) {
  EXPECT_EQ(LWTrimmedComponents("a\r b\\ \"c d\""), (Words{"a\r", "b\\", "\"c", "d\""}));
}

TEST(LWStringUtilities, TheFirstComponentIsTheCommand) {
  EXPECT_EQ(LWFirstComponent("  scan   --frag-only"), "scan");
  EXPECT_EQ(LWFirstComponent("\tQUIT"), "QUIT");
  EXPECT_EQ(LWFirstComponent("QUIT"), "QUIT");
  EXPECT_EQ(LWFirstComponent("  \t "), "");
  EXPECT_EQ(LWFirstComponent(""), "");
}

TEST(LWStringUtilities, PrettySizesHaveBinaryUnits) {
  EXPECT_EQ(LWPrettySize(0), "0B");
  EXPECT_EQ(LWPrettySize(512), "512B");
  EXPECT_EQ(LWPrettySize(1023), "1023B");
  EXPECT_EQ(LWPrettySize(1024), "1KiB");
  EXPECT_EQ(LWPrettySize(1536), "1.5KiB");
  EXPECT_EQ(LWPrettySize(1048576), "1MiB");
  EXPECT_EQ(LWPrettySize(1073741824), "1GiB");
  EXPECT_EQ(LWPrettySize(uint64_t{5} << 40), "5120GiB");
}

TEST(LWStringUtilities, PrettyFractionsAreTruncatedAndLoseTheirLeadingZeros) {
  EXPECT_EQ(LWPrettySize(1025), "1KiB");         // 0 thousandths
  EXPECT_EQ(LWPrettySize(1024 + 52), "1.5KiB");  // 50 thousandths
  EXPECT_EQ(LWPrettySize(1024 + 10), "1.9KiB");  // 9 thousandths
  EXPECT_EQ(LWPrettySize(1024 + 256), "1.25KiB");
  EXPECT_EQ(LWPrettySize(1024 + 128), "1.125KiB");
  EXPECT_EQ(LWPrettySize(1048575), "1023.999KiB");
  EXPECT_EQ(LWPrettySize(std::numeric_limits<uint64_t>::max()), "17179869183.999GiB");
}

TEST(LWStringUtilities, PrettySizesAreWhatDivisionByHandGives) {
  const uint32_t seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  TestRandom random(seed);
  for (int round = 0; round < 20'000; ++round) {
    const uint64_t any = (uint64_t{random()} << 32 | random()) >> random() % 64;
    const uint64_t whole = any >> random() % 64 << 10 * (random() % 4);
    const uint64_t bytes = random() % 2 == 0 ? any : whole + random() % 3 - random() % 3;
    uint64_t unit = 1;
    const char* name = "B";
    for (const char* larger : {"KiB", "MiB", "GiB"}) {
      if (bytes / unit >= 1024) {
        unit *= 1024;
        name = larger;
      }
    }
    std::string digits;
    for (uint64_t rest = bytes % unit; digits.size() < 3; rest = rest * 10 % unit) {
      digits += static_cast<char>('0' + rest * 10 / unit);
    }
    while (!digits.empty() && digits.back() == '0') {
      digits.pop_back();
    }
    digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size()));
    ASSERT_EQ(LWPrettySize(bytes),
              std::to_string(bytes / unit) + (digits.empty() ? "" : ".") + digits + name)
        << bytes;
  }
}

TEST(LWStringUtilities, IntegersAreScannedFromTheStart) {
  EXPECT_EQ(LWScanInteger("16"), 16);
  EXPECT_EQ(LWScanInteger(" \t-7 apples"), -7);
  EXPECT_EQ(LWScanInteger("+8"), 8);
  EXPECT_EQ(LWScanInteger("12.9"), 12);
  EXPECT_EQ(LWScanInteger("0x10"), 0);
  EXPECT_FALSE(LWScanInteger(""));
  EXPECT_FALSE(LWScanInteger("-"));
  EXPECT_FALSE(LWScanInteger("- 1"));
  EXPECT_FALSE(LWScanInteger("abc"));
}

TEST(LWStringUtilities, IntegersBeyondTheLimitsBecomeTheLimits) {
  EXPECT_EQ(LWScanInteger("9223372036854775807"), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(LWScanInteger("9223372036854775808"), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(LWScanInteger("99999999999999999999999"), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(LWScanInteger("-9223372036854775808"), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(LWScanInteger("-99999999999999999999999"), std::numeric_limits<int64_t>::min());
}

TEST(LWStringUtilities, RealNumbersAreScannedFromTheStart) {
  EXPECT_EQ(LWScanDouble("2.5s"), 2.5);
  EXPECT_EQ(LWScanDouble("  .5"), 0.5);
  EXPECT_EQ(LWScanDouble("3."), 3.0);
  EXPECT_EQ(LWScanDouble("1e2x"), 100.0);
  EXPECT_EQ(LWScanDouble("1e"), 1.0);
  EXPECT_EQ(LWScanDouble("1e+"), 1.0);
  EXPECT_EQ(LWScanDouble("+4"), 4.0);
  EXPECT_EQ(LWScanDouble("-1.5"), -1.5);
  EXPECT_EQ(LWScanDouble("0x10"), 0.0);
}

TEST(LWStringUtilities, NamesAndBareSignsAreNoNumbers) {
  for (const char* text : {"", " ", "abc", "inf", "nan", "-inf", ".", "-.", "e5", "--1", "+-1"}) {
    EXPECT_FALSE(LWScanDouble(text)) << text;
  }
}

TEST(LWStringUtilities, RealNumbersBeyondTheLimitsBecomeTheLargestOrZero) {
  const std::string zeros(400, '0');
  EXPECT_EQ(LWScanDouble("1e999"), std::numeric_limits<double>::max());
  EXPECT_EQ(LWScanDouble("-1e999"), -std::numeric_limits<double>::max());
  EXPECT_EQ(LWScanDouble(std::string(400, '9')), std::numeric_limits<double>::max());
  EXPECT_EQ(LWScanDouble("1" + zeros), std::numeric_limits<double>::max());
  EXPECT_EQ(LWScanDouble("1" + zeros + "e-12"), std::numeric_limits<double>::max());
  EXPECT_EQ(LWScanDouble("1e99999999999999999999"), std::numeric_limits<double>::max());
  EXPECT_EQ(LWScanDouble("-0." + zeros + "1e900"), -std::numeric_limits<double>::max());
  EXPECT_EQ(LWScanDouble("1e-999"), 0.0);
  EXPECT_EQ(LWScanDouble("0." + zeros + "1"), 0.0);
  EXPECT_EQ(LWScanDouble("0." + zeros + "1e12"), 0.0);
  EXPECT_EQ(LWScanDouble("1e-99999999999999999999"), 0.0);
  EXPECT_EQ(LWScanDouble("0.0e999"), 0.0);
}

TEST(LWStringUtilities, OnlyLettersOfASCIIBecomeUpperCase) {
  EXPECT_EQ(LWUppercaseASCII("sCan-1 \xC3\xA4\xC4\xB1"), "SCAN-1 \xC3\xA4\xC4\xB1");
}
