#include "Tasks/HFSPlusCopyEngine.hpp"

#include <algorithm>

#include "HFSPlus/HFSPlusVolume.hpp"
#include "Tasks/HFSPlusCopyBuffer.hpp"
#include "Tasks/HFSPlusCopyRehearsal.hpp"
#include "Tasks/HFSPlusDefragStretch.hpp"
#include "Tasks/HFSPlusExtentsFilePlan.hpp"

namespace {

/// More rebuilds than a mode retries of its own accord.
constexpr uint32_t kMaxFruitlessBuilds = 4;

/// A limit for the next batch. What sets it loosens with time: forks come together again, and so
/// does free space.
uint32_t loosened(uint32_t limit) {
  const uint32_t step = limit / 8 + 1;
  return limit > UINT32_MAX - step ? UINT32_MAX : limit + step;
}

std::unexpected<XRDefragError> insufficientSpace() {
  return std::unexpected(XRDefragError::localized("The amount of free space is insufficient."));
}

std::unexpected<XRDefragError> tooCongested() {
  return std::unexpected(XRDefragError::localized("Volume is too congested, unable to continue."));
}

}  // namespace

HFSPlusCopyEngine::HFSPlusCopyEngine(HFSPlusVolume& volume, HFSPlusDefragStretch& stretch,
                                     HFSPlusSourceMode& mode, const HFSPlusCopyBuffer& buffer,
                                     HFSPlusDefragProgress& progress,
                                     std::function<bool()> cancelled)
    : _volume(volume),
      _stretch(stretch),
      _mode(mode),
      _buffer(buffer),
      _cancelled(std::move(cancelled)),
      _copyList(volume, stretch, buffer, progress, _cancelled),
      _zone(volume, stretch, _copyList) {}

Result<> HFSPlusCopyEngine::run() {
  Result<> result = _run();
  _copyList.disposeCopyList();
  return result;
}

Result<> HFSPlusCopyEngine::_run() {
  while (!_cancelled()) {
    if (!TRY(_prepareStretch())) {
      return {};
    }
    const Zone zone = TRY(_prepareZone());
    if (zone.outcome == Outcome::RunComplete) {
      return {};
    }
    if (zone.outcome == Outcome::MapRebuilt) {
      continue;
    }
    if (_cancelled()) {
      break;
    }
    if (TRY(_fillZone(zone.blocks)) == Outcome::MapRebuilt) {
      continue;
    }
    TRY(_carryOut());
  }
  return std::unexpected(XRDefragError::userCancelled());
}

/// Carries out what is planned or, where the overflow file or free space is too short for that, the
/// beginning of it.
Result<> HFSPlusCopyEngine::_carryOut() {
  const std::vector<HFSPlusCopyEntry>& entries = _copyList.entries();
  HFSPlusCopyRehearsal rehearsal(_volume);
  // What cannot be made smaller is tried in earnest: when it fails, its error is the run's.
  const bool isRehearsed = _blocksFrom(0) > 1;
  if (isRehearsed && !TRY(rehearsal.succeeds(entries, _copyList.groups()))) {
    return _planHalf(0);
  }
  const uint32_t moved = TRY(_copyList.performCopyList(true));
  if (moved < entries.size()) {
    return _blocksFrom(moved) > 1 ? _planHalf(moved) : Result<>(insufficientSpace());
  }
  _fillLimit = UINT32_MAX;
  _flushLimit = loosened(_flushLimit);
  _copyList.disposeCopyList();
  _mode.updateSource();
  return {};
}

/// Blocks that the plan moves from an entry on.
uint32_t HFSPlusCopyEngine::_blocksFrom(uint32_t entry) const {
  uint32_t blocks = 0;
  for (const HFSPlusCopyEntry& move : std::span(_copyList.entries()).subspan(entry)) {
    blocks += move.count;
  }
  return blocks;
}

/// Forgets the plan from an entry on, for one of half the size.
Result<> HFSPlusCopyEngine::_planHalf(uint32_t entry) {
  const HFSPlusCopyEntry next = _copyList.entries()[entry];
  _flushLimit = _blocksFrom(entry) / 2;
  _copyList.disposeCopyList();
  _mode.startOver({next.entry.cnid, next.entry.info.forkType});
  return _rebuildMap(next.nustart);
}

/// Sees to it that the map has movable blocks at its front; false when the run is complete.
Result<bool> HFSPlusCopyEngine::_prepareStretch() {
  while (true) {
    const auto first = _stretch.map().firstEntry();
    if (first && !_mapIsUsedUp && _stretch.movableBlocks() > 0) {
      return true;
    }
    if (_stretch.reachesVolumeEnd()) {
      return false;
    }
    if (!first) {
      TRY(_rebuildMap(_stretch.nextStartBlock()));
    } else if (_mapIsUsedUp) {
      if (++_fruitlessBuilds > kMaxFruitlessBuilds) {
        return tooCongested();
      }
      TRY(_rebuildMap(first->entry->start));
    } else {
      TRY(_stretch.build(first->entry->start));
      if (_stretch.movableBlocks() == 0) {
        return _stretch.reachesVolumeEnd() ? Result<bool>(false) : Result<bool>(tooCongested());
      }
      return true;
    }
  }
}

/// Builds the map again at a block of the stretch at hand.
Result<> HFSPlusCopyEngine::_rebuildMap(uint32_t startBlock) {
  _mapIsUsedUp = false;
  return _stretch.build(startBlock);
}

