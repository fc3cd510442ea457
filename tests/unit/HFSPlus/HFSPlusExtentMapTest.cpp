#include "HFSPlus/HFSPlusExtentMap.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/doubles/MemoryBitmapVolume.hpp"
#include "support/doubles/TestRandom.hpp"

namespace {

constexpr HFSPlusExtentInfo kFree{.type = kHFSPlusExtentUnalloced};
constexpr HFSPlusExtentInfo kFixed{.type = kHFSPlusExtentImmutable};
constexpr HFSPlusExtentInfo kData{.type = kHFSPlusExtentAllocated};
constexpr HFSPlusExtentInfo kResource{.forkType = 0xFF, .type = kHFSPlusExtentAllocated};

/// A run as a test writes it down.
struct Run {
  uint32_t start;
  uint32_t count;
  uint32_t cnid;
  HFSPlusExtentInfo info;
  friend bool operator==(const Run&, const Run&) = default;
  friend void PrintTo(const Run& run, std::ostream* out) {
    *out << '{' << run.start << ", " << run.count << ", cnid " << run.cnid << ", info " << std::hex
         << run.info.data() << std::dec << '}';
  }
};
using Runs = std::vector<Run>;

Runs runsOf(const HFSPlusExtentMap& map) {
  Runs runs;
  for (auto run = map.firstEntry(); run; run = map.nextEntry(run->entry)) {
    runs.push_back({run->entry->start, run->count, run->entry->cnid, run->entry->info});
  }
  return runs;
}

std::string messageOf(const Result<>& result) {
  return result ? "no error" : result.error().description();
}

/// A volume that consists of its number of blocks.
MemoryBitmapVolume volumeOf(uint32_t totalBlocks) {
  return MemoryBitmapVolume(totalBlocks, 4096, 0);
}

/// The same map in the plainest form: who owns each block, and where runs begin.
class Model {
 public:
  Model(uint32_t totalBlocks, uint32_t startBlock)
      : _start(startBlock), _cells(totalBlocks, Cell{0, kFree, false}) {
    _cells[startBlock].begins = true;
  }

  bool insert(uint64_t start, uint64_t count, uint32_t cnid, HFSPlusExtentInfo info) {
    uint64_t low = std::max<uint64_t>(start, _start);
    uint64_t high = std::min<uint64_t>(start + count, _cells.size());
    for (uint64_t block = low; block < high; ++block) {
      if (_cells[block].info.type != kHFSPlusExtentUnalloced ||
          (block > low && _cells[block].begins)) {
        return false;
      }
    }
    if (low >= high) {
      return true;
    }
    beginAt(low);
    beginAt(high);
    own(low, high, cnid, info);
    clip();
    return true;
  }

  void deleteBlocks(uint64_t start, uint64_t count) {
    uint64_t block = std::max<uint64_t>(start, _start);
    uint64_t high = std::min<uint64_t>(start + count, _cells.size());
    while (block < high) {
      uint64_t end = block + 1;
      while (end < high && !_cells[end].begins) {
        ++end;
      }
      if (_cells[block].info.type != kHFSPlusExtentUnalloced) {
        beginAt(block);
        beginAt(end);
        own(block, end, 0, kFree);
        for (uint64_t border : {end, block}) {
          if (border > _start && border < _cells.size() && alike(border - 1, border)) {
            _cells[border].begins = false;
          }
        }
      }
      block = end;
    }
  }

  void removeToBlock(uint32_t block) {
    _start = std::clamp(block, _start, static_cast<uint32_t>(_cells.size()));
    beginAt(_start);
  }

  void limit(uint64_t capacity) {
    _capacity = capacity;
    clip();
  }

  Runs runs() const {
    Runs runs;
    for (uint32_t block = _start; block < _cells.size(); ++block) {
      if (_cells[block].begins) {
        runs.push_back({block, 0, _cells[block].cnid, _cells[block].info});
      }
      ++runs.back().count;
    }
    return runs;
  }

