#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "HFSPlus/HFSPlusPathLookup.hpp"
#include "HFSPlus/HFSPlusSkipList.hpp"
#include "HFSPlus/HFSPlusVolumeAccess.hpp"
#include "XRDefragError.hpp"

/// What a run of blocks is.
enum HFSPlusExtentType : uint8_t {
  kHFSPlusExtentImmutable = 0,  // in use and never to be moved
  kHFSPlusExtentUnalloced = 1,  // free
  kHFSPlusExtentAllocated = 2,  // a movable piece of a fork
};

/// The fork and the type of a run.
struct HFSPlusExtentInfo {
  uint16_t filler = 0;
  uint8_t forkType = 0;  // kHFSDataForkType or kHFSResourceForkType
  HFSPlusExtentType type = kHFSPlusExtentImmutable;

  /// The whole as one number: type in the top byte, fork type below it, filler at the bottom.
  uint32_t data() const { return uint32_t{type} << 24 | uint32_t{forkType} << 16 | filler; }
  friend bool operator==(const HFSPlusExtentInfo&, const HFSPlusExtentInfo&) = default;
};

/// The beginning of a run; it reaches to the beginning of the next one.
struct HFSPlusExtentMapEntry {
  uint32_t start;  // allocation block
  uint32_t cnid;   // owner; 0 for a free run
  HFSPlusExtentInfo info;
};
static_assert(sizeof(HFSPlusExtentMapEntry) == 12);

/// An entry of the map, in place until it is removed or clipped, and its length in blocks.
struct HFSPlusExtentRun {
  const HFSPlusExtentMapEntry* entry;
  uint32_t count;
};

/// Who owns which blocks: the volume's block range, from a start block on, divided into runs that
/// belong to one fork, are free, or are immovable.
///
/// Lengths are not stored, so the runs tile the range without gap or overlap whatever happens to
/// them. The map has a capacity: what exceeds it is clipped from the high end of the volume, whose
/// blocks then no longer belong to the map. It is consumed from the front as its low blocks settle.
///
/// Invariants: starts rise strictly; the first entry begins at startBlock(); the block counts by
/// type add up to blockCount(). Used by one thread at a time.
class HFSPlusExtentMap {
 public:
  static constexpr uint64_t kDefaultCapacity = 0x40000;  // entries
  static constexpr uint64_t kBytesPerEntry = 32;         // what an entry is reckoned at

  /// All blocks from the start block to the volume's end, free.
  HFSPlusExtentMap(const HFSPlusVolumeAccess& volume, uint32_t startBlock);

  /// First block covered.
  uint32_t startBlock() const { return _startBlock; }
  /// Number of blocks covered.
  uint32_t blockCount() const { return _totalBlocks - _startBlock; }
  /// Blocks ever inserted as allocated, also those outside the range; stays at 2^32 - 1 once there.
  uint32_t dataBlockTotal() const { return _dataBlockTotal; }
  /// Blocks that are now in runs of a type.
  uint32_t blockCountForType(HFSPlusExtentType type) const;
  /// Number of entries.
  uint64_t extentCount() const { return _extentCount; }
  /// Bytes of memory that the entries take.
  size_t memoryUsage() const { return _map.memoryUsage(); }

  /// Length in blocks of an entry of this map.
  uint32_t blockCountForEntry(const HFSPlusExtentMapEntry* entry) const;
  /// The first run; none when the map is empty.
  std::optional<HFSPlusExtentRun> firstEntry() const;
  /// The run after an entry, or the first one after null.
  std::optional<HFSPlusExtentRun> nextEntry(const HFSPlusExtentMapEntry* after) const;
  /// The run that contains a block; none outside the map.
  std::optional<HFSPlusExtentRun> findEntry(uint32_t block) const;

  /// Gives free blocks an owner. What lies outside the map is left out. Fails with "Invalid
  /// overlapping extent …", "Out of memory." or an internal error (also on an empty map).
  [[nodiscard]] Result<> insert(uint32_t start, uint32_t count, uint32_t cnid,
                                HFSPlusExtentInfo info);

  /// Frees blocks, whoever owns them, and joins them with free neighbours. What lies outside the
  /// map is left out. Fails with "Out of memory." or an internal error.
  [[nodiscard]] Result<> deleteBlocks(uint32_t start, uint32_t count);

  /// Takes the first entry off the map's front; an internal error for any other.
  [[nodiscard]] Result<> removeEntry(const HFSPlusExtentMapEntry* entry);

  /// Takes everything below a block off the map's front.
  [[nodiscard]] Result<> removeToBlock(uint32_t block);

  /// Sets the capacity in bytes, 33 or more, and clips at once; 0 lifts the limit.
  void limitMemoryUsageTo(uint64_t bytes);

  /// Stops the process unless the block counts agree with the entries; `verbose` logs them.
  void validate(bool verbose) const;

  /// Logs one entry or all, naming the owners.
  void dumpEntry(const HFSPlusExtentMapEntry* entry, const HFSPlusPathLookup& path) const;
  void dump(const HFSPlusPathLookup& path) const;

 private:
  struct ByStart {
    int operator()(const HFSPlusExtentMapEntry& entry, uint32_t start) const {
      return entry.start < start ? -1 : entry.start > start;
    }
    int operator()(const HFSPlusExtentMapEntry& entry, const HFSPlusExtentMapEntry& key) const {
      return (*this)(entry, key.start);
    }
  };
  using Map = HFSPlusSkipList<HFSPlusExtentMapEntry, ByStart, 16>;
  struct Range {
    uint32_t start;
    uint32_t count;
  };

  std::optional<HFSPlusExtentRun> runOf(const HFSPlusExtentMapEntry* entry) const;
  std::optional<Range> clippedRange(uint32_t start, uint32_t count) const;
  Result<HFSPlusExtentMapEntry*> splitAt(Map::Position& position, const HFSPlusExtentMapEntry& run);
  Result<uint32_t> freeBeginning(Range range);
  void coalesce(HFSPlusExtentMapEntry* entry);
  void _clipLastExtent();
  void clipToCapacity();

  const HFSPlusVolumeAccess& _volume;
  uint32_t _startBlock;
  uint32_t _totalBlocks;  // one past the last block covered
  uint32_t _dataBlockTotal = 0;
  std::array<uint32_t, 3> _blockCountForType{};
  uint64_t _extentCapacity = kDefaultCapacity;
  uint64_t _extentCount = 0;
  Map _map;
};
