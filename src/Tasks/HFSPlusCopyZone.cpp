#include "Tasks/HFSPlusCopyZone.hpp"

#include <algorithm>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWDebug.hpp"
#include "Tasks/HFSPlusCopyList.hpp"
#include "Tasks/HFSPlusCopyRehearsal.hpp"
#include "Tasks/HFSPlusDefragStretch.hpp"
#include "Tasks/HFSPlusExtentsFilePlan.hpp"

uint32_t HFSPlusCopyZone::countFreeBlocks(uint32_t zoneBlocks) const {
  const HFSPlusExtentMap& map = _stretch.map();
  uint32_t blocks = 0;
  for (auto run = map.firstEntry(); run && blocks < zoneBlocks; run = map.nextEntry(run->entry)) {
    switch (run->entry->info.type) {
      case kHFSPlusExtentImmutable:
        break;
      case kHFSPlusExtentUnalloced:
        blocks += run->count;
        break;
      case kHFSPlusExtentAllocated:
        return blocks;
      default:
        LWPanic("unhandled extent type: %u\n", uint32_t{run->entry->info.type});
    }
  }
  return blocks;
}

auto HFSPlusCopyZone::_measure(uint32_t zoneBlocks) const -> Result<Measure> {
  const HFSPlusExtentMap& map = _stretch.map();
  Measure measure{map.startBlock(), 0};
  uint32_t movable = 0;
  for (auto run = map.firstEntry(); movable < zoneBlocks; run = map.nextEntry(run->entry)) {
    if (!run) {
      return std::unexpected(XRDefragError::internalHere());
    }
    if (run->entry->info.type == kHFSPlusExtentImmutable) {
      measure.end += run->count;
      continue;
    }
    const uint32_t inside = std::min(run->count, zoneBlocks - movable);
    movable += inside;
    measure.end += inside;
    measure.freeBlocks += run->entry->info.type == kHFSPlusExtentUnalloced ? inside : 0;
  }
  return measure;
}

uint32_t HFSPlusCopyZone::recordBlocks() const {
  constexpr uint64_t kNodes = 4;  // of each tree
  constexpr uint64_t kFrame = 4096;
  const HFSPlusAllocation& bitmap = _volume.allocation();
  const uint64_t bytes = kFrame + std::min(2 * uint64_t{bitmap.chunkSize()}, bitmap.logicalSize()) +
                         kNodes * (_volume.catalog().nodeSize() + _volume.extents().nodeSize());
  const uint32_t blockSize = _volume.hostVolumeHeader().blockSize;
  return static_cast<uint32_t>((bytes + blockSize - 1) / blockSize);
}

auto HFSPlusCopyZone::evict(uint32_t zoneBlocks, Room room) -> Result<Eviction> {
  const Measure zone = TRY(_measure(zoneBlocks));
  if (zone.end >= _volume.hostVolumeHeader().totalBlocks) {
    return Eviction::TooLittleSpace;
  }
  if (_stretch.reachesVolumeEnd()) {
    // The map knows every free block there is, which spares a search of the bitmap.
    const uint32_t all = _stretch.map().blockCountForType(kHFSPlusExtentUnalloced);
    if (all - zone.freeBlocks < zoneBlocks) {
      return Eviction::TooLittleSpace;
    }
  }

  for (const Order order : {Order::ByBlock, Order::ExtentsFileFirst}) {
    if (!TRY(_planEviction(zone, zoneBlocks, room, order))) {
      return Eviction::TooLittleSpace;
    }
    if (TRY(_extentsFileStaysWhole())) {
      HFSPlusCopyRehearsal rehearsal(_volume);
      // The smallest zone is tried in earnest: when it fails, its error is the run's.
      if (zoneBlocks > 1 && !TRY(rehearsal.succeeds(_copyList.entries(), _copyList.groups()))) {
        _copyList.disposeCopyList();
        return Eviction::TooManyPieces;
      }
      const size_t moved = TRY(_copyList.performCopyList(false));
      const bool complete = moved == _copyList.entries().size();
      _copyList.disposeCopyList();
      return complete ? Eviction::Done : Eviction::CannotBeFlushed;
    }
    _copyList.disposeCopyList();
  }
  return Eviction::TooManyPieces;
}