 private:
  struct Cell {
    uint32_t cnid;
    HFSPlusExtentInfo info;
    bool begins;
  };

  void beginAt(uint64_t block) {
    if (block < _cells.size()) {
      _cells[block].begins = true;
    }
  }
  void own(uint64_t low, uint64_t high, uint32_t cnid, HFSPlusExtentInfo info) {
    for (uint64_t block = low; block < high; ++block) {
      _cells[block].cnid = cnid;
      _cells[block].info = info;
    }
  }
  bool alike(uint64_t one, uint64_t other) const {
    return _cells[one].cnid == _cells[other].cnid && _cells[one].info == _cells[other].info;
  }
  void clip() {
    while (_capacity != 0 && runs().size() > _capacity) {
      _cells.resize(runs().back().start, Cell{0, kFree, false});
    }
  }

  uint32_t _start;
  std::vector<Cell> _cells;
  uint64_t _capacity = 0;
};

}  // namespace

TEST(HFSPlusExtentMap, AFreshMapIsOneFreeRun) {
  auto volume = volumeOf(1000);
  HFSPlusExtentMap map(volume, 10);
  EXPECT_EQ(runsOf(map), (Runs{{10, 990, 0, kFree}}));
  EXPECT_EQ(map.blockCountForType(kHFSPlusExtentUnalloced), 990U);
  EXPECT_EQ(map.blockCount(), 990U);
  EXPECT_EQ(map.extentCount(), 1U);
  map.validate(false);
}

TEST(HFSPlusExtentMap, AMapThatBeginsAtTheVolumesEndIsEmpty) {
  auto volume = volumeOf(1000);
  for (uint32_t start : {1000U, 1001U, 4294967295U}) {
    HFSPlusExtentMap map(volume, start);
    EXPECT_EQ(map.blockCount(), 0U);
    EXPECT_FALSE(map.firstEntry());
    EXPECT_FALSE(map.findEntry(999));
    EXPECT_TRUE(map.deleteBlocks(0, 4294967295U));
    EXPECT_TRUE(map.removeToBlock(4294967295U));
    EXPECT_TRUE(messageOf(map.insert(5, 5, 20, kData))
                    .starts_with("Internal error: HFSPlus/HFSPlusExtentMap:"));
  }
}

TEST(HFSPlusExtentMap, TheWholeInfoIsOneNumberWithTheTypeOnTop) {
  EXPECT_EQ((HFSPlusExtentInfo{0x1234, 0xFF, kHFSPlusExtentAllocated}.data()), 0x02FF1234U);
}

TEST(HFSPlusExtentMap, InsertingIntoTheMiddleOfAFreeRunMakesThreeRuns) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(40, 10, 20, kData));
  EXPECT_EQ(runsOf(map), (Runs{{0, 40, 0, kFree}, {40, 10, 20, kData}, {50, 50, 0, kFree}}));
  EXPECT_EQ(map.blockCountForType(kHFSPlusExtentAllocated), 10U);
  EXPECT_EQ(map.blockCountForType(kHFSPlusExtentUnalloced), 90U);
}

TEST(HFSPlusExtentMap, InsertingAWholeFreeRunTakesItOver) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(0, 100, 20, kResource));
  EXPECT_EQ(runsOf(map), (Runs{{0, 100, 20, kResource}}));
}

TEST(HFSPlusExtentMap, NeighboursOfOneForkStayApart) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(0, 10, 20, kData));
  ASSERT_TRUE(map.insert(10, 10, 20, kData));
  EXPECT_EQ(runsOf(map), (Runs{{0, 10, 20, kData}, {10, 10, 20, kData}, {20, 80, 0, kFree}}));
}

TEST(HFSPlusExtentMap, ARangeThatStraddlesTheFrontIsCutToTheMap) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 20);
  ASSERT_TRUE(map.insert(10, 15, 30, kData));
  EXPECT_EQ(runsOf(map), (Runs{{20, 5, 30, kData}, {25, 75, 0, kFree}}));
  EXPECT_EQ(map.dataBlockTotal(), 15U);
}

