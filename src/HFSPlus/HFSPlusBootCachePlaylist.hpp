#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// The block ranges that a start-up playlist names, and which fork owns each.
///
/// The playlist file lists byte ranges of the volume in the order in which its system reads them
/// while starting, grouped into batches. All numbers are in the byte order that the file's first
/// word shows: magic u32, entry count u32, one unused u32, then entries of 20 bytes (byte offset
/// u64, byte length u64, batch u32).
class HFSPlusBootCachePlaylist {
 public:
  static constexpr size_t kHeaderBytes = 12;
  static constexpr size_t kEntryBytes = 20;
  static constexpr size_t kFileBytesMax = 0x100000;

  struct Range {
    uint32_t startBlock;  // allocation blocks
    uint32_t blockCount;
    uint32_t batch;
    uint32_t fileID = 0;  // 0 until a fork claims the range
    uint8_t forkType = 0;
  };

  /// Reads a playlist; nothing when the bytes are no playlist. Ranges that begin below
  /// `firstDataBlock` or at or beyond `totalBlocks`, and empty ones, are left out.
  [[nodiscard]] static std::optional<HFSPlusBootCachePlaylist> parse(
      std::span<const std::byte> bytes, uint32_t blockSize, uint32_t firstDataBlock,
      uint32_t totalBlocks);

  /// Makes a fork the owner of the range that contains a block, if there is one.
  void claim(uint32_t block, uint32_t fileID, uint8_t forkType);

  /// The ranges by batch, and within a batch by block.
  [[nodiscard]] std::vector<Range> rangesInPlayOrder() const;

  /// The ranges by block.
  const std::vector<Range>& ranges() const { return _ranges; }

 private:
  explicit HFSPlusBootCachePlaylist(std::vector<Range> ranges);

  std::vector<Range> _ranges;
  // For each range the highest end, in blocks, of it and all ranges before it.
  std::vector<uint64_t> _highestEnds;
};
