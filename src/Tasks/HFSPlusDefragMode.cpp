#include "Tasks/HFSPlusDefragMode.hpp"

#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "Tasks/HFSPlusDefragStretch.hpp"

namespace {

constexpr uint32_t kMaxRetries = 2;

std::unexpected<XRDefragError> internalError(
    std::source_location where = std::source_location::current()) {
  return std::unexpected(XRDefragError::internalHere(where));
}

}  // namespace

Result<std::optional<HFSPlusSourceEntry>> HFSPlusDefragMode::getSourceEntry() {
  if (_state.entry.start != 0) {
    return _state.entry;
  }
  if (!_state.extents) {
    const Choice choice = TRY(_state.fileID != 0 ? _resumeFork() : _chooseFork());
    if (choice == Choice::Nothing) {
      return std::nullopt;
    }
    if (!_state.extents) {
      return internalError();
    }
  }
  if (_remainingExtents() == 0) {
    return internalError();
  }
  const HFSPlusExtentDescriptor& extent = (*_state.extents)[_state.firstExtent];
  _state.startBlock = extent.startBlock;
  _state.blockCount = extent.blockCount;
  _state.entry = {extent.startBlock, 0, extent.blockCount, _state.fileID, _state.forkType};
  return _state.entry;
}

auto HFSPlusDefragMode::_resumeFork() -> Result<Choice> {
  if (_profileFileForks) {
    TRY(_checkProfileMember());
  }
  if (!TRY(_loadExtents())) {
    return Choice::Nothing;
  }
  return Choice::Fork;
}

auto HFSPlusDefragMode::_chooseFork() -> Result<Choice> {
  while (_profileFileForks) {
    const Choice choice = TRY(_chooseProfileFork());
    if (choice == Choice::Nothing || _state.fileID != 0) {
      return choice;
    }
  }
  return _chooseFirstAllocatedFork();
}

/// Chooses the profile's first member, or takes it off the profile when nothing of it is to be
/// moved; then no fork is chosen.
auto HFSPlusDefragMode::_chooseProfileFork() -> Result<Choice> {
  if (_profileFileForks->empty()) {
    return internalError();
  }
  const HFSPlusFileFork member = _profileFileForks->fileForkAtIndex(0);
  if (member.fileID == 0) {
    return internalError();
  }
  _state.fileID = member.fileID;
  _state.forkType = member.forkType;
  if (!TRY(_loadExtents())) {
    _state.fileID = 0;
    return Choice::Nothing;
  }
  if (_remainingExtents() == 0) {
    _removeProfileMember();
    _freeExtents();
    _state.fileID = 0;
  }
  return Choice::Fork;
}

auto HFSPlusDefragMode::_chooseFirstAllocatedFork() -> Result<Choice> {
  const HFSPlusExtentMap& map = _stretch.map();
  auto run = map.firstEntry();
  if (!run) {
    return Choice::Nothing;
  }
  if (_state.searchBlock > run->entry->start) {
    run = map.findEntry(_state.searchBlock);
  }
  while (run && run->entry->info.type != kHFSPlusExtentAllocated) {
    run = map.nextEntry(run->entry);
  }
  if (!run) {
    if (_state.retries >= kMaxRetries) {
      return std::unexpected(
          XRDefragError::localized("Volume is too congested, unable to continue."));
    }
    ++_state.retries;
    return Choice::Nothing;
  }
  if (run->entry->cnid == 0) {
    return internalError();
  }
  _state.retries = 0;
  _state.searchBlock = run->entry->start;
  _state.fileID = run->entry->cnid;
  _state.forkType = run->entry->info.forkType;
  TRY(_loadExtents());
  // Two files with one ID: the catalog leads to the one, the map to the blocks of the other.
  if (_remainingExtents() == 0) {
    return std::unexpected(_volume.catalog().inconsistent());
  }
  return Choice::Fork;
}

/// Loads what the chosen fork has at or above the front; false when the map is empty.
Result<bool> HFSPlusDefragMode::_loadExtents() {
  const auto front = _stretch.map().firstEntry();
  if (!front) {
    return false;
  }
  const auto fork = TRY(HFSPlusForkExtents::open(_volume, _state.fileID, _state.forkType));
  _state.extents = fork->copyExtentDescriptors(front->entry->start);
  _state.firstExtent = 0;
  return true;
}

Result<> HFSPlusDefragMode::putSourceEntry(const HFSPlusSourceEntry& taken) {
  if (_state.entry.start == 0 || taken.count > _state.entry.count) {
    return internalError();
  }
  if (_state.entry.start != _state.startBlock) {
    return internalError();
  }
  if (!_state.extents || _remainingExtents() == 0) {
    return internalError();
  }
  if (taken.count < _state.entry.count) {
    _state.entry.offset += taken.count;
    _state.entry.count -= taken.count;
    return {};
  }
  ++_state.firstExtent;
  if (_remainingExtents() == 0) {
    if (_profileFileForks) {
      TRY(_checkProfileMember());
      _removeProfileMember();
    }
    _freeExtents();
    _state.fileID = 0;
  }
  _clearEntry();
  return {};
}

void HFSPlusDefragMode::updateSource() {
  _freeExtents();
  _clearEntry();
  _state.finished.clear();
  _state.searchBlock = 0;
}

void HFSPlusDefragMode::startOver(const HFSPlusFileFork& fork) {
  _restoreProfileMembers();
  updateSource();
  // A profile begins with its first member, which may be one that has nothing to be moved.
  const bool isChosenByProfile = _profileFileForks.has_value();
  _state.fileID = isChosenByProfile ? 0 : fork.fileID;
  _state.forkType = fork.forkType;
}

void HFSPlusDefragMode::forgetFile(uint32_t fileID) {
  if (_state.fileID == fileID) {
    updateSource();
    _state.fileID = 0;
  }
}

Result<> HFSPlusDefragMode::_checkProfileMember() const {
  if (_profileFileForks->empty()) {
    return internalError();
  }
  if (_profileFileForks->fileForkAtIndex(0) != HFSPlusFileFork{_state.fileID, _state.forkType}) {
    return internalError();
  }
  return {};
}

void HFSPlusDefragMode::_removeProfileMember() {
  _state.finished.push_back(_profileFileForks->fileForkAtIndex(0));
  _profileFileForks->removeFileForkAtIndex(0);
  if (_profileFileForks->empty()) {
    _profileFileForks.reset();
  }
}

/// Puts the members that have left the profile in this batch back to its front.
void HFSPlusDefragMode::_restoreProfileMembers() {
  if (_state.finished.empty()) {
    return;
  }
  if (!_profileFileForks) {
    _profileFileForks.emplace();
  }
  _profileFileForks->addInFront(_state.finished);
}

void HFSPlusDefragMode::_clearEntry() {
  _state.startBlock = 0;
  _state.blockCount = 0;
  _state.entry = {};
}

void HFSPlusDefragMode::_freeExtents() {
  _state.extents.reset();
  _state.firstExtent = 0;
}

size_t HFSPlusDefragMode::_remainingExtents() const {
  return _state.extents->size() - _state.firstExtent;
}