TEST(HFSPlusExtentMap, ARangePastTheEndOnlyCountsAsData) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(100, 7, 30, kData));
  ASSERT_TRUE(map.insert(4294967295U, 9, 30, kData));
  ASSERT_TRUE(map.insert(200, 9, 0, kFixed));
  EXPECT_EQ(runsOf(map), (Runs{{0, 100, 0, kFree}}));
  EXPECT_EQ(map.dataBlockTotal(), 16U);
}

TEST(HFSPlusExtentMap, ARangeBeyondThe32BitsOfABlockNumberIsCutAtTheVolumesEnd) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(90, 4294967295U, 30, kData));
  EXPECT_EQ(runsOf(map), (Runs{{0, 90, 0, kFree}, {90, 10, 30, kData}}));
  EXPECT_EQ(map.dataBlockTotal(), 4294967295U);
  ASSERT_TRUE(map.insert(5, 5, 31, kData));
  EXPECT_EQ(map.dataBlockTotal(), 4294967295U);
  ASSERT_TRUE(map.deleteBlocks(80, 4294967295U));
  EXPECT_EQ(runsOf(map), (Runs{{0, 5, 0, kFree}, {5, 5, 31, kData}, {10, 90, 0, kFree}}));
}

TEST(HFSPlusExtentMap, AnOverlapNamesTheRangeAsCutToTheMap) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 20);
  ASSERT_TRUE(map.insert(30, 10, 40, kFixed));
  Runs before = runsOf(map);
  EXPECT_EQ(messageOf(map.insert(10, 25, 41, kData)),
            "Invalid overlapping extent with start block = 20, block count = 15 and CNID 41.");
  EXPECT_EQ(messageOf(map.insert(35, 1, 42, kData)),
            "Invalid overlapping extent with start block = 35, block count = 1 and CNID 42.");
  EXPECT_EQ(messageOf(map.insert(39, 100, 43, kFixed)),
            "Invalid overlapping extent with start block = 39, block count = 61 and CNID 43.");
  EXPECT_EQ(runsOf(map), before);
  EXPECT_EQ(map.dataBlockTotal(), 26U);
  map.validate(false);
}

TEST(HFSPlusExtentMap, DeletingARunBetweenTwoFreeOnesLeavesOneFreeRun) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(40, 10, 20, kData));
  ASSERT_TRUE(map.deleteBlocks(40, 10));
  EXPECT_EQ(runsOf(map), (Runs{{0, 100, 0, kFree}}));
  EXPECT_EQ(map.extentCount(), 1U);
}

TEST(HFSPlusExtentMap, DeletingTheMiddleOfARunLeavesItsEnds) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(0, 100, 20, kData));
  ASSERT_TRUE(map.deleteBlocks(40, 10));
  EXPECT_EQ(runsOf(map), (Runs{{0, 40, 20, kData}, {40, 10, 0, kFree}, {50, 50, 20, kData}}));
}

TEST(HFSPlusExtentMap, NothingIsInsertedOrDeletedByACountOfZero) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(40, 0, 20, kData));
  ASSERT_TRUE(map.insert(40, 10, 20, kData));
  ASSERT_TRUE(map.insert(45, 0, 20, kData));
  ASSERT_TRUE(map.deleteBlocks(45, 0));
  EXPECT_EQ(map.extentCount(), 3U);
  EXPECT_EQ(map.dataBlockTotal(), 10U);
}

