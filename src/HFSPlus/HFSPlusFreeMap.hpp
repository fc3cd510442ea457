#pragma once

#include <cstdint>
#include <memory>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusFormat.hpp"
#include "HFSPlus/HFSPlusSkipList.hpp"
#include "HFSPlus/HFSPlusVolumeAccess.hpp"
#include "XRDefragError.hpp"

/// A free extent, in allocation blocks.
struct HFSPlusFreeMapEntry {
  uint32_t start;
  uint32_t count;
  friend bool operator==(const HFSPlusFreeMapEntry&, const HFSPlusFreeMapEntry&) = default;
};
static_assert(sizeof(HFSPlusFreeMapEntry) == 8);

/// Free extents of the volume, the largest first and the lowest first among equals: where blocks
/// that have to make room are put.
///
/// It is read from the allocation bitmap and short-lived: it knows nothing of later changes there.
class HFSPlusFreeMap {
 public:
  /// Collects free extents from a start block on, until one of them holds the desired number of
  /// blocks or the volume ends. Keeps the largest `capacity` of them, all when that is 0. Fails
  /// with "Invalid allocation bitmap block = …" for a start block beyond the volume, "Invalid state
  /// for allocation bitmap block = …", "Out of memory." or the bitmap's errors.
  [[nodiscard]] static Result<std::unique_ptr<HFSPlusFreeMap>> open(
      const HFSPlusVolumeAccess& volume, HFSPlusAllocation& allocation, uint32_t startBlock,
      uint32_t desiredBlocks, uint32_t capacity);

  /// Blocks of all entries together.
  uint32_t blockCount() const { return _blockCount; }
  uint64_t entryCount() const { return _entryCount; }
  /// The block at which the search began.
  uint32_t startBlock() const { return _startBlock; }

  /// The largest entry, or null. Entries stay in place until they are deleted.
  const HFSPlusFreeMapEntry* firstEntry() const { return _map.first(); }
  /// The entry after the given one, or the first after null; null at the end.
  const HFSPlusFreeMapEntry* nextEntry(const HFSPlusFreeMapEntry* after) const {
    return after == nullptr ? _map.first() : _map.next(after);
  }

  /// Adds an extent as it is, without a look at the others; the smallest ones beyond the capacity
  /// are forgotten. Fails with "Out of memory.".
  [[nodiscard]] Result<> insert(uint32_t start, uint32_t count);

  /// Forgets an entry of this map.
  void deleteEntry(const HFSPlusFreeMapEntry* entry);

  /// Takes up to `count` blocks from the front of the largest extent; all of it when it has no
  /// more. Fails with "The amount of free space is insufficient." when nothing is left.
  [[nodiscard]] Result<HFSPlusExtentDescriptor> allocate(uint32_t count);

  /// Logs every entry.
  void dump() const;

 private:
  struct LargestFirst {
    int operator()(const HFSPlusFreeMapEntry& entry, const HFSPlusFreeMapEntry& key) const {
      if (entry.count != key.count) {
        return entry.count > key.count ? -1 : 1;
      }
      return entry.start < key.start ? -1 : entry.start > key.start;
    }
  };

  HFSPlusFreeMap(const HFSPlusVolumeAccess& volume, uint32_t startBlock, uint32_t capacity)
      : _volume(volume), _startBlock(startBlock), _entryCapacity(capacity) {}
  Result<> build(HFSPlusAllocation& allocation, uint32_t desiredBlocks);
  void _clipLastEntry();

  const HFSPlusVolumeAccess& _volume;
  uint32_t _startBlock;
  uint32_t _blockCount = 0;
  uint64_t _entryCapacity;  // 0: no limit
  uint64_t _entryCount = 0;
  HFSPlusSkipList<HFSPlusFreeMapEntry, LargestFirst, 12> _map;
};
