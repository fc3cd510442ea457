#include "HFSPlus/HFSPlusBootCachePlaylist.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <random>

#include "support/doubles/TestRandom.hpp"

namespace {

constexpr uint32_t kMagic = 0xA1B2C3D6;
constexpr uint32_t kBlockSize = 4096;
constexpr uint32_t kFirstDataBlock = 10;
constexpr uint32_t kTotalBlocks = 1000;

struct Entry {
  uint64_t offset;
  uint64_t length;
  uint32_t batch;
};

template <typename T>
void append(std::vector<std::byte>& bytes, T value, bool swapped) {
  if (swapped) {
    value = std::byteswap(value);
  }
  const size_t at = bytes.size();
  bytes.resize(at + sizeof value);
  std::memcpy(bytes.data() + at, &value, sizeof value);
}

std::vector<std::byte> playlistFile(const std::vector<Entry>& entries, bool swapped = false) {
  std::vector<std::byte> bytes;
  append<uint32_t>(bytes, kMagic, swapped);
  append<uint32_t>(bytes, static_cast<uint32_t>(entries.size()), swapped);
  append<uint32_t>(bytes, 0, swapped);
  for (const Entry& entry : entries) {
    append(bytes, entry.offset, swapped);
    append(bytes, entry.length, swapped);
    append(bytes, entry.batch, swapped);
  }
  return bytes;
}

std::optional<HFSPlusBootCachePlaylist> parse(const std::vector<std::byte>& bytes) {
  return HFSPlusBootCachePlaylist::parse(bytes, kBlockSize, kFirstDataBlock, kTotalBlocks);
}

/// A byte range of whole blocks.
Entry blocks(uint64_t start, uint64_t count, uint32_t batch = 0) {
  return {start * kBlockSize, count * kBlockSize, batch};
}

TEST(HFSPlusBootCachePlaylist, ReadsBothByteOrdersAlike) {
  for (const bool swapped : {false, true}) {
    const auto playlist = parse(playlistFile({{20 * kBlockSize + 5, kBlockSize, 7}}, swapped));
    ASSERT_TRUE(playlist);
    ASSERT_EQ(playlist->ranges().size(), 1U);
    EXPECT_EQ(playlist->ranges()[0].startBlock, 20U);
    EXPECT_EQ(playlist->ranges()[0].blockCount, 2U) << "the range touches two blocks";
    EXPECT_EQ(playlist->ranges()[0].batch, 7U);
  }
}

TEST(HFSPlusBootCachePlaylist, RefusesAWrongMagicAndCountsThatDoNotFit) {
  auto bytes = playlistFile({blocks(20, 1)});
  EXPECT_TRUE(parse(bytes));
  bytes[0] ^= std::byte{1};
  EXPECT_FALSE(parse(bytes));

  bytes = playlistFile({blocks(20, 1)});
  bytes.pop_back();
  EXPECT_FALSE(parse(bytes)) << "the last entry is cut";
  EXPECT_FALSE(parse(std::vector<std::byte>(11)));
  EXPECT_FALSE(parse(std::vector<std::byte>(HFSPlusBootCachePlaylist::kFileBytesMax + 1)));
}

TEST(HFSPlusBootCachePlaylist, TakesAsManyEntriesAsTheLargestFileHolds) {
  constexpr size_t kMost = (HFSPlusBootCachePlaylist::kFileBytesMax - 12) / 20;
  const auto playlist = parse(playlistFile(std::vector<Entry>(kMost, blocks(20, 1))));
  ASSERT_TRUE(playlist);
  EXPECT_EQ(playlist->ranges().size(), kMost);
}

TEST(HFSPlusBootCachePlaylist, LeavesOutRangesOutsideTheDataArea) {
  const auto playlist = parse(playlistFile({blocks(9, 5),
                                            blocks(20, 0),
                                            blocks(kTotalBlocks, 1),
                                            {~0ULL, ~0ULL, 0},
                                            blocks(999, 1'000'000)}));
  ASSERT_TRUE(playlist);
  ASSERT_EQ(playlist->ranges().size(), 1U);
  EXPECT_EQ(playlist->ranges()[0].startBlock, 999U);
  EXPECT_EQ(playlist->ranges()[0].blockCount, 1U) << "cut at the volume's end";
}

TEST(HFSPlusBootCachePlaylist, OrdersByBatchAndThenByPlace) {
  const auto playlist =
      parse(playlistFile({blocks(50, 1, 2), blocks(40, 1, 2), blocks(30, 1, 1), blocks(60, 1, 1)}));
  ASSERT_TRUE(playlist);
  std::vector<uint32_t> starts;
  for (const auto& range : playlist->rangesInPlayOrder()) {
    starts.push_back(range.startBlock);
  }
  EXPECT_EQ(starts, (std::vector<uint32_t>{30, 60, 40, 50}));
}

TEST(HFSPlusBootCachePlaylist, ALaterClaimReplacesAnEarlierOne) {
  auto playlist = parse(playlistFile({blocks(20, 10)}));
  ASSERT_TRUE(playlist);
  playlist->claim(30, 99, 0);
  EXPECT_EQ(playlist->ranges()[0].fileID, 0U) << "one past the range";
  playlist->claim(20, 16, 0);
  playlist->claim(29, 17, 0xFF);
  EXPECT_EQ(playlist->ranges()[0].fileID, 17U);
  EXPECT_EQ(playlist->ranges()[0].forkType, 0xFF);
}

// Walks the ranges in order and takes the first one that does not end before the block.
TEST(HFSPlusBootCachePlaylist, ClaimsLikeAWalkOverOverlappingRanges) {
  const auto seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  std::vector<Entry> entries;
  for (uint32_t i = 0; i < 40; ++i) {
    entries.push_back(blocks(kFirstDataBlock + random() % 100, 1 + random() % 30, i));
  }
  for (uint32_t block = 0; block < 160; ++block) {
    auto playlist = parse(playlistFile(entries));
    ASSERT_TRUE(playlist);
    std::optional<uint32_t> expected;
    for (const auto& range : playlist->ranges()) {
      if (range.startBlock + range.blockCount > block) {
        if (range.startBlock <= block) {
          expected = range.batch;
        }
        break;
      }
    }
    playlist->claim(block, 16, 0);
    std::optional<uint32_t> claimed;
    for (const auto& range : playlist->ranges()) {
      if (range.fileID != 0) {
        EXPECT_FALSE(claimed) << "one claim takes one range";
        claimed = range.batch;
      }
    }
    EXPECT_EQ(claimed, expected) << "block " << block;
  }
}

}  // namespace