TEST(HFSPlusExtentMap, ABlockIsFoundInItsRunAndNowhereOutsideTheMap) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 10);
  ASSERT_TRUE(map.insert(40, 10, 20, kData));
  EXPECT_EQ(map.findEntry(49)->entry->start, 40U);
  EXPECT_EQ(map.findEntry(49)->count, 10U);
  EXPECT_EQ(map.findEntry(50)->entry->start, 50U);
  EXPECT_EQ(map.findEntry(99)->count, 50U);
  EXPECT_EQ(map.findEntry(10)->count, 30U);
  EXPECT_FALSE(map.findEntry(9));
  EXPECT_FALSE(map.findEntry(100));
  EXPECT_FALSE(map.findEntry(4294967295U));
}

TEST(HFSPlusExtentMap, OnlyTheFirstEntryCanBeRemoved) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(0, 10, 20, kData));
  ASSERT_TRUE(map.insert(10, 10, 21, kData));
  EXPECT_TRUE(messageOf(map.removeEntry(map.findEntry(10)->entry))
                  .starts_with("Internal error: HFSPlus/HFSPlusExtentMap:"));
  ASSERT_TRUE(map.removeEntry(map.firstEntry()->entry));
  EXPECT_EQ(map.startBlock(), 10U);
  EXPECT_EQ(runsOf(map), (Runs{{10, 10, 21, kData}, {20, 80, 0, kFree}}));
  map.validate(false);
}

TEST(HFSPlusExtentMap, RemovingToABlockInsideTheFirstEntryShortensIt) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(0, 10, 20, kData));
  ASSERT_TRUE(map.removeToBlock(4));
  EXPECT_EQ(map.startBlock(), 4U);
  EXPECT_EQ(runsOf(map), (Runs{{4, 6, 20, kData}, {10, 90, 0, kFree}}));
  ASSERT_TRUE(map.removeToBlock(3));
  EXPECT_EQ(map.startBlock(), 4U);
}

TEST(HFSPlusExtentMap, RemovingToABlockBeyondSeveralEntriesRemovesThemAll) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(0, 10, 20, kData));
  ASSERT_TRUE(map.insert(10, 10, 21, kFixed));
  ASSERT_TRUE(map.removeToBlock(20));
  EXPECT_EQ(runsOf(map), (Runs{{20, 80, 0, kFree}}));
  ASSERT_TRUE(map.removeToBlock(500));
  EXPECT_EQ(map.startBlock(), 100U);
  EXPECT_EQ(map.extentCount(), 0U);
  EXPECT_FALSE(map.firstEntry());
  EXPECT_FALSE(map.nextEntry(nullptr));
  map.validate(false);
}

TEST(HFSPlusExtentMap, AMemoryLimitBelowOneEntryStopsTheProcess) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  EXPECT_DEATH(map.limitMemoryUsageTo(32), "");
  EXPECT_DEATH(map.limitMemoryUsageTo(1), "");
}

TEST(HFSPlusExtentMap, AMemoryLimitOf33BytesKeepsTheFirstEntry) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  ASSERT_TRUE(map.insert(10, 10, 20, kData));
  map.limitMemoryUsageTo(33);
  EXPECT_EQ(runsOf(map), (Runs{{0, 10, 0, kFree}}));
  EXPECT_EQ(map.blockCount(), 10U);
  ASSERT_TRUE(map.insert(2, 3, 21, kData));
  EXPECT_EQ(runsOf(map), (Runs{{0, 2, 0, kFree}}));
  map.limitMemoryUsageTo(0);
  ASSERT_TRUE(map.insert(0, 1, 22, kData));
  EXPECT_EQ(runsOf(map), (Runs{{0, 1, 22, kData}, {1, 1, 0, kFree}}));
  map.validate(false);
}

TEST(HFSPlusExtentMap, ATypeBeyondTheThreeStopsTheProcess) {
  auto volume = volumeOf(100);
  HFSPlusExtentMap map(volume, 0);
  EXPECT_DEATH(static_cast<void>(map.blockCountForType(static_cast<HFSPlusExtentType>(3))), "");
  EXPECT_DEATH(static_cast<void>(map.insert(0, 0, 0, {.type = static_cast<HFSPlusExtentType>(3)})),
               "");
}

