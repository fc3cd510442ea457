#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "HFSPlus/HFSPlusExtentMap.hpp"
#include "XRDefragError.hpp"

class HFSPlusCopyBuffer;
class HFSPlusDefragProgress;
class HFSPlusDefragStretch;
class HFSPlusVolume;

/// One pending move. The source blocks are `entry.start` + `offset` and up, the destination blocks
/// `nustart` and up.
struct HFSPlusCopyEntry {
  HFSPlusExtentMapEntry entry;
  uint32_t offset;
  uint32_t count;
  uint32_t nustart;

  uint32_t source() const { return entry.start + offset; }
};

/// A batch of block moves, and how it is carried out.
///
/// Phases: all sources are read into the copy buffer; all destinations are written from it; then,
/// fork by fork, the metadata is pointed at the destinations, and flushed. What a crash or an error
/// leaves behind rests on these:
///   1. A destination is free at the last flush: nothing that the disk knows of is overwritten,
///      neither by the data of this batch nor before its metadata is flushed.
///   2. A source stays as it is until the flush after its fork was pointed elsewhere; only the
///      next batch may write on it.
///   3. Up to the metadata phase nothing but free blocks has changed: reading and writing may stop
///      anywhere, by an error or because the user says so.
///   4. After each fork the metadata in memory is that of a sound volume, in which forks are either
///      moved altogether or not at all. It may be flushed there, and others may look at it.
///   5. A metadata phase that fails is forgotten back to the last flush, as if what came after it
///      had never been tried.
/// The pieces of the volume's own files are read and written as they lie on disk; changes that
/// wait for the flush are kept by file and offset, and so find the new place by themselves.
class HFSPlusCopyList {
 public:
  /// Everything handed over must outlive the list. `cancelled` is asked between transfers.
  HFSPlusCopyList(HFSPlusVolume& volume, HFSPlusDefragStretch& stretch,
                  const HFSPlusCopyBuffer& buffer, HFSPlusDefragProgress& progress,
                  std::function<bool()> cancelled);

  /// Appends a move. All moves of a batch together must fit into the copy buffer.
  void appendCopyEntry(const HFSPlusExtentMapEntry& entry, uint32_t offset, uint32_t count,
                       uint32_t nustart);

  /// Carries the list out, yielding the gate between transfers and between forks; the entries stay
  /// listed. `countProgress` if its moves are among those that the run expects.
  [[nodiscard]] Result<> performCopyList(bool countProgress);

  /// Forgets all entries.
  void disposeCopyList() { _entries.clear(); }

  bool empty() const { return _entries.empty(); }
  const std::vector<HFSPlusCopyEntry>& entries() const { return _entries; }

  /// Bytes of changed metadata that a batch may hold back before it flushes between two forks.
  static constexpr uint64_t kHeldBytesLimit = 16 << 20;

 private:
  /// Blocks that are contiguous on the volume and in the buffer.
  struct Transfer {
    uint32_t block;
    uint32_t count;
    uint32_t bufferBlock;
  };
  /// All entries of one fork, by their places in the list.
  struct Group {
    uint32_t cnid;
    uint8_t forkType;
    std::vector<uint32_t> entries;
  };

  template <typename Block>
  std::vector<Transfer> _transfersOf(Block&& blockOf) const;
  Result<> _checkFit() const;
  Result<> _readSources();
  Result<> _writeDestinations();
  std::vector<Group> _groups() const;
  Result<> _updateForks(bool countProgress);
  Result<> _updateFork(const Group& group);
  Result<> _flush(std::span<const Group> groups, bool countProgress);
  Result<> _mayGoOn();

  HFSPlusVolume& _volume;
  HFSPlusDefragStretch& _stretch;
  const HFSPlusCopyBuffer& _buffer;
  HFSPlusDefragProgress& _progress;
  std::function<bool()> _cancelled;
  std::vector<HFSPlusCopyEntry> _entries;
};
