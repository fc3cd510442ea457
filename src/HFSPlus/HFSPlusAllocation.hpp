#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "HFSPlus/HFSPlusAllocationChunk.hpp"
#include "HFSPlus/HFSPlusBlockRanges.hpp"
#include "HFSPlus/HFSPlusFile.hpp"

/// The allocation file: one bit for every allocation block of the volume, set when it is in use.
///
/// Ranges of bits are set, cleared and examined over a cache of fixed-size chunks of the file. A
/// chunk is held while it is worked on and idle afterwards; the least recently used idle chunks
/// leave the cache, dirty ones to the volume's held writes.
///
/// Setting and clearing move the header's free-block count by the whole range, also where bits were
/// as wanted already; how far that strays from the bits is kept in takeFreeBlockDrift().
/// Used under the volume's gate.
class HFSPlusAllocation final : public HFSPlusFile {
 public:
  /// Fails with "Allocation file is inconsistent." when it has too few bits for the volume.
  [[nodiscard]] static Result<std::unique_ptr<HFSPlusAllocation>> open(HFSPlusVolumeAccess& volume);
  /// Dirty chunks are forgotten: what no flush has asked for is not meant to last.
  ~HFSPlusAllocation() override;

  /// Marks blocks as used or free. Fails with "Allocation block %1$lu is out of range.", nothing
  /// changed, or with a chunk's error, the chunks before it changed.
  [[nodiscard]] Result<> set(uint32_t block, uint32_t count);
  [[nodiscard]] Result<> clear(uint32_t block, uint32_t count);

  /// The number of used (free) blocks in a row from `block`, at most `count`. Fails like set().
  [[nodiscard]] Result<uint32_t> isSet(uint32_t block, uint32_t count);
  [[nodiscard]] Result<uint32_t> isClear(uint32_t block, uint32_t count);

  /// How many blocks in a row are worth taking, and how many of them are enough.
  struct RunLength {
    uint64_t least;
    uint64_t most;
  };
  /// Is offered a first block and a number of blocks; true for having enough.
  using TakeRun = std::function<bool(uint32_t, uint64_t)>;

  /// Offers runs of blocks that are free now and were free when changes were last settled, and that
  /// are not in `avoided`; from the block `hint` on first, then before it. Whether `take` has had
  /// enough. Fails like set().
  [[nodiscard]] Result<bool> takeUnusedRuns(RunLength length, uint32_t hint,
                                            const HFSPlusBlockRanges& avoided, const TakeRun& take);

  /// What has been freed so far may be written over: the changes that freed it will last.
  void settleChanges() { _freed.clear(); }

  /// Writes every dirty chunk to the held writes. Tries all of them and fails with the first error,
  /// also with that of a chunk that could not be written when it left the cache.
  [[nodiscard]] Result<> flush();

  /// Forgets every chunk, and with them the changes since the last flush. None may be held.
  [[nodiscard]] Result<> discardChanges();

  /// The blocks to add to the header's free-block count to make it agree with what the bits have
  /// really done since the last call.
  [[nodiscard]] int64_t takeFreeBlockDrift();

  /// Bytes a chunk; the last one may have less.
  uint32_t chunkSize() const { return _chunkSize; }
  uint64_t chunkCount() const;
  uint32_t chunkIndexFromBlockIndex(uint32_t block) const;
  /// Bytes of one chunk. Fails with "Allocation chunk %1$lu is out of range.".
  [[nodiscard]] Result<uint32_t> chunkSizeFromChunkIndex(uint32_t index) const;

  /// A chunk, read if it is not in the cache. Errors of HFSPlusAllocationChunk::open().
  [[nodiscard]] Result<HFSPlusAllocationChunkHold> cachedChunkWithChunkIndex(uint32_t index);
  [[nodiscard]] Result<HFSPlusAllocationChunkHold> cachedChunkWithBlockIndex(uint32_t block);
  bool isCached(uint32_t index) const { return _chunkCacheTOC.contains(index); }

  /// Transfer one chunk; bytes that the file's last block has beyond its size read as zero and are
  /// not written. Fail with "Allocation chunk %1$lu is out of range." or the transfer's error.
  [[nodiscard]] Result<> readChunk(uint32_t index, std::span<std::byte> bytes);
  [[nodiscard]] Result<> writeChunk(uint32_t index, std::span<const std::byte> bytes);

  /// Logs a range as ones and zeros. The range must lie in the file.
  void dump(uint32_t block, uint32_t count);

 private:
  friend class HFSPlusAllocationChunk;

  using Idle = std::list<HFSPlusAllocationChunk*>;
  struct Cell {
    std::unique_ptr<HFSPlusAllocationChunk> chunk;
    uint32_t holds = 0;
    Idle::iterator idle;  // its place in the idle queue while holds is 0
  };
  using TOC = std::map<uint32_t, Cell>;
  /// A range's part in one chunk, in bits.
  struct Span {
    HFSPlusAllocationChunkHold chunk;
    uint64_t offset;
    uint32_t count;
  };
  enum class Bit : bool { Clear, Set };

  /// What changing a range came to.
  struct Change {
    int64_t blocks = 0;  // blocks of the range that were reached
    int64_t bits = 0;    // those of them that were not as wanted before
  };
  /// Bytes of the file.
  struct FileRange {
    uint64_t offset;
    size_t length;
  };

  explicit HFSPlusAllocation(HFSPlusVolumeAccess& volume);
  Result<> checkRange(uint32_t block, uint32_t count) const;
  Result<Span> spanOf(uint32_t block, uint32_t count);
  Result<> change(uint32_t block, uint32_t count, Bit bit);
  Result<> changeSpans(uint32_t block, uint32_t count, Bit bit, Change& change);
  Result<uint32_t> leadingRun(uint32_t block, uint32_t count, Bit bit);
  Result<bool> takeUnusedRunsIn(uint64_t begin, uint64_t end, RunLength length,
                                const HFSPlusBlockRanges& avoided, const TakeRun& take);
  Result<FileRange> fileRangeOfChunk(uint32_t index) const;
  void cachedChunkRelease(HFSPlusAllocationChunk& chunk);
  void _cachedChunkDealloc(TOC::iterator cell);

  uint32_t _chunkSize;
  Idle _chunkCache;  // the most recently used first
  TOC _chunkCacheTOC;
  uint64_t _chunkCacheLimit;  // idle chunks kept
  std::optional<XRDefragError> _evictionError;
  HFSPlusBlockRanges _freed;  // blocks cleared since changes were last settled
  int64_t _drift = 0;
  int64_t _driftAtFlush = 0;
};
