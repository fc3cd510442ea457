#pragma once

#include <cstdint>

#include "HFSPlus/HFSPlusFreeMap.hpp"
#include "XRDefragError.hpp"

class HFSPlusCopyList;
class HFSPlusDefragStretch;
class HFSPlusVolume;

/// The copy zone: the first so many movable blocks of the extent map, immutable runs stepped over,
/// that the next batch fills; it is made free first where it is not.
class HFSPlusCopyZone {
 public:
  enum class Eviction {
    Done,
    TooLittleSpace,   // not enough free blocks beyond the zone; nothing has changed
    CannotBeFlushed,  // for want of free space; the map does not know what has been moved
    TooManyPieces     // for the overflow file to hold, or for itself to be in; nothing has changed
  };

  /// All three must outlive the zone.
  HFSPlusCopyZone(HFSPlusVolume& volume, HFSPlusDefragStretch& stretch, HFSPlusCopyList& copyList)
      : _volume(volume), _stretch(stretch), _copyList(copyList) {}

  /// Free blocks of a zone of so many blocks before its first allocated one.
  uint32_t countFreeBlocks(uint32_t zoneBlocks) const;

  /// Whether the largest free extents may be used up, or one is to be left for the records that
  /// flushes are written down in.
  enum class Room { UseAll, LeaveForRecord };

  /// Moves what stands in the zone to the largest free extents beyond it. Fails with an internal
  /// error for a zone larger than the map, and with the errors of the free map and the copy list.
  [[nodiscard]] Result<Eviction> evict(uint32_t zoneBlocks, Room room);

  /// Blocks that the record of a small flush may take.
  uint32_t recordBlocks() const;

 private:
  struct Measure {
    uint64_t end;         // first block past the zone
    uint32_t freeBlocks;  // inside it
  };
  enum class Order { ByBlock, ExtentsFileFirst };
  enum class Whose { Everybodys, ExtentsFiles, AllOthers };

  Result<Measure> _measure(uint32_t zoneBlocks) const;
  Result<bool> _planEviction(const Measure& zone, uint32_t zoneBlocks, Room room, Order order);
  Result<> _setAside(HFSPlusFreeMap& freeMap, uint32_t blocks) const;
  Result<> _appendEvictions(HFSPlusFreeMap& freeMap, uint32_t zoneBlocks, Whose whose);
  Result<bool> _extentsFileStaysWhole() const;

  HFSPlusVolume& _volume;
  HFSPlusDefragStretch& _stretch;
  HFSPlusCopyList& _copyList;
};
