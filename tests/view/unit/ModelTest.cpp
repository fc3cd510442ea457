#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "model/BitRuns.hpp"
#include "model/FileRanking.hpp"
#include "model/Histogram.hpp"
#include "model/Picture.hpp"
#include "model/RunMeter.hpp"
#include "model/TileMap.hpp"

using namespace view;

namespace {

std::string runsOf(uint64_t bits, std::vector<const char*> lines) {
  std::string text;
  BitRuns runs(bits, [&](BlockRun run, bool isUsed) {
    text +=
        (isUsed ? "+" : "-") + std::to_string(run.start) + ":" + std::to_string(run.count) + " ";
  });
  for (const char* line : lines) {
    EXPECT_TRUE(runs.add(line));
  }
  runs.finish();
  return text;
}

FileEntry fileOf(uint64_t id, uint64_t pieces, uint64_t blocks) {
  return {.id = id, .path = "/" + std::to_string(id), .pieces = pieces, .blocks = blocks};
}

}  // namespace

TEST(ViewBitRunsTest, EqualBitsMakeARunAcrossLines) {
  EXPECT_EQ(runsOf(8, {"E0"}), "+0:3 -3:5 ");
  EXPECT_EQ(runsOf(32, {"00FF", "FF01"}), "-0:8 +8:16 -24:7 +31:1 ");
  EXPECT_EQ(runsOf(6, {"FF"}), "+0:6 ");
  EXPECT_EQ(runsOf(8, {}), "");
}

TEST(ViewBitRunsTest, WhatIsNotHexadecimalIsRefused) {
  BitRuns runs(64, [](BlockRun, bool) {});
  EXPECT_FALSE(runs.add("0G"));
  EXPECT_FALSE(runs.add("ff"));
}

TEST(ViewTileMapTest, BlocksAreCountedByKind) {
  TileMap map(100, 10);
  EXPECT_EQ(map.blocksPerTile(), 16U);
  map.addUsed({0, 40});
  map.addFile({10, 10}, false);
  map.addFile({20, 4}, true);
  const BlockCounts total = map.total();
  EXPECT_EQ(total.contiguous, 10U);
  EXPECT_EQ(total.fragmented, 4U);
  EXPECT_EQ(total.system, 26U);
  EXPECT_EQ(total.free, 60U);
  EXPECT_EQ(map.tile(1).contiguous, 4U);
  EXPECT_EQ(map.tile(6).total(), 4U);
}

TEST(ViewTileMapTest, CellsDivideTheVolumeWithoutRest) {
  std::mt19937 random(7);
  for (int round = 0; round < 50; ++round) {
    TileMap map(1 + random() % 5000, 1 + random() % 300);
    map.addUsed({random() % 1000, random() % 3000});
    map.addFile({random() % 1000, random() % 2000}, round % 2 == 0);
    const size_t cells = 1 + random() % map.tileCount();
    BlockCounts sum;
    for (size_t cell = 0; cell < cells; ++cell) {
      const BlockCounts counts = map.cell(cell, cells);
      EXPECT_GT(counts.total(), 0U);
      sum.contiguous += counts.contiguous;
      sum.fragmented += counts.fragmented;
      sum.system += counts.system;
      sum.free += counts.free;
    }
    EXPECT_EQ(sum.total(), map.blockCount());
    EXPECT_EQ(sum.used(), map.total().used());
    EXPECT_EQ(map.reduced(64).total().used(), map.total().used());
    EXPECT_EQ(map.reduced(64).total().fragmented, map.total().fragmented);
  }
}

TEST(ViewTileMapTest, WhatLiesBeyondTheVolumeIsIgnored) {
  TileMap map(10);
  map.addUsed({8, 100});
  map.addUsed({UINT64_MAX, 5});
  map.addFile({50, 5}, true);
  EXPECT_EQ(map.total().used(), 2U);
  EXPECT_EQ(map.total().total(), 10U);
}

TEST(ViewTileMapTest, ACopyTakesItsBlocksAlong) {
  TileMap map(64, 8);
  map.addUsed({0, 16});
  map.addFile({0, 16}, true);
  map.move({8, 40, 8}, true);
  EXPECT_EQ(map.tile(1).used(), 0U);
  EXPECT_EQ(map.tile(5).contiguous, 8U);
  EXPECT_EQ(map.total().fragmented, 8U);
  map.move({40, 8, 8}, false);
  EXPECT_EQ(map.tile(1).contiguous, 8U);
  EXPECT_EQ(map.total().used(), 16U);
}

TEST(ViewTileMapTest, CopiesThatWereMadeTogetherMayExchangePlaces) {
  TileMap map(32, 4);
  map.addUsed({0, 16});
  map.addFile({0, 16}, false);
  map.move({0, 8, 8}, true);
  map.move({8, 0, 8}, true);
  EXPECT_EQ(map.tile(0).contiguous, 8U);
  EXPECT_EQ(map.tile(1).contiguous, 8U);
  EXPECT_EQ(map.total().used(), 16U);
}

