#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "Platform/PlatformPages.hpp"

/// Looks at the chunks of the bitmap from one end to the other. Those that are not in the cache are
/// read many at a time, and do not enter it: one by one, asking for them takes as long as copying
/// them.
class HFSPlusAllocationPass {
 public:
  /// The allocation file must outlive the pass, and not change while there is one.
  explicit HFSPlusAllocationPass(HFSPlusAllocation& allocation) : _allocation(allocation) {}

  /// A chunk's bytes, which stay until the next call. Fails like cachedChunkWithChunkIndex(), of
  /// this very chunk: one that cannot be read keeps nobody from seeing those in front of it.
  [[nodiscard]] Result<std::span<const std::byte>> chunk(uint32_t index);

 private:
  bool _holds(uint32_t index) const { return index - _firstChunk < _chunkCount; }
  void _readChunksFrom(uint32_t index);
  uint32_t _uncachedChunksFrom(uint32_t index) const;

  HFSPlusAllocation& _allocation;
  HFSPlusAllocationChunkHold _cachedChunk;
  PlatformPages _buffer;
  uint32_t _firstChunk = 0;  // of those in the buffer
  uint32_t _chunkCount = 0;
  uint32_t _oneByOneBefore = 0;  // up to here there is a chunk that cannot be read
};
