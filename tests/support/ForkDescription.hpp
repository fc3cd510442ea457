#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "support/ByteWriter.hpp"
#include "support/VolumeFormat.hpp"

namespace support {

/// What a fork shall look like: how long it is, where it lies and what is in it.
struct ForkDescription {
  /// Bytes; need not fill the last block.
  uint64_t logicalSize = 0;
  /// Blocks owned beyond those that `logicalSize` needs.
  uint32_t spareBlocks = 0;
  /// In how many pieces the builder lays the fork, when `extents` is empty. Free space that is
  /// already chopped up, or a fork of fewer blocks, can lead to another number.
  uint32_t fragments = 1;
  /// Exactly where the fork lies, when not empty. Must cover the fork's blocks, neither more nor
  /// less. Neighbours that touch are kept as they are.
  std::vector<BlockExtent> extents;
  /// The bytes themselves (as many as `logicalSize`); without them every sector is stamped.
  std::shared_ptr<const Bytes> literal;
  /// Leaves the blocks unwritten, so that a huge fork takes no room in a sparse image; it then
  /// reads as zeros.
  bool unwritten = false;
  /// Refuses to split the fork: it comes in as many pieces as asked or the volume cannot be built.
  bool unsplittable = false;
  /// Lays the fork among the special files at the front rather than in the data area.
  bool atFront = false;
  /// As many overflow records keyed beyond the fork's last block, which readers must not follow.
  uint32_t strayRecords = 0;
};

/// A fork of stamped sectors in the given number of pieces.
ForkDescription fork(uint64_t logicalSize, uint32_t fragments = 1);

/// A fork of stamped sectors at given places, filling them to the last byte of `logicalSize`.
ForkDescription forkAt(std::vector<BlockExtent> extents, uint64_t logicalSize);

/// A fork with the given text in it.
ForkDescription forkWith(std::string_view text);

/// A fork with the given bytes in it.
ForkDescription forkWith(Bytes bytes);

/// Fills `into` with the bytes that a stamped fork holds from byte `offset` on. Each 512-byte
/// sector opens with a mark, the seed, the file's ID, the fork and the sector's number
/// (big-endian), and goes on with bytes that follow from them, so that a block that has lost its
/// way tells whose it is.
void stampFork(uint64_t seed, uint32_t fileID, uint8_t forkType, uint64_t offset,
               std::span<std::byte> into);

}  // namespace support
