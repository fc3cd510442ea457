#include "HFSPlus/HFSPlusBlockRanges.hpp"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "support/doubles/TestRandom.hpp"

namespace {

TEST(HFSPlusBlockRanges, JoinsRangesThatTouch) {
  HFSPlusBlockRanges ranges;
  ranges.add(10, 5);
  ranges.add(20, 5);
  ranges.add(15, 5);
  const auto range = ranges.firstOverlap(12, 1);
  ASSERT_TRUE(range);
  EXPECT_EQ(range->begin, 10U);
  EXPECT_EQ(range->end, 25U);
  EXPECT_TRUE(ranges.contains(10, 15));
  EXPECT_FALSE(ranges.contains(10, 16));
}

TEST(HFSPlusBlockRanges, AgreesWithABitForEveryBlock) {
  const auto seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  constexpr uint64_t kBlocks = 200;
  for (int round = 0; round < 50; ++round) {
    HFSPlusBlockRanges ranges;
    std::vector<bool> bits(kBlocks, false);
    for (int i = 0; i < 30; ++i) {
      const uint64_t begin = random() % (kBlocks - 12);
      const uint64_t count = random() % 12;
      ranges.add(begin, count);
      for (uint64_t b = begin; b < begin + count; ++b) {
        bits[b] = true;
      }
      const uint64_t from = random() % (kBlocks - 20);
      const uint64_t size = random() % 20;
      uint64_t first = from;
      uint64_t set = 0;
      for (uint64_t b = from; b < from + size; ++b) {
        set += bits[b] ? 1 : 0;
        first = set == 0 ? b + 1 : first;
      }
      EXPECT_EQ(ranges.contains(from, size), set == size);
      const auto overlap = ranges.firstOverlap(from, size);
      ASSERT_EQ(overlap.has_value(), set > 0);
      if (overlap) {
        EXPECT_EQ(std::max(overlap->begin, from), first);
        EXPECT_FALSE(bits[overlap->end]);
        EXPECT_TRUE(overlap->begin == 0 || !bits[overlap->begin - 1]);
      }
    }
  }
}

}  // namespace
