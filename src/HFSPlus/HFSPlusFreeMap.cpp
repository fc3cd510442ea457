#include "HFSPlus/HFSPlusFreeMap.hpp"

#include "LWKit/LWDebug.hpp"
#include "LWKit/LWStringUtilities.hpp"

namespace {

constexpr uint64_t kBytesPerEntry = 32;  // what an entry is reckoned at

}  // namespace

Result<std::unique_ptr<HFSPlusFreeMap>> HFSPlusFreeMap::open(const HFSPlusVolumeAccess& volume,
                                                             HFSPlusAllocation& allocation,
                                                             uint32_t startBlock,
                                                             uint32_t desiredBlocks,
                                                             uint32_t capacity) {
  std::unique_ptr<HFSPlusFreeMap> map(new HFSPlusFreeMap(volume, startBlock, capacity));
  TRY(map->build(allocation, desiredBlocks));
  return map;
}

Result<> HFSPlusFreeMap::build(HFSPlusAllocation& allocation, uint32_t desiredBlocks) {
  uint32_t totalBlocks = _volume.hostVolumeHeader().totalBlocks;
  if (totalBlocks <= _startBlock) {
    return std::unexpected(
        XRDefragError::localized("Invalid allocation bitmap block = %1$u.", _startBlock));
  }
  for (uint32_t block = _startBlock; block < totalBlocks;) {
    uint32_t run = TRY(allocation.isClear(block, totalBlocks - block));
    if (run > 0) {
      TRY(insert(block, run));
      if (firstEntry()->count >= desiredBlocks) {
        break;
      }
    } else {
      run = TRY(allocation.isSet(block, totalBlocks - block));
    }
    if (run == 0) {
      return std::unexpected(
          XRDefragError::localized("Invalid state for allocation bitmap block = %1$u.", block));
    }
    block += run;
  }
  return {};
}

Result<> HFSPlusFreeMap::insert(uint32_t start, uint32_t count) {
  HFSPlusFreeMapEntry entry{start, count};
  if (_entryCapacity != 0 && _entryCount >= _entryCapacity &&
      LargestFirst{}(entry, *_map.last()) > 0) {
    return {};  // it would be the first to be clipped
  }
  if (_map.insert(entry) == nullptr) {
    return std::unexpected(XRDefragError::localized("Out of memory."));
  }
  ++_entryCount;
  _blockCount += count;
  while (_entryCapacity != 0 && _entryCount > _entryCapacity) {
    _clipLastEntry();
  }
  return {};
}

void HFSPlusFreeMap::deleteEntry(const HFSPlusFreeMapEntry* entry) {
  --_entryCount;
  _blockCount -= entry->count;
  _map.remove(entry);
}

void HFSPlusFreeMap::_clipLastEntry() {
  if (const HFSPlusFreeMapEntry* entry = _map.last()) {
    deleteEntry(entry);
  }
}

Result<HFSPlusExtentDescriptor> HFSPlusFreeMap::allocate(uint32_t count) {
  const HFSPlusFreeMapEntry* largest = firstEntry();
  if (largest == nullptr) {
    return std::unexpected(XRDefragError::localized("The amount of free space is insufficient."));
  }
  HFSPlusFreeMapEntry taken = *largest;
  deleteEntry(largest);
  if (taken.count > count) {
    TRY(insert(taken.start + count, taken.count - count));
    taken.count = count;
  }
  return HFSPlusExtentDescriptor{taken.start, taken.count};
}

void HFSPlusFreeMap::dump() const {
  if (!LWDebugEnabled(LWDebugLevel::Debug)) {
    return;
  }
  uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
  LWDebugLog(LWDebugLevel::Debug, "--------\n");
  LWDebugLog(LWDebugLevel::Debug, "entry count: %lu (%@)\n", _entryCount,
             LWPrettySize(_entryCount * kBytesPerEntry));
  LWDebugLog(LWDebugLevel::Debug, "block count: %lu (%@)\n", _blockCount,
             LWPrettySize(_blockCount * blockSize));
  for (auto entry = firstEntry(); entry != nullptr; entry = nextEntry(entry)) {
    LWDebugLog(LWDebugLevel::Debug, "count = %08X, start = %08X (%@)\n", entry->count, entry->start,
               LWPrettySize(entry->count * blockSize));
  }
}
