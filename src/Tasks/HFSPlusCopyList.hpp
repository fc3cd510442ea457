#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "HFSPlus/HFSPlusBlockRanges.hpp"
#include "HFSPlus/HFSPlusExtentMap.hpp"
#include "XRDefragError.hpp"
#include "XRDefragVolume.hpp"

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

/// All entries of one fork, by their places in the list.
struct HFSPlusCopyGroup {
  uint32_t cnid;
  uint8_t forkType;
  std::vector<uint32_t> entries;
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
///      had never been tried. The same when a flush finds no room to write down what it is about to
///      do; then fewer forks are flushed at a time.
/// The pieces of the volume's own files are read and written as they lie on disk; changes that
/// wait for the flush are kept by file and offset, and so find the new place by themselves. Nothing
/// is flushed between the reading of such a piece and the flush that points its file to the copy.
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
  /// listed. `countProgress` if its moves are among those that the run expects. The number of
  /// entries, from the first on, that have been carried out: fewer than all when some forks cannot
  /// be flushed for want of free space. The map does not know then what became of the others.
  [[nodiscard]] Result<uint32_t> performCopyList(bool countProgress);

  /// Forgets all entries.
  void disposeCopyList() { _entries.clear(); }

  const std::vector<HFSPlusCopyEntry>& entries() const { return _entries; }

  /// The entries by fork: the volume's own files, then the others, each in the order in which they
  /// first appear.
  std::vector<HFSPlusCopyGroup> groups() const;

  /// Bytes of changed metadata that a batch may hold back before it flushes between two forks.
  static constexpr uint64_t kHeldBytesLimit = 8 << 20;

 private:
  using Descriptors = std::vector<HFSPlusExtentDescriptor>;

  template <typename Block>
  std::vector<XRDefragVolume::Transfer> _transfersOf(Block&& blockOf) const;
  Result<> _checkFit() const;
  Result<> _readSources();
  Result<> _writeDestinations();
  Result<uint32_t> _updateForks(bool countProgress);
  Result<> _updateFork(const HFSPlusCopyGroup& group);
  Result<> _updateMap(Descriptors before, Descriptors after, const HFSPlusExtentMapEntry& owner);
  void _report(std::span<const HFSPlusCopyGroup> groups, bool countProgress);
  HFSPlusBlockRanges _destinations(std::span<const HFSPlusCopyGroup> groups) const;
  uint32_t _leadingEntries(std::span<const HFSPlusCopyGroup> undone) const;
  Result<> _mayGoOn();

  HFSPlusVolume& _volume;
  HFSPlusDefragStretch& _stretch;
  const HFSPlusCopyBuffer& _buffer;
  HFSPlusDefragProgress& _progress;
  std::function<bool()> _cancelled;
  std::vector<HFSPlusCopyEntry> _entries;
};