TEST(HFSPlusExtentMap, TheLargestVolumeHasAllItsBlocksInOrder) {
  auto volume = volumeOf(4294967295U);
  HFSPlusExtentMap map(volume, 1);
  EXPECT_EQ(map.blockCountForType(kHFSPlusExtentUnalloced), 4294967294U);
  ASSERT_TRUE(map.insert(4294967294U, 1, 20, kData));
  ASSERT_TRUE(map.insert(2147483648U, 2, 21, kData));
  ASSERT_TRUE(map.insert(2147483647U, 1, 22, kData));
  ASSERT_TRUE(map.insert(1, 1, 23, kData));
  EXPECT_EQ(runsOf(map), (Runs{{1, 1, 23, kData},
                               {2, 2147483645U, 0, kFree},
                               {2147483647U, 1, 22, kData},
                               {2147483648U, 2, 21, kData},
                               {2147483650U, 2147483644U, 0, kFree},
                               {4294967294U, 1, 20, kData}}));
  EXPECT_EQ(map.findEntry(4294967294U)->entry->cnid, 20U);
  ASSERT_TRUE(map.deleteBlocks(0, 4294967295U));
  EXPECT_EQ(runsOf(map), (Runs{{1, 4294967294U, 0, kFree}}));
  map.validate(false);
}

TEST(HFSPlusExtentMap, AFullMapGivesUpItsHighestBlocksAndStaysInItsMemory) {
  auto volume = volumeOf(2000000);
  HFSPlusExtentMap map(volume, 0);
  for (uint32_t block = 1; block < 1999999; block += 2) {
    ASSERT_TRUE(map.insert(block, 1, 20 + block, kData));
  }
  EXPECT_EQ(map.extentCount(), HFSPlusExtentMap::kDefaultCapacity);
  EXPECT_EQ(map.blockCount(), HFSPlusExtentMap::kDefaultCapacity);
  EXPECT_LE(map.memoryUsage(), 10U << 20);
  EXPECT_EQ(map.findEntry(262143)->entry->cnid, 262163U);
  EXPECT_FALSE(map.findEntry(262144));
  map.validate(false);
}

TEST(HFSPlusExtentMap, BehavesLikeAnArrayOfOwners) {
  for (const uint32_t seed : testSeeds(60)) {
    SCOPED_TRACE(seedText(seed));
    TestRandom random(seed);
    uint32_t total = 50 + random() % 400;
    uint32_t start = random() % 20;
    auto volume = volumeOf(total);
    HFSPlusExtentMap map(volume, start);
    Model model(total, start);
    for (int step = 0; step < 400; ++step) {
      uint32_t block = random() % (total + 20);
      uint32_t count = random() % 12 == 0 ? random() : random() % 25;
      uint32_t kind = random() % 40;
      if (map.extentCount() == 0) {
        break;
      }
      if (kind < 22) {
        HFSPlusExtentInfo info = kind < 5    ? kFixed
                                 : kind < 7  ? kFree
                                 : kind < 12 ? kResource
                                             : kData;
        uint32_t cnid = info == kFree ? 0 : 16 + random() % 3;
        ASSERT_EQ(map.insert(block, count, cnid, info).has_value(),
                  model.insert(block, count, cnid, info));
      } else if (kind < 36) {
        ASSERT_TRUE(map.deleteBlocks(block, count));
        model.deleteBlocks(block, count);
      } else if (kind < 38) {
        uint32_t to = map.startBlock() + random() % 6;
        ASSERT_TRUE(map.removeToBlock(to));
        model.removeToBlock(to);
      } else {
        uint64_t capacity = random() % 3 == 0 ? 0 : map.extentCount() + random() % 20;
        map.limitMemoryUsageTo(capacity == 1 ? 33 : capacity * 32);
        model.limit(capacity);
      }
      ASSERT_EQ(runsOf(map), model.runs());
      ASSERT_EQ(map.extentCount(), model.runs().size());
      map.validate(false);
    }
  }
}
