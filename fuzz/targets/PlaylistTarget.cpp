// The bytes of a boot playlist.

#include <algorithm>

#include "FuzzTargets.hpp"
#include "HFSPlus/HFSPlusBootCachePlaylist.hpp"
#include "HFSPlus/HFSPlusByteOrder.hpp"

namespace fuzz {

namespace {

using Playlist = HFSPlusBootCachePlaylist;

/// What claim() does, the slow way.
void claimNaively(std::vector<Playlist::Range>& ranges, uint32_t block, uint32_t fileID) {
  const auto owner = std::ranges::find_if(ranges, [block](const Playlist::Range& range) {
    return block >= range.startBlock && block - range.startBlock < range.blockCount;
  });
  if (owner != ranges.end()) {
    owner->fileID = fileID;
  }
}

void check(Playlist playlist, uint32_t firstDataBlock, uint32_t totalBlocks) {
  std::vector<Playlist::Range> naive = playlist.ranges();
  FUZZ_CHECK(std::ranges::is_sorted(naive, {}, &Playlist::Range::startBlock),
             "ranges out of order");
  for (const Playlist::Range& range : naive) {
    FUZZ_CHECK(range.blockCount > 0 && range.startBlock >= firstDataBlock &&
                   range.startBlock < totalBlocks &&
                   range.blockCount <= totalBlocks - range.startBlock,
               "a range outside the volume");
  }
  uint32_t fileID = 100;
  for (uint64_t block = 0; block < uint64_t{totalBlocks} + 8; block += 1 + totalBlocks / 97) {
    ++fileID;
    playlist.claim(static_cast<uint32_t>(block), fileID, 0);
    claimNaively(naive, static_cast<uint32_t>(block), fileID);
  }
  for (size_t i = 0; i < naive.size(); ++i) {
    FUZZ_CHECK(playlist.ranges()[i].fileID == naive[i].fileID, "a range of the wrong owner");
  }
  const auto played = playlist.rangesInPlayOrder();
  FUZZ_CHECK(played.size() == naive.size(), "ranges lost in playing");
  FUZZ_CHECK(std::ranges::is_sorted(played, {}, &Playlist::Range::batch), "batches out of order");
}

}  // namespace

/// 12 bytes: block size (as a power of two), first data block, total blocks; then the file.
void runPlaylist(Input input) {
  constexpr size_t kShapeBytes = 12;
  if (input.size() < kShapeBytes) {
    return;
  }
  const auto bytes = std::as_bytes(input);
  const uint32_t blockSize = 512U << readBigEndian<uint32_t>(bytes.data()) % 23;
  const auto firstDataBlock = readBigEndian<uint32_t>(&bytes[4]);
  const auto totalBlocks = readBigEndian<uint32_t>(&bytes[8]);
  if (auto playlist =
          Playlist::parse(bytes.subspan(kShapeBytes), blockSize, firstDataBlock, totalBlocks)) {
    check(*std::move(playlist), firstDataBlock, totalBlocks);
  }
}

}  // namespace fuzz
