#include "Tasks/HFSPlusCopyEngine.hpp"

#include <algorithm>

#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "Tasks/HFSPlusCopyBuffer.hpp"
#include "Tasks/HFSPlusDefragStretch.hpp"

namespace {

/// More rebuilds than a mode retries of its own accord.
constexpr uint32_t kMaxFruitlessBuilds = 4;

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
    TRY(_copyList.performCopyList(true));
    _copyList.disposeCopyList();
    _mode.updateSource();
  }
  return std::unexpected(XRDefragError::userCancelled());
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
      TRY(_stretch.build(_stretch.nextStartBlock()));
      _mapIsUsedUp = false;
    } else if (_mapIsUsedUp) {
      TRY(_rebuildStretch(first->entry->start));
    } else {
      TRY(_stretch.build(first->entry->start));
      if (_stretch.movableBlocks() == 0) {
        return _stretch.reachesVolumeEnd() ? Result<bool>(false) : Result<bool>(tooCongested());
      }
      return true;
    }
  }
}

Result<> HFSPlusCopyEngine::_rebuildStretch(uint32_t startBlock) {
  if (++_fruitlessBuilds > kMaxFruitlessBuilds) {
    return tooCongested();
  }
  TRY(_stretch.build(startBlock));
  _mapIsUsedUp = false;
  return {};
}

/// Makes the next copy zone free. One of the full size is tried first; when there is too little
/// space to clear that, the largest one that can be had.
auto HFSPlusCopyEngine::_prepareZone() -> Result<Zone> {
  uint32_t blocks = std::min(_stretch.movableBlocks(), _buffer.blockCount());
  while (true) {
    const uint32_t freeBlocks = _zone.countFreeBlocks(blocks);
    if (freeBlocks >= blocks) {
      return Zone{Outcome::GoOn, blocks};
    }
    switch (TRY(_zone.evict(blocks))) {
      case HFSPlusCopyZone::Eviction::Done: {
        const bool isFree = _zone.countFreeBlocks(blocks) >= blocks;
        return Zone{isFree ? Outcome::GoOn : Outcome::RunComplete, blocks};
      }
      case HFSPlusCopyZone::Eviction::ExtentsFileInTheWay:
        TRY(_leaveExtentsFile(_stretch.map().startBlock()));
        return Zone{Outcome::MapRebuilt, 0};
      case HFSPlusCopyZone::Eviction::TooLittleSpace:
        if (blocks == 1) {
          return std::unexpected(
              XRDefragError::localized("The amount of free space is insufficient."));
        }
        blocks = std::max(blocks / 2, freeBlocks);
    }
  }
}

/// Plans moves into the zone until it is full or the mode has nothing more.
auto HFSPlusCopyEngine::_fillZone(uint32_t zoneBlocks) -> Result<Outcome> {
  const uint32_t front = _stretch.map().startBlock();
  std::unique_ptr<HFSPlusForkExtents> extentsFile;  // as the planned moves will leave it
  for (uint32_t placed = 0; placed < zoneBlocks;) {
    const auto source = TRY(_mode.getSourceEntry());
    if (!source) {
      _mapIsUsedUp = true;
      break;
    }
    const bool isExtentsFile = source->cnid == kHFSExtentsFileID;
    if (isExtentsFile && !extentsFile) {
      if (placed > 0) {
        // It begins a batch, so that a plan that does not work out is no more than its own.
        break;
      }
      extentsFile = TRY(HFSPlusForkExtents::open(_volume, source->cnid, source->fork));
    }
    const uint32_t count = TRY(_placeSource(*source, zoneBlocks - placed));
    if (isExtentsFile) {
      TRY(extentsFile->move(source->start + source->offset, _copyList.entries().back().nustart,
                            count));
    }
    placed += count;
    _fruitlessBuilds = 0;
  }
  if (extentsFile && extentsFile->editedDescriptorCount() > kHFSPlusExtentDensity) {
    TRY(_leaveExtentsFile(front));
    return Outcome::MapRebuilt;
  }
  return Outcome::GoOn;
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

/// Gives up moving the extents file, which would end in more pieces than the header can hold, and
/// with it what has been planned from this front on.
Result<> HFSPlusCopyEngine::_leaveExtentsFile(uint32_t front) {
  _copyList.disposeCopyList();
  _stretch.pinExtentsFile();
  TRY(_stretch.build(front));
  _mapIsUsedUp = false;
  _mode.forgetFile(kHFSExtentsFileID);
  return {};
}
