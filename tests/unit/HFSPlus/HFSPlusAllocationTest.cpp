#include "HFSPlus/HFSPlusAllocation.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "support/doubles/MemoryBitmapVolume.hpp"
#include "support/doubles/TestRandom.hpp"

namespace {

constexpr uint32_t kBlocksPerChunk = 32768 * 8;

template <typename T>
std::string messageOf(const Result<T>& result) {
  return result ? "no error" : result.error().description();
}

std::unique_ptr<HFSPlusAllocation> allocationOf(MemoryBitmapVolume& volume) {
  return HFSPlusAllocation::open(volume).value();
}

}  // namespace

TEST(HFSPlusAllocation, ABitmapWithTooFewBitsIsInconsistent) {
  MemoryBitmapVolume exact(80, 512, 10);
  EXPECT_TRUE(HFSPlusAllocation::open(exact));
  MemoryBitmapVolume tooSmall(81, 512, 10);
  EXPECT_EQ(messageOf(HFSPlusAllocation::open(tooSmall)), "Allocation file is inconsistent.");
  MemoryBitmapVolume none(1, 512, 0);
  EXPECT_EQ(messageOf(HFSPlusAllocation::open(none)), "Allocation file is inconsistent.");
}

TEST(HFSPlusAllocation, ChunksAre32KiBOrOneBlock) {
  MemoryBitmapVolume small(1000000, 4096);
  EXPECT_EQ(allocationOf(small)->chunkSize(), 32768U);
  MemoryBitmapVolume large(1000000, 65536);
  EXPECT_EQ(allocationOf(large)->chunkSize(), 65536U);
  EXPECT_EQ(allocationOf(large)->chunkCount(), 2U);
  EXPECT_EQ(allocationOf(large)->chunkIndexFromBlockIndex(524287), 0U);
  EXPECT_EQ(allocationOf(large)->chunkIndexFromBlockIndex(524288), 1U);
}

TEST(HFSPlusAllocation, TheLastChunkIsRoundedUpToWholeBlocks) {
  MemoryBitmapVolume volume(8 * 40000, 4096, 40000);
  auto allocation = allocationOf(volume);
  EXPECT_EQ(allocation->chunkCount(), 2U);
  EXPECT_EQ(allocation->chunkSizeFromChunkIndex(0).value(), 32768U);
  EXPECT_EQ(allocation->chunkSizeFromChunkIndex(1).value(), 8192U);
  EXPECT_EQ(messageOf(allocation->chunkSizeFromChunkIndex(2)),
            "Allocation chunk 2 is out of range.");
  EXPECT_EQ(messageOf(allocation->cachedChunkWithChunkIndex(4294967295U)),
            "Allocation chunk 4294967295 is out of range.");
}

TEST(HFSPlusAllocation, AFileThatEndsInsideABlockIsReadAndWrittenToItsEnd) {
  MemoryBitmapVolume volume(8 * 40000, 4096, 40000);
  std::ranges::fill(volume.bytes, std::byte{0xA5});
  auto allocation = allocationOf(volume);
  ASSERT_TRUE(allocation->set(8 * 39999, 8));
  {
    auto chunk = allocation->cachedChunkWithChunkIndex(1).value();
    EXPECT_EQ(chunk->data()[7230], std::byte{0xA5});
    EXPECT_EQ(chunk->data()[7231], std::byte{0xFF});
    EXPECT_EQ(chunk->data()[7232], std::byte{0});
  }
  ASSERT_TRUE(allocation->flush());
  ASSERT_EQ(volume.held.pieces().size(), 1U);
  EXPECT_EQ(volume.held.pieces().begin()->second.size(), 7232U);
  volume.writeHeld();
  EXPECT_EQ(volume.bytes[39998], std::byte{0xA5});
  EXPECT_EQ(volume.bytes[39999], std::byte{0xFF});
  EXPECT_EQ(volume.bytes[40000], std::byte{0xA5});
}

TEST(HFSPlusAllocation, ARangeBeyondTheFilesBitsChangesNothing) {
  MemoryBitmapVolume volume(800, 512, 100);
  auto allocation = allocationOf(volume);
  EXPECT_EQ(messageOf(allocation->set(800, 1)), "Allocation block 801 is out of range.");
  EXPECT_EQ(messageOf(allocation->clear(0, 801)), "Allocation block 801 is out of range.");
  EXPECT_EQ(messageOf(allocation->isSet(4294967295U, 4294967295U)),
            "Allocation block 8589934590 is out of range.");
  EXPECT_EQ(messageOf(allocation->isClear(799, 2)), "Allocation block 801 is out of range.");
  EXPECT_EQ(volume.toldDeltas, (std::vector<int64_t>{0, 0}));
  EXPECT_EQ(allocation->takeFreeBlockDrift(), 0);
  EXPECT_TRUE(allocation->set(799, 1));
}