TEST(ViewTileMapTest, MetadataMovesAsMetadata) {
  TileMap map(16, 2);
  map.addUsed({0, 4});
  map.move({0, 8, 4}, true);
  EXPECT_EQ(map.tile(1).system, 4U);
  EXPECT_EQ(map.tile(1).contiguous, 0U);
}

TEST(ViewTileMapTest, TheDominantKindIsWhatMostBlocksAre) {
  EXPECT_EQ((BlockCounts{3, 2, 0, 4}.dominant()), BlockKind::Contiguous);
  EXPECT_EQ((BlockCounts{1, 2, 0, 4}.dominant()), BlockKind::Free);
  EXPECT_EQ((BlockCounts{0, 0, 4, 4}.dominant()), BlockKind::System);
  EXPECT_EQ((BlockCounts{}.dominant()), BlockKind::Free);
}

TEST(ViewHistogramTest, ClassesArePowersOfTwo) {
  Histogram histogram;
  for (const uint64_t value : {0, 1, 2, 3, 4, 5, 8, 9}) {
    histogram.add(value);
  }
  EXPECT_EQ(histogram.total(), 7U);
  EXPECT_EQ(histogram.usedClasses(), 5U);
  EXPECT_EQ(histogram.count(0), 1U);
  EXPECT_EQ(histogram.count(2), 2U);
  EXPECT_EQ(histogram.count(3), 2U);
  EXPECT_EQ(Histogram::label(0), "1");
  EXPECT_EQ(Histogram::label(1), "2");
  EXPECT_EQ(Histogram::label(11), "1,025–2,048");
  histogram.add(UINT64_MAX);
  EXPECT_EQ(histogram.usedClasses(), Histogram::kClasses);
}

TEST(ViewFileRankingTest, KeepsTheBestOfAnyNumber) {
  std::mt19937 random(3);
  std::vector<FileEntry> all;
  FileRanking ranking(FileRanking::By::Pieces, 25);
  for (uint64_t id = 0; id < 2000; ++id) {
    all.push_back(fileOf(id, random() % 40, random() % 40));
    ranking.offer(all.back());
  }
  std::ranges::sort(all, [](const FileEntry& left, const FileEntry& right) {
    return std::tuple(right.pieces, right.blocks, left.path) <
           std::tuple(left.pieces, left.blocks, right.path);
  });
  all.resize(25);
  EXPECT_EQ(ranking.take(), all);
  EXPECT_TRUE(ranking.take().empty());
}

TEST(ViewFileRankingTest, NothingFitsIntoNoRoom) {
  FileRanking ranking(FileRanking::By::Blocks, 0);
  ranking.offer(fileOf(1, 1, 1));
  EXPECT_TRUE(ranking.take().empty());
}

TEST(ViewPictureTest, TheBlockSizeFollowsFromTheDevicesSize) {
  const auto fit = findBlockGeometry(64 << 20, 2048);
  ASSERT_TRUE(fit);
  EXPECT_EQ(fit->blockBytes, 4096U);
  EXPECT_EQ(fit->blocks, 16384U);
  const auto odd = findBlockGeometry(4096 * 16379 + 512, 2048);
  ASSERT_TRUE(odd);
  EXPECT_EQ(odd->blocks, 16379U);
  EXPECT_EQ(findBlockGeometry((64 << 20) + 100000, 2048)->blocks, 16384U);
}

TEST(ViewPictureTest, ABlockSizeThatDoesNotFitIsNotGuessed) {
  EXPECT_FALSE(findBlockGeometry(96 << 20, 2048));
  EXPECT_FALSE(findBlockGeometry(0, 2048));
  EXPECT_FALSE(findBlockGeometry(64 << 20, 0));
  EXPECT_FALSE(findBlockGeometry(64 << 20, UINT64_MAX));
}

TEST(ViewRunMeterTest, RateAndRemainingTimeFollowTheRun) {
  RunMeter meter;
  meter.start(100);
  EXPECT_EQ(meter.remaining(100.5), std::nullopt);
  for (int second = 1; second <= 20; ++second) {
    meter.advance(100 + second, second, 50);
  }
  EXPECT_EQ(meter.blocksMoved(), 1000U);
  EXPECT_EQ(meter.moves(), 20U);
  EXPECT_NEAR(meter.rate(120), 50, 1);
  EXPECT_NEAR(*meter.remaining(120), 80, 0.01);
  EXPECT_NEAR(meter.rate(140), 0, 0.01);  // nothing came for a while
}

TEST(ViewRunMeterTest, ThePercentageNeverGoesBack) {
  RunMeter meter;
  meter.start(0);
  meter.advance(1, 40, 1);
  meter.advance(2, 30, 1);
  EXPECT_EQ(meter.percent(), 40);
}
