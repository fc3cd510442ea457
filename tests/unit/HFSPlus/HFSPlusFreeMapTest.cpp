#include "HFSPlus/HFSPlusFreeMap.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "support/doubles/MemoryBitmapVolume.hpp"
#include "support/doubles/TestRandom.hpp"

namespace {

using Entries = std::vector<HFSPlusFreeMapEntry>;

Entries entriesOf(const HFSPlusFreeMap& map) {
  Entries entries;
  for (auto entry = map.firstEntry(); entry != nullptr; entry = map.nextEntry(entry)) {
    entries.push_back(*entry);
  }
  return entries;
}

/// A volume of 4096 blocks that are all in use but some.
class FreeMapOf {
 public:
  explicit FreeMapOf(const Entries& freeRuns) {
    std::ranges::fill(volume.bytes, std::byte{0xFF});
    for (const auto& run : freeRuns) {
      for (uint32_t block = run.start; block < run.start + run.count; ++block) {
        volume.setBit(block, false);
      }
    }
    allocation = HFSPlusAllocation::open(volume).value();
  }
  Result<std::unique_ptr<HFSPlusFreeMap>> open(uint32_t start, uint32_t desired,
                                               uint32_t capacity) {
    return HFSPlusFreeMap::open(volume, *allocation, start, desired, capacity);
  }

  MemoryBitmapVolume volume{4096, 512};
  std::unique_ptr<HFSPlusAllocation> allocation;
};

}  // namespace

TEST(HFSPlusFreeMap, AWishThatOnlyTheLastRunFulfilsScansToTheEnd) {
  FreeMapOf bitmap({{10, 3}, {20, 5}, {4000, 96}});
  auto map = bitmap.open(0, 90, 0).value();
  EXPECT_EQ(entriesOf(*map), (Entries{{4000, 96}, {20, 5}, {10, 3}}));
  EXPECT_EQ(map->blockCount(), 104U);
}

TEST(HFSPlusFreeMap, ARunThatIsLargeEnoughEndsTheScan) {
  FreeMapOf bitmap({{10, 3}, {20, 5}, {30, 6}});
  EXPECT_EQ(entriesOf(*bitmap.open(0, 5, 0).value()), (Entries{{20, 5}, {10, 3}}));
  EXPECT_EQ(entriesOf(*bitmap.open(0, 3, 0).value()), (Entries{{10, 3}}));
  EXPECT_EQ(entriesOf(*bitmap.open(0, 0, 0).value()), (Entries{{10, 3}}));
  EXPECT_EQ(entriesOf(*bitmap.open(12, 0, 0).value()), (Entries{{12, 1}}));
}

TEST(HFSPlusFreeMap, AmongEqualRunsTheLowestIsTakenFirst) {
  FreeMapOf bitmap({{50, 4}, {10, 4}, {30, 4}});
  auto map = bitmap.open(0, 100, 0).value();
  for (uint32_t start : {10U, 30U, 50U}) {
    EXPECT_EQ(map->allocate(4).value(), (HFSPlusExtentDescriptor{start, 4}));
  }
  EXPECT_EQ(map->allocate(4).error().description(), "The amount of free space is insufficient.");
}

TEST(HFSPlusFreeMap, AWishBeyondTheLargestRunGetsAllOfIt) {
  FreeMapOf bitmap({{50, 4}});
  auto map = bitmap.open(0, 100, 0).value();
  EXPECT_EQ(map->allocate(10).value(), (HFSPlusExtentDescriptor{50, 4}));
  EXPECT_EQ(map->entryCount(), 0U);
  EXPECT_EQ(map->blockCount(), 0U);
}

TEST(HFSPlusFreeMap, AWishWithinTheLargestRunTakesItsFront) {
  FreeMapOf bitmap({{50, 16}});
  auto map = bitmap.open(0, 100, 0).value();
  EXPECT_EQ(map->allocate(10).value(), (HFSPlusExtentDescriptor{50, 10}));
  EXPECT_EQ(entriesOf(*map), (Entries{{60, 6}}));
  EXPECT_EQ(map->blockCount(), 6U);
}

TEST(HFSPlusFreeMap, ACapacityOfOneKeepsTheLargestRunSoFar) {
  FreeMapOf bitmap({{10, 3}, {20, 5}, {30, 4}, {40, 5}});
  EXPECT_EQ(entriesOf(*bitmap.open(0, 100, 1).value()), (Entries{{20, 5}}));
  EXPECT_EQ(entriesOf(*bitmap.open(28, 100, 1).value()), (Entries{{40, 5}}));
}

