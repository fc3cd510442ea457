#include "Tasks/HFSPlusDefragPreparation.hpp"

#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWDebug.hpp"
#include "Tasks/HFSPlusDefragStretch.hpp"

Result<std::optional<uint32_t>> HFSPlusDefragPreparation::prepareForRun(bool compact) {
  _skippedBlocks = 0;
  _dropImmutableProfileForks();
  if (!_mapIsCurrent) {
    TRY(_stretch.build(0));
  }
  TRY(_skipToFirstDataBlock());
  TRY(compact ? _skipToFirstFreeBlock() : _skipForksInPlace());

  const auto first = TRY(_firstRun());
  if (!first) {
    return std::nullopt;
  }
  const uint32_t expected = _expectedBlocks();
  LWDebugLog(LWDebugLevel::Debug, "%@,DEBUG,Starting at block %08X\n", _taskName,
             first->entry->start);
  LWDebugLog(LWDebugLevel::Debug, "%@,DEBUG,%08X blocks remaining to process\n", _taskName,
             expected);
  return expected;
}

/// Builds every stretch once, so that blocks of two owners are found, and blocks that are owned but
/// not marked so are marked, before the first of them could be written on. Evicted data and the
/// records of flushes go wherever the bitmap says that it is free, in this stretch or another.
Result<> HFSPlusDefragPreparation::checkVolume() {
  _stretch.setImmutableFileForks(TRY(_volume.immutableForkIDs(true)));
  TRY(_stretch.build(0));
  _mapIsCurrent = _stretch.reachesVolumeEnd();
  while (!_stretch.reachesVolumeEnd()) {
    TRY(_stretch.build(_stretch.nextStartBlock()));
  }
  // What has been marked must last, even if the first batch has to be forgotten.
  if (TRY(_volume.flush()) == HFSPlusVolume::FlushOutcome::NoRoomForRecord) {
    return std::unexpected(XRDefragError::localized("The amount of free space is insufficient."));
  }
  return {};
}

/// A profile can name forks that must stay where they are, and the volume's own files (the bad
/// blocks, say, where the catalog lists them); they have no place in its order.
void HFSPlusDefragPreparation::_dropImmutableProfileForks() {
  if (!_profileFileForks) {
    return;
  }
  HFSPlusFileForkSet movable;
  for (size_t i = 0; i < _profileFileForks->count(); ++i) {
    const HFSPlusFileFork fork = _profileFileForks->fileForkAtIndex(i);
    const bool isVolumesOwn =
        fork.fileID == kHFSBadBlockFileID || _volume.isSpecialFile(fork.fileID);
    if (!isVolumesOwn && !_stretch.immutableFileForks().contains(fork.fileID, fork.forkType)) {
      movable.add(fork.fileID, fork.forkType);
    }
  }
  if (movable.empty()) {
    _profileFileForks.reset();
  } else {
    _profileFileForks = std::move(movable);
  }
}

/// The first run that is left, of this stretch or a later one; none at the volume's end.
Result<std::optional<HFSPlusExtentRun>> HFSPlusDefragPreparation::_firstRun() {
  while (true) {
    if (const auto first = _stretch.map().firstEntry()) {
      return first;
    }
    if (_stretch.reachesVolumeEnd()) {
      return std::nullopt;
    }
    TRY(_stretch.build(_stretch.nextStartBlock()));
  }
}

/// Takes runs off the front for as long as they pass a test.
template <typename Test>
Result<> HFSPlusDefragPreparation::_skipWhile(Test&& passes) {
  while (const auto run = TRY(_firstRun())) {
    const Result<bool> passed = passes(*run);
    if (!TRY(passed)) {
      break;
    }
    _skippedBlocks += run->entry->info.type == kHFSPlusExtentAllocated ? run->count : 0;
    TRY(_stretch.map().removeEntry(run->entry));
  }
  return {};
}

Result<> HFSPlusDefragPreparation::_skipToFirstDataBlock() {
  return _skipWhile([firstDataBlock = _volume.firstDataBlock()](const HFSPlusExtentRun& run) {
    return run.entry->start < firstDataBlock;
  });
}

Result<> HFSPlusDefragPreparation::_skipToFirstFreeBlock() {
  return _skipWhile(
      [](const HFSPlusExtentRun& run) { return run.entry->info.type != kHFSPlusExtentUnalloced; });
}

Result<> HFSPlusDefragPreparation::_skipForksInPlace() {
  return _skipWhile([this](const HFSPlusExtentRun& run) -> Result<bool> {
    if (run.entry->info.type != kHFSPlusExtentAllocated) {
      return run.entry->info.type == kHFSPlusExtentImmutable;
    }
    const bool isInPlace = TRY(_isInPlace(*run.entry));
    // Where defragmenting starts counts as skipped too, though it is going to be moved.
    _skippedBlocks += isInPlace ? 0 : run.count;
    return isInPlace;
  });
}

Result<bool> HFSPlusDefragPreparation::_isInPlace(const HFSPlusExtentMapEntry& entry) {
  const auto fork = TRY(HFSPlusForkExtents::open(_volume, entry.cnid, entry.info.forkType));
  const HFSPlusForkExtents::Descriptors extents = fork->copyExtentDescriptors(entry.start);
  if (extents.size() != 1) {
    return false;
  }
  return _profileFileForks ? _isProfilesNext(extents.front()) : true;
}

/// Whether the profile has nothing else to put where this fork lies. Members that lie below it
/// altogether, and empty ones, have no say; they leave the profile.
Result<bool> HFSPlusDefragPreparation::_isProfilesNext(const HFSPlusExtentDescriptor& inPlace) {
  if (_profileFileForks->empty()) {
    return std::unexpected(XRDefragError::internalHere());
  }
  while (_profileFileForks) {
    const HFSPlusFileFork member = _profileFileForks->fileForkAtIndex(0);
    const auto fork = TRY(HFSPlusForkExtents::open(_volume, member.fileID, member.forkType));
    const HFSPlusForkExtents::Descriptors extents = fork->copyExtentDescriptors(inPlace.startBlock);
    if (!extents.empty() && (extents.size() > 1 || extents.front() != inPlace)) {
      return false;
    }
    _profileFileForks->removeFileForkAtIndex(0);
    if (_profileFileForks->empty()) {
      _profileFileForks.reset();
    }
    if (!extents.empty()) {
      break;
    }
  }
  return true;
}

uint32_t HFSPlusDefragPreparation::_expectedBlocks() const {
  const uint32_t movable = _stretch.map().dataBlockTotal();
  return _skippedBlocks > movable ? 0 : static_cast<uint32_t>(movable - _skippedBlocks);
}