/// Makes the next copy zone free. One of the full size is tried first; when there is too little
/// space to clear that, the largest one that can be had.
auto HFSPlusCopyEngine::_prepareZone() -> Result<Zone> {
  const uint32_t whole = std::min(_stretch.movableBlocks(), _buffer.blockCount());
  uint32_t blocks = std::min(whole, _zoneLimit);
  _zoneLimit = loosened(_zoneLimit);
  while (true) {
    const uint32_t freeBlocks = _zone.countFreeBlocks(blocks);
    if (freeBlocks >= blocks) {
      return Zone{Outcome::GoOn, blocks};
    }
    const auto room =
        blocks == whole ? HFSPlusCopyZone::Room::UseAll : HFSPlusCopyZone::Room::LeaveForRecord;
    const auto eviction = TRY(_zone.evict(blocks, room));
    if (eviction == HFSPlusCopyZone::Eviction::Done) {
      const bool isFree = _zone.countFreeBlocks(blocks) >= blocks;
      return Zone{isFree ? Outcome::GoOn : Outcome::RunComplete, blocks};
    }
    if (blocks == 1) {
      if (eviction != HFSPlusCopyZone::Eviction::TooManyPieces) {
        return insufficientSpace();
      }
      TRY(_leaveExtentsFile(_stretch.map().startBlock()));
      return Zone{Outcome::MapRebuilt, 0};
    }
    blocks = std::max(blocks / 2, freeBlocks);
    if (eviction != HFSPlusCopyZone::Eviction::TooLittleSpace) {
      _zoneLimit = blocks;
    }
    if (eviction == HFSPlusCopyZone::Eviction::CannotBeFlushed) {
      TRY(_rebuildMap(_stretch.map().startBlock()));
      return Zone{Outcome::MapRebuilt, 0};
    }
  }
}

/// Blocks of the zone that a batch may fill: all of it, unless no free blocks would be left then to
/// write down what its flush is about to do.
uint32_t HFSPlusCopyEngine::_roomInZone(uint32_t zoneBlocks) const {
  const uint32_t room = std::min({zoneBlocks, _fillLimit, _flushLimit});
  const uint32_t freeBlocks = _stretch.map().blockCountForType(kHFSPlusExtentUnalloced);
  const uint64_t needed = uint64_t{room} + _zone.recordBlocks();
  if (!_stretch.reachesVolumeEnd() || freeBlocks >= needed) {
    return room;
  }
  const uint64_t excess = needed - freeBlocks;
  return excess < room / 2 ? static_cast<uint32_t>(room - excess) : room - room / 2;
}

/// Plans moves into the zone until it is full or the mode has nothing more.
auto HFSPlusCopyEngine::_fillZone(uint32_t zoneBlocks) -> Result<Outcome> {
  const uint32_t front = _stretch.map().startBlock();
  const uint32_t room = _roomInZone(zoneBlocks);
  HFSPlusExtentsFilePlan extentsFile(_volume);
  uint32_t soundBlocks = 0;  // up to where the plan can be carried out
  for (uint32_t placed = 0; placed < room;) {
    const auto source = TRY(_mode.getSourceEntry());
    if (!source) {
      _mapIsUsedUp = true;
      break;
    }
    placed += TRY(_placeSource(*source, room - placed));
    _fruitlessBuilds = 0;
    TRY(extentsFile.add(_copyList.entries().back()));
    if (extentsFile.fitsHeader()) {
      soundBlocks = placed;
    }
  }
  if (!extentsFile.fitsHeader()) {
    TRY(_planUpTo(soundBlocks, front));
    return Outcome::MapRebuilt;
  }
  return Outcome::GoOn;
}

/// Forgets a plan that cannot be carried out for the extents file's sake, in favour of its
/// beginning, which can; if that is nothing, the file stays where it is.
Result<> HFSPlusCopyEngine::_planUpTo(uint32_t soundBlocks, uint32_t front) {
  const HFSPlusExtentMapEntry first = _copyList.entries().front().entry;
  _copyList.disposeCopyList();
  _mode.startOver({first.cnid, first.info.forkType});
  if (soundBlocks == 0) {
    return _leaveExtentsFile(front);
  }
  _fillLimit = soundBlocks;
  return _rebuildMap(front);
}

/// Plans as much of a source as fits into the free run at the front; the number of blocks.
Result<uint32_t> HFSPlusCopyEngine::_placeSource(HFSPlusSourceEntry source, uint32_t room) {
  HFSPlusExtentMap& map = _stretch.map();
  auto front = map.firstEntry();
  while (front && front->entry->info.type == kHFSPlusExtentImmutable) {
    TRY(map.removeEntry(front->entry));
    front = map.firstEntry();
  }
  if (!front) {
    return std::unexpected(XRDefragError::internalHere());
  }
  if (front->entry->info.type != kHFSPlusExtentUnalloced) {
    return std::unexpected(XRDefragError::internalHere());
  }

  const uint32_t destination = front->entry->start;
  source.count = std::min({room, front->count, source.count});
  const HFSPlusExtentMapEntry entry{
      source.start, source.cnid, {0, source.fork, kHFSPlusExtentAllocated}};
  _copyList.appendCopyEntry(entry, source.offset, source.count, destination);
  TRY(_mode.putSourceEntry(source));
  TRY(map.removeToBlock(destination + source.count));
  TRY(map.deleteBlocks(source.start + source.offset, source.count));
  return source.count;
}

/// Leaves the extents file where it is for the rest of the run.
Result<> HFSPlusCopyEngine::_leaveExtentsFile(uint32_t front) {
  _stretch.pinExtentsFile();
  _mode.forgetFile(kHFSExtentsFileID);
  return _rebuildMap(front);
}
