#include "Tasks/HFSPlusCompactMode.hpp"

#include "Tasks/HFSPlusDefragStretch.hpp"

namespace {

constexpr uint32_t kMaxRetries = 2;

}  // namespace

Result<std::optional<HFSPlusSourceEntry>> HFSPlusCompactMode::getSourceEntry() {
  if (_state.entry.start != 0) {
    return _state.entry;
  }
  auto run = TRY(_runAtCursor());
  while (run && run->entry->info.type != kHFSPlusExtentAllocated) {
    run = _stretch.map().nextEntry(run->entry);
    if (run) {
      _state.startBlock = run->entry->start;
    }
  }
  if (!run) {
    return std::nullopt;
  }
  _state.startBlock = run->entry->start;
  _state.blockCount = run->count;
  _state.entry = {run->entry->start, 0, run->count, run->entry->cnid, run->entry->info.forkType};
  return _state.entry;
}

/// The run that contains the cursor; none when the map has to be rebuilt.
Result<std::optional<HFSPlusExtentRun>> HFSPlusCompactMode::_runAtCursor() {
  const HFSPlusExtentMap& map = _stretch.map();
  if (_state.startBlock == 0) {
    const auto first = map.firstEntry();
    if (first) {
      _state.startBlock = first->entry->start;
      _state.retries = 0;
    }
    return first;
  }
  const auto run = map.findEntry(_state.startBlock);
  if (run) {
    _state.retries = 0;
    if (run->entry->info.type == kHFSPlusExtentAllocated && run->entry->start < _state.startBlock) {
      return std::unexpected(XRDefragError::internalHere());
    }
    return run;
  }
  if (map.blockCount() == 0) {
    return std::nullopt;
  }
  if (_state.startBlock < map.startBlock()) {
    return std::unexpected(XRDefragError::internalHere());
  }
  if (_state.retries >= kMaxRetries) {
    return std::unexpected(
        XRDefragError::localized("Volume is too congested, unable to continue."));
  }
  ++_state.retries;
  return std::nullopt;
}

Result<> HFSPlusCompactMode::putSourceEntry(const HFSPlusSourceEntry& taken) {
  if (_state.entry.start == 0 || taken.count > _state.entry.count) {
    return std::unexpected(XRDefragError::internalHere());
  }
  if (_state.entry.start != _state.startBlock) {
    return std::unexpected(XRDefragError::internalHere());
  }
  if (taken.count < _state.entry.count) {
    _state.entry.offset += taken.count;
    _state.entry.count -= taken.count;
    return {};
  }
  _state.startBlock = _state.entry.start + _state.blockCount;
  _state.blockCount = 0;
  _state.entry = {};
  return {};
}

void HFSPlusCompactMode::updateSource() {
  _state.startBlock += _state.blockCount - _state.entry.count;
  _state.blockCount = 0;
  _state.entry = {};
}

void HFSPlusCompactMode::startOver(const HFSPlusFileFork&) {
  // Nothing lies between the front and where the batch began, so that seeking from the front finds
  // the same place.
  _state.startBlock = 0;
  _state.blockCount = 0;
  _state.entry = {};
}

void HFSPlusCompactMode::forgetFile(uint32_t) {}