TEST(HFSPlusAllocation, BlocksBeyondTheVolumeThatTheFileHasBitsForAreInRange) {
  MemoryBitmapVolume volume(100, 512);
  auto allocation = allocationOf(volume);
  EXPECT_TRUE(allocation->set(4095, 1));
  EXPECT_EQ(messageOf(allocation->set(4096, 1)), "Allocation block 4097 is out of range.");
}

TEST(HFSPlusAllocation, ARangeCrossesChunkBoundaries) {
  MemoryBitmapVolume volume(3 * kBlocksPerChunk, 4096);
  auto allocation = allocationOf(volume);
  ASSERT_TRUE(allocation->set(kBlocksPerChunk - 3, kBlocksPerChunk + 5));
  EXPECT_EQ(volume.toldDeltas, (std::vector<int64_t>{-int64_t{kBlocksPerChunk} - 5}));
  EXPECT_EQ(allocation->isClear(0, 3 * kBlocksPerChunk).value(), kBlocksPerChunk - 3);
  EXPECT_EQ(allocation->isSet(kBlocksPerChunk - 3, 2 * kBlocksPerChunk).value(),
            kBlocksPerChunk + 5);
  EXPECT_EQ(allocation->isSet(kBlocksPerChunk - 1, kBlocksPerChunk + 1).value(),
            kBlocksPerChunk + 1);
  ASSERT_TRUE(allocation->flush());
  EXPECT_EQ(volume.held.pieces().size(), 3U);
  for (const auto& [key, piece] : volume.held.pieces()) {
    EXPECT_EQ(key.offset % 32768, 0U);
    EXPECT_EQ(piece.size(), 32768U);
  }
  volume.writeHeld();
  EXPECT_FALSE(volume.bit(kBlocksPerChunk - 4));
  EXPECT_TRUE(volume.bit(kBlocksPerChunk - 3));
  EXPECT_TRUE(volume.bit(2 * kBlocksPerChunk + 1));
  EXPECT_FALSE(volume.bit(2 * kBlocksPerChunk + 2));
}

TEST(HFSPlusAllocation, SettingASetRangeWritesNothingAndStillLowersTheFreeCount) {
  MemoryBitmapVolume volume(4096, 512);
  std::ranges::fill(volume.bytes, std::byte{0xFF});
  auto allocation = allocationOf(volume);
  ASSERT_TRUE(allocation->set(100, 50));
  EXPECT_EQ(volume.told(), -50);
  ASSERT_TRUE(allocation->flush());
  EXPECT_TRUE(volume.held.empty());
  EXPECT_EQ(allocation->takeFreeBlockDrift(), 50);
  EXPECT_EQ(allocation->takeFreeBlockDrift(), 0);
}

TEST(HFSPlusAllocation, ClearingAClearRangeWritesNothingAndStillRaisesTheFreeCount) {
  MemoryBitmapVolume volume(4096, 512);
  auto allocation = allocationOf(volume);
  ASSERT_TRUE(allocation->clear(100, 50));
  EXPECT_EQ(volume.told(), 50);
  ASSERT_TRUE(allocation->flush());
  EXPECT_TRUE(volume.held.empty());
  EXPECT_EQ(allocation->takeFreeBlockDrift(), -50);
}

TEST(HFSPlusAllocation, ACountOfZeroChangesNothing) {
  MemoryBitmapVolume volume(4096, 512);
  auto allocation = allocationOf(volume);
  EXPECT_TRUE(allocation->set(7, 0));
  EXPECT_TRUE(allocation->clear(4096, 0));
  EXPECT_EQ(allocation->isSet(7, 0).value(), 0U);
  EXPECT_EQ(volume.toldDeltas, (std::vector<int64_t>{0, 0}));
  EXPECT_TRUE(allocation->flush());
  EXPECT_TRUE(volume.held.empty());
}

TEST(HFSPlusAllocation, ARunThatBeginsWithTheOtherKindIsEmpty) {
  MemoryBitmapVolume volume(4096, 512);
  auto allocation = allocationOf(volume);
  ASSERT_TRUE(allocation->set(10, 5));
  EXPECT_EQ(allocation->isSet(9, 100).value(), 0U);
  EXPECT_EQ(allocation->isSet(10, 100).value(), 5U);
  EXPECT_EQ(allocation->isSet(10, 3).value(), 3U);
  EXPECT_EQ(allocation->isClear(10, 100).value(), 0U);
  EXPECT_EQ(allocation->isClear(9, 100).value(), 1U);
  EXPECT_EQ(allocation->isClear(15, 4081).value(), 4081U);
}

