#include "HFSPlus/HFSPlusBitmapBits.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "support/doubles/TestRandom.hpp"

namespace {

bool bitOf(const std::vector<std::byte>& bitmap, uint64_t index) {
  return (std::to_integer<unsigned>(bitmap[index / 8]) >> (7 - index % 8) & 1) != 0;
}

}  // namespace

TEST(HFSPlusBitmapBits, TheFirstBitIsTheMostSignificantOfTheFirstByte) {
  std::vector<std::byte> bitmap(9);
  EXPECT_EQ(HFSPlusSetBits(bitmap, 0, 1), 1U);
  EXPECT_EQ(bitmap[0], std::byte{0x80});
  EXPECT_EQ(HFSPlusSetBits(bitmap, 63, 3), 3U);
  EXPECT_EQ(bitmap[7], std::byte{0x01});
  EXPECT_EQ(bitmap[8], std::byte{0xC0});
}

TEST(HFSPlusBitmapBits, ARangeOutsideTheBitmapStopsTheProcess) {
  std::vector<std::byte> bitmap(9);
  EXPECT_DEATH(static_cast<void>(HFSPlusSetBits(bitmap, 72, 1)), "");
  EXPECT_DEATH(static_cast<void>(HFSPlusSetRun(bitmap, 1, UINT64_MAX)), "");
}

TEST(HFSPlusBitmapBits, FullWordsAreCountedInFull) {
  std::vector<std::byte> bitmap(100 * 8, std::byte{0xFF});
  for (uint64_t words = 0; words <= 100; ++words) {
    EXPECT_EQ(HFSPlusCountSetBits(bitmap, 0, words * 64), words * 64);
  }
}

TEST(HFSPlusBitmapBits, EveryOperationDoesWhatALoopOverTheBitsDoes) {
  for (const uint32_t seed : testSeeds(4000)) {
    SCOPED_TRACE(seedText(seed));
    TestRandom random(seed);
    std::vector<std::byte> bitmap(1 + random() % 600);
    uint32_t density = random() % 4;
    for (auto& byte : bitmap) {
      byte = density == 0   ? std::byte{0}
             : density == 1 ? std::byte{0xFF}
                            : static_cast<std::byte>(random());
    }
    if (density < 2) {
      bitmap[random() % bitmap.size()] ^= static_cast<std::byte>(random());
    }
    uint64_t bits = bitmap.size() * 8;
    uint64_t first = random() % (bits + 1);
    uint64_t count = random() % (bits - first + 1);
    uint64_t setRun = 0;
    uint64_t clearRun = 0;
    uint64_t ones = 0;
    std::optional<uint64_t> last;
    while (setRun < count && bitOf(bitmap, first + setRun)) {
      ++setRun;
    }
    while (clearRun < count && !bitOf(bitmap, first + clearRun)) {
      ++clearRun;
    }
    for (uint64_t bit = first; bit < first + count; ++bit) {
      ones += bitOf(bitmap, bit) ? 1 : 0;
    }
    for (uint64_t bit = 0; bit < count; ++bit) {
      last = bitOf(bitmap, bit) ? bit : last;
    }
    EXPECT_EQ(HFSPlusSetRun(bitmap, first, count), setRun);
    EXPECT_EQ(HFSPlusClearRun(bitmap, first, count), clearRun);
    EXPECT_EQ(HFSPlusCountSetBits(bitmap, first, count), ones);
    EXPECT_EQ(HFSPlusLastSetBit(bitmap, count), last);

    std::vector<std::byte> before = bitmap;
    bool used = random() % 2 == 0;
    uint64_t changed =
        used ? HFSPlusSetBits(bitmap, first, count) : HFSPlusClearBits(bitmap, first, count);
    EXPECT_EQ(changed, used ? count - ones : ones);
    for (uint64_t bit = 0; bit < bits; ++bit) {
      bool inside = bit >= first && bit < first + count;
      ASSERT_EQ(bitOf(bitmap, bit), inside ? used : bitOf(before, bit)) << "bit " << bit;
    }
  }
}