/// Lists the moves; false if there is too little free space beyond the zone.
Result<bool> HFSPlusCopyZone::_planEviction(const Measure& zone, uint32_t zoneBlocks, Room room,
                                            Order order) {
  const auto freeMap = TRY(HFSPlusFreeMap::open(
      _volume, _volume.allocation(), static_cast<uint32_t>(zone.end), zoneBlocks, zoneBlocks));
  // Where there is not enough for both, the record may turn out to be smaller.
  const uint64_t withRecord = uint64_t{zoneBlocks} + recordBlocks();
  if (room == Room::LeaveForRecord && freeMap->blockCount() >= withRecord) {
    TRY(_setAside(*freeMap, recordBlocks()));
  }
  if (freeMap->blockCount() < zoneBlocks) {
    return false;
  }
  if (order == Order::ByBlock) {
    TRY(_appendEvictions(*freeMap, zoneBlocks, Whose::Everybodys));
  } else {
    TRY(_appendEvictions(*freeMap, zoneBlocks, Whose::ExtentsFiles));
    TRY(_appendEvictions(*freeMap, zoneBlocks, Whose::AllOthers));
  }
  return true;
}

/// Takes blocks off the free map: in one piece, as high on the volume as there are, or else the
/// smallest pieces.
Result<> HFSPlusCopyZone::_setAside(HFSPlusFreeMap& freeMap, uint32_t blocks) const {
  const HFSPlusFreeMapEntry* highest = nullptr;
  for (const HFSPlusFreeMapEntry* entry = freeMap.firstEntry();
       entry != nullptr && entry->count >= blocks; entry = freeMap.nextEntry(entry)) {
    if (highest == nullptr || entry->start > highest->start) {
      highest = entry;
    }
  }
  std::vector<const HFSPlusFreeMapEntry*> pieces;
  if (highest != nullptr) {
    pieces.push_back(highest);
  } else {
    for (const HFSPlusFreeMapEntry* entry = freeMap.firstEntry(); entry != nullptr;
         entry = freeMap.nextEntry(entry)) {
      pieces.push_back(entry);
    }
  }
  for (; blocks > 0 && !pieces.empty(); pieces.pop_back()) {
    const HFSPlusFreeMapEntry piece = *pieces.back();
    const uint32_t taken = std::min(blocks, piece.count);
    freeMap.deleteEntry(pieces.back());
    if (taken < piece.count) {
      TRY(freeMap.insert(piece.start, piece.count - taken));
    }
    blocks -= taken;
  }
  return {};
}

Result<> HFSPlusCopyZone::_appendEvictions(HFSPlusFreeMap& freeMap, uint32_t zoneBlocks,
                                           Whose whose) {
  const HFSPlusExtentMap& map = _stretch.map();
  uint32_t passed = 0;
  for (auto run = map.firstEntry(); run && passed < zoneBlocks; run = map.nextEntry(run->entry)) {
    const HFSPlusExtentMapEntry& entry = *run->entry;
    if (entry.info.type == kHFSPlusExtentImmutable) {
      continue;
    }
    const uint32_t inside = std::min(run->count, zoneBlocks - passed);
    passed += inside;
    const Whose otherPass =
        entry.cnid == kHFSExtentsFileID ? Whose::AllOthers : Whose::ExtentsFiles;
    if (entry.info.type != kHFSPlusExtentAllocated || whose == otherPass) {
      continue;
    }
    for (uint32_t placed = 0; placed < inside;) {
      const HFSPlusExtentDescriptor place = TRY(freeMap.allocate(inside - placed));
      _copyList.appendCopyEntry(entry, placed, place.blockCount, place.startBlock);
      placed += place.blockCount;
    }
  }
  return {};
}

/// Whether the listed moves leave the extents file in as many pieces as the header can list.
Result<bool> HFSPlusCopyZone::_extentsFileStaysWhole() const {
  HFSPlusExtentsFilePlan extentsFile(_volume);
  for (const HFSPlusCopyEntry& entry : _copyList.entries()) {
    TRY(extentsFile.add(entry));
  }
  return extentsFile.fitsHeader();
}