TEST(HFSPlusAllocation, AFailureHalfWayLeavesAndTellsWhatWasDone) {
  MemoryBitmapVolume volume(3 * kBlocksPerChunk, 4096);
  auto allocation = allocationOf(volume);
  volume.failingFrom = 32768;
  EXPECT_EQ(messageOf(allocation->set(kBlocksPerChunk - 10, 30)), "The device is broken.");
  EXPECT_EQ(volume.told(), -10);
  EXPECT_EQ(messageOf(allocation->isSet(kBlocksPerChunk - 10, 30)), "The device is broken.");
  EXPECT_EQ(allocation->isSet(kBlocksPerChunk - 10, 10).value(), 10U);
}

TEST(HFSPlusAllocation, ChangesOfEvictedChunksAreHeldForTheFlushAndReadBack) {
  MemoryBitmapVolume volume(40 * kBlocksPerChunk, 4096);
  auto allocation = allocationOf(volume);
  for (uint32_t chunk = 0; chunk < 40; ++chunk) {
    ASSERT_TRUE(allocation->set(chunk * kBlocksPerChunk + chunk, 1));
  }
  EXPECT_EQ(volume.held.pieces().size(), 24U);
  for (uint32_t chunk = 0; chunk < 40; ++chunk) {
    EXPECT_EQ(allocation->isClear(chunk * kBlocksPerChunk, kBlocksPerChunk).value(), chunk);
  }
  EXPECT_FALSE(std::ranges::any_of(volume.bytes, [](std::byte b) { return b != std::byte{0}; }));
  ASSERT_TRUE(allocation->flush());
  volume.writeHeld();
  for (uint64_t chunk = 0; chunk < 40; ++chunk) {
    EXPECT_TRUE(volume.bit(chunk * kBlocksPerChunk + chunk));
  }
}

TEST(HFSPlusAllocation, TheLeastRecentlyUsedIdleChunkLeavesFirst) {
  MemoryBitmapVolume volume(40 * kBlocksPerChunk, 4096);
  auto allocation = allocationOf(volume);
  for (uint32_t chunk = 0; chunk < 16; ++chunk) {
    ASSERT_TRUE(allocation->set(chunk * kBlocksPerChunk, 1));
  }
  EXPECT_TRUE(volume.held.empty());
  ASSERT_TRUE(allocation->isSet(0, 1));
  ASSERT_TRUE(allocation->isSet(30 * kBlocksPerChunk, 1));
  ASSERT_EQ(volume.held.pieces().size(), 1U);
  EXPECT_EQ(volume.held.pieces().begin()->first.offset, 32768U);
}

TEST(HFSPlusAllocation, AHeldChunkStaysInTheCache) {
  MemoryBitmapVolume volume(40 * kBlocksPerChunk, 4096);
  auto allocation = allocationOf(volume);
  auto hold = allocation->cachedChunkWithChunkIndex(0).value();
  auto second = allocation->cachedChunkWithChunkIndex(0).value();
  EXPECT_EQ(&*hold, &*second);
  second.release();
  EXPECT_FALSE(second);
  for (uint32_t chunk = 1; chunk < 40; ++chunk) {
    ASSERT_TRUE(allocation->isSet(chunk * kBlocksPerChunk, 1));
  }
  EXPECT_EQ(&*allocation->cachedChunkWithChunkIndex(0).value(), &*hold);
}

TEST(HFSPlusAllocation, GivingAChunkBackTwiceStopsTheProcess) {
  MemoryBitmapVolume volume(4096, 512);
  auto allocation = allocationOf(volume);
  auto hold = allocation->cachedChunkWithChunkIndex(0).value();
  EXPECT_DEATH(
      {
        hold->cachedChunkRelease();
        hold->cachedChunkRelease();
      },
      "");
}

TEST(HFSPlusAllocation, DiscardingForgetsWhatNoFlushHasWritten) {
  MemoryBitmapVolume volume(4096, 512);
  auto allocation = allocationOf(volume);
  ASSERT_TRUE(allocation->set(10, 5));
  ASSERT_TRUE(allocation->set(10, 3));
  ASSERT_TRUE(allocation->flush());
  volume.writeHeld();
  ASSERT_TRUE(allocation->set(100, 5));
  ASSERT_TRUE(allocation->set(100, 5));
  ASSERT_TRUE(allocation->discardChanges());
  EXPECT_EQ(allocation->isSet(10, 100).value(), 5U);
  EXPECT_EQ(allocation->isSet(100, 100).value(), 0U);
  ASSERT_TRUE(allocation->flush());
  EXPECT_TRUE(volume.held.empty());
  EXPECT_EQ(allocation->takeFreeBlockDrift(), 3);
}

TEST(HFSPlusAllocation, DiscardingWhileAChunkIsHeldStopsTheProcess) {
  MemoryBitmapVolume volume(4096, 512);
  auto allocation = allocationOf(volume);
  auto hold = allocation->cachedChunkWithChunkIndex(0).value();
  EXPECT_DEATH(static_cast<void>(allocation->discardChanges()), "");
}

