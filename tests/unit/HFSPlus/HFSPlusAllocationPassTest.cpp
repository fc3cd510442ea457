#include "HFSPlus/HFSPlusAllocationPass.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "support/doubles/MemoryBitmapVolume.hpp"
#include "support/doubles/TestRandom.hpp"

namespace {

constexpr uint32_t kChunkBytes = 32768;
constexpr uint32_t kBlocksPerChunk = kChunkBytes * 8;

std::unique_ptr<HFSPlusAllocation> allocationOf(MemoryBitmapVolume& volume) {
  return HFSPlusAllocation::open(volume).value();
}

/// Whether a chunk that the pass shows has the bytes of the volume.
bool showsVolume(HFSPlusAllocationPass& pass, const MemoryBitmapVolume& volume, uint32_t index) {
  const auto bitmap = pass.chunk(index).value();
  return std::ranges::equal(bitmap,
                            std::span(volume.bytes).subspan(index * kChunkBytes, bitmap.size()));
}

}  // namespace

TEST(HFSPlusAllocationPass, ShowsEveryChunkWithFewReads) {
  constexpr uint32_t kChunks = 70;
  MemoryBitmapVolume volume(kChunks * kBlocksPerChunk - 3 * 8 * 4096);
  TestRandom random(1);
  volume.fillRandomly(random, 1000);
  const auto allocation = allocationOf(volume);
  HFSPlusAllocationPass pass(*allocation);
  for (uint32_t index = 0; index < kChunks; ++index) {
    EXPECT_TRUE(showsVolume(pass, volume, index)) << index;
  }
  EXPECT_EQ(pass.chunk(kChunks - 1).value().size(), kChunkBytes - 3 * 4096U);
  EXPECT_EQ(volume.reads, 4U);  // 32, 32 and 5 chunks, and the last one, which is not whole
  EXPECT_FALSE(allocation->isCached(kChunks - 2));
}

TEST(HFSPlusAllocationPass, ShowsWhatTheCacheHasChanged) {
  MemoryBitmapVolume volume(40 * kBlocksPerChunk);
  const auto allocation = allocationOf(volume);
  ASSERT_TRUE(allocation->set(0, 8));
  ASSERT_TRUE(allocation->set(17 * kBlocksPerChunk, 8));
  HFSPlusAllocationPass pass(*allocation);
  for (uint32_t index = 0; index < 40; ++index) {
    const std::byte first = index == 0 || index == 17 ? std::byte{0xFF} : std::byte{0};
    EXPECT_EQ(pass.chunk(index).value()[0], first) << index;
  }
  EXPECT_EQ(volume.reads, 4U);  // two by the cache, and the chunks between and behind
}

TEST(HFSPlusAllocationPass, AChunkThatCannotBeReadLeavesTheOthers) {
  MemoryBitmapVolume volume(40 * kBlocksPerChunk);
  volume.failingFrom = uint64_t{10} * kChunkBytes;
  const auto allocation = allocationOf(volume);
  HFSPlusAllocationPass pass(*allocation);
  for (uint32_t index = 0; index < 10; ++index) {
    EXPECT_TRUE(showsVolume(pass, volume, index)) << index;
  }
  const auto failed = pass.chunk(10);
  ASSERT_FALSE(failed);
  EXPECT_EQ(failed.error().description(), "The device is broken.");
  EXPECT_EQ(volume.reads, 12U);  // all at once, then each of them
}

TEST(HFSPlusAllocationPass, ChunksAsLargeAsAllocationBlocksAreShownWhole) {
  constexpr uint32_t kBlockSize = 2U << 20;
  MemoryBitmapVolume volume(2 * kBlockSize * 8U, kBlockSize);
  volume.setBit(uint64_t{kBlockSize} * 8, true);
  const auto allocation = allocationOf(volume);
  HFSPlusAllocationPass pass(*allocation);
  EXPECT_EQ(pass.chunk(0).value().size(), kBlockSize);
  EXPECT_EQ(pass.chunk(1).value()[0], std::byte{0x80});
}

TEST(HFSPlusAllocationPass, BehindTheLastChunkThereIsNone) {
  MemoryBitmapVolume volume(kBlocksPerChunk);
  const auto allocation = allocationOf(volume);
  HFSPlusAllocationPass pass(*allocation);
  const auto behind = pass.chunk(1);
  ASSERT_FALSE(behind);
  EXPECT_EQ(behind.error().description(), "Allocation chunk 1 is out of range.");
}