TEST(HFSPlusFreeMap, AStartBeyondTheVolumeIsRefused) {
  FreeMapOf bitmap({{10, 3}});
  EXPECT_EQ(bitmap.open(4096, 1, 0).error().description(),
            "Invalid allocation bitmap block = 4096.");
  EXPECT_EQ(bitmap.open(4294967295U, 1, 0).error().description(),
            "Invalid allocation bitmap block = 4294967295.");
  EXPECT_TRUE(bitmap.open(4095, 1, 0));
}

TEST(HFSPlusFreeMap, AFullVolumeGivesAnEmptyMap) {
  FreeMapOf bitmap({});
  auto map = bitmap.open(0, 1, 0).value();
  EXPECT_EQ(map->firstEntry(), nullptr);
  EXPECT_EQ(map->nextEntry(nullptr), nullptr);
}

TEST(HFSPlusFreeMap, TheBitmapsErrorEndsTheScan) {
  FreeMapOf bitmap({});
  bitmap.volume.failingFrom = 0;
  EXPECT_EQ(bitmap.open(0, 1, 0).error().description(), "The device is broken.");
}

TEST(HFSPlusFreeMap, RunsOfAnySizeStandInTheirOrder) {
  FreeMapOf bitmap({{0, 1}});
  auto map = bitmap.open(0, 0, 0).value();
  ASSERT_TRUE(map->insert(7, 4294967000U));
  ASSERT_TRUE(map->insert(5, 2147483649U));
  ASSERT_TRUE(map->insert(4294967295U, 1));
  EXPECT_EQ(entriesOf(*map),
            (Entries{{7, 4294967000U}, {5, 2147483649U}, {0, 1}, {4294967295U, 1}}));
}

TEST(HFSPlusFreeMap, BehavesLikeASortedList) {
  for (const uint32_t seed : testSeeds(40)) {
    SCOPED_TRACE(seedText(seed));
    TestRandom random(seed);
    FreeMapOf bitmap({});
    bitmap.volume.fillRandomly(random, 1 + random() % 60);
    uint32_t start = random() % 4096;
    uint32_t desired = random() % 80;
    uint32_t capacity = random() % 3 == 0 ? 0 : 1 + random() % 30;
    auto map = bitmap.open(start, desired, capacity).value();

    auto sort = [](Entries& entries) {
      std::ranges::sort(entries, [](const auto& one, const auto& other) {
        return one.count != other.count ? one.count > other.count : one.start < other.start;
      });
    };
    Entries model;
    for (uint32_t block = start; block < 4096;) {
      uint32_t end = block;
      while (end < 4096 && bitmap.volume.bit(end) == bitmap.volume.bit(block)) {
        ++end;
      }
      if (!bitmap.volume.bit(block)) {
        model.push_back({block, end - block});
        sort(model);
        if (capacity != 0 && model.size() > capacity) {
          model.pop_back();
        }
        if (model.front().count >= desired) {
          break;
        }
      }
      block = end;
    }
    ASSERT_EQ(entriesOf(*map), model);

    while (!model.empty()) {
      uint32_t wish = 1 + random() % 50;
      HFSPlusFreeMapEntry largest = model.front();
      model.erase(model.begin());
      uint32_t given = std::min(wish, largest.count);
      if (given < largest.count) {
        model.push_back({largest.start + given, largest.count - given});
        sort(model);
      }
      ASSERT_EQ(map->allocate(wish).value(), (HFSPlusExtentDescriptor{largest.start, given}));
      ASSERT_EQ(entriesOf(*map), model);
    }
    EXPECT_FALSE(map->allocate(1));
  }
}

TEST(HFSPlusFreeMapDeathTest, ADumpListsTheLargestRunFirst) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // In a process of its own, whose log the variable opens.
  EXPECT_EXIT(
      {
        ::setenv("LWDebugLevel", "debug", 1);
        FreeMapOf bitmap({{10, 3}, {4000, 96}});
        bitmap.open(0, 99, 0).value()->dump();
        bitmap.allocation->dump(8, 8);
        std::exit(0);
      },
      testing::ExitedWithCode(0),
      ": --------\n.*: entry count: 2 .*: block count: 99 \\(49.5KiB\\)\n"
      ".*: count = 00000060, start = 00000FA0 \\(48KiB\\)\n"
      ".*: count = 00000003, start = 0000000A \\(1.5KiB\\)\n.*: 11000111\n");
}
