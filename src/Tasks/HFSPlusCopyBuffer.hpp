#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "Platform/PlatformPages.hpp"
#include "XRDefragError.hpp"

/// The memory through which a run copies blocks; one allocation for the whole run, in pages of
/// its own, so that transfers to and from it can bypass the system's cache.
class HFSPlusCopyBuffer {
 public:
  /// Bytes for a machine with so much memory: a sixteenth of it, at most 64 MiB.
  static uint64_t sizeForMemory(std::optional<uint64_t> physicalMemoryBytes);

  /// A buffer of at least one block. Fails with "Out of memory.".
  [[nodiscard]] static Result<HFSPlusCopyBuffer> open(uint64_t bytes, uint32_t blockSize);

  /// Bytes a block.
  uint32_t blockSize() const { return _blockSize; }
  /// Blocks that fit.
  uint32_t blockCount() const { return _copyBufferBlocks; }
  /// Part of the buffer, in blocks.
  std::span<std::byte> blocks(uint32_t first, uint32_t count) const {
    return {_copyBufferData.get() + uint64_t{first} * _blockSize, uint64_t{count} * _blockSize};
  }

 private:
  HFSPlusCopyBuffer(PlatformPages data, uint32_t blockCount, uint32_t blockSize)
      : _copyBufferData(std::move(data)), _copyBufferBlocks(blockCount), _blockSize(blockSize) {}

  PlatformPages _copyBufferData;
  uint32_t _copyBufferBlocks;
  uint32_t _blockSize;
};