TEST(HFSPlusAllocation, ReadingThroughReadsEachChunkOnce) {
  MemoryBitmapVolume volume(200 * kBlocksPerChunk, 4096);
  auto allocation = allocationOf(volume);
  for (uint32_t chunk = 0; chunk < 200; ++chunk) {
    ASSERT_TRUE(allocation->cachedChunkWithChunkIndex(chunk));
  }
  EXPECT_EQ(volume.reads, 200U);
}

TEST(HFSPlusAllocation, JumpingAboutReadsOneChunkAtATime) {
  MemoryBitmapVolume volume(200 * kBlocksPerChunk, 4096);
  auto allocation = allocationOf(volume);
  for (uint32_t chunk = 199; chunk >= 150; chunk -= 7) {
    uint64_t before = volume.reads;
    ASSERT_TRUE(allocation->cachedChunkWithChunkIndex(chunk));
    EXPECT_EQ(volume.reads, before + 1);
  }
}

TEST(HFSPlusAllocation, AnUnreadablePieceAheadDoesNotSpoilTheChunksBeforeIt) {
  MemoryBitmapVolume volume(40 * kBlocksPerChunk, 4096);
  volume.failingFrom = 10 * 32768;
  auto allocation = allocationOf(volume);
  for (uint32_t chunk = 0; chunk < 10; ++chunk) {
    EXPECT_TRUE(allocation->cachedChunkWithChunkIndex(chunk)) << chunk;
  }
  EXPECT_EQ(messageOf(allocation->cachedChunkWithChunkIndex(10)), "The device is broken.");
}

TEST(HFSPlusAllocation, AForkThatIsShorterThanItsSizeFailsWithoutHarm) {
  MemoryBitmapVolume volume(80, 512, 10);
  volume.header.allocationFile.logicalSize = 1ULL << 62;
  auto allocation = allocationOf(volume);
  EXPECT_FALSE(allocation->set(0, 80));
  EXPECT_EQ(volume.told(), 0);
  EXPECT_FALSE(allocation->isSet(4294967294U, 1));
}

TEST(HFSPlusAllocation, BehavesLikeAnArrayOfBits) {
  for (const uint32_t seed : testSeeds(12)) {
    SCOPED_TRACE(seedText(seed));
    TestRandom random(seed);
    // Many chunks, so that some leave the cache; ranges gather around a few chunk boundaries.
    uint32_t blocks = 20 * kBlocksPerChunk + random() % kBlocksPerChunk;
    uint32_t blockSize = 512U << random() % 5;
    MemoryBitmapVolume volume(blocks, blockSize);
    volume.fillRandomly(random, 5000);
    std::vector<bool> model(blocks);
    for (uint32_t block = 0; block < blocks; ++block) {
      model[block] = volume.bit(block);
    }
    std::vector<bool> flushed = model;
    auto allocation = allocationOf(volume);
    int64_t real = 0;
    int64_t realAtFlush = 0;
    int64_t told = 0;
    int64_t toldAtFlush = 0;
    for (int step = 0; step < 1500; ++step) {
      uint32_t boundary = (1 + random() % 20) * kBlocksPerChunk;
      uint32_t block = boundary - random() % 300;
      uint32_t count = std::min(blocks - block, static_cast<uint32_t>(random() % 600));
      uint32_t kind = random() % 100;
      if (kind < 40) {
        bool used = kind < 20;
        ASSERT_TRUE(used ? allocation->set(block, count) : allocation->clear(block, count));
        told += used ? -int64_t{count} : int64_t{count};
        for (uint32_t bit = block; bit < block + count; ++bit) {
          real += model[bit] == used ? 0 : used ? -1 : 1;
          model[bit] = used;
        }
      } else if (kind < 95) {
        bool used = kind < 67;
        uint32_t run = 0;
        while (run < count && model[block + run] == used) {
          ++run;
        }
        ASSERT_EQ(
            (used ? allocation->isSet(block, count) : allocation->isClear(block, count)).value(),
            run);
      } else if (kind < 98) {
        ASSERT_TRUE(allocation->flush());
        volume.writeHeld();
        flushed = model;
        realAtFlush = real;
        toldAtFlush = told;
      } else {
        volume.held.clear();
        ASSERT_TRUE(allocation->discardChanges());
        model = flushed;
        real = realAtFlush;
        told = toldAtFlush;
      }
    }
    ASSERT_TRUE(allocation->flush());
    volume.writeHeld();
    EXPECT_EQ(allocation->takeFreeBlockDrift(), real - told);
    for (uint32_t block = 0; block < blocks; ++block) {
      ASSERT_EQ(volume.bit(block), model[block]) << "block " << block;
    }
  }
}
