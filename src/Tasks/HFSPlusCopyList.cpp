#include "Tasks/HFSPlusCopyList.hpp"

#include <algorithm>
#include <unordered_map>

#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "HFSPlus/HFSPlusHeldWrites.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWDebug.hpp"
#include "Tasks/HFSPlusCopyBuffer.hpp"
#include "Tasks/HFSPlusDefragProgress.hpp"
#include "Tasks/HFSPlusDefragStretch.hpp"

HFSPlusCopyList::HFSPlusCopyList(HFSPlusVolume& volume, HFSPlusDefragStretch& stretch,
                                 const HFSPlusCopyBuffer& buffer, HFSPlusDefragProgress& progress,
                                 std::function<bool()> cancelled)
    : _volume(volume),
      _stretch(stretch),
      _buffer(buffer),
      _progress(progress),
      _cancelled(std::move(cancelled)) {}

void HFSPlusCopyList::appendCopyEntry(const HFSPlusExtentMapEntry& entry, uint32_t offset,
                                      uint32_t count, uint32_t nustart) {
  _entries.push_back({entry, offset, count, nustart});
}

Result<> HFSPlusCopyList::performCopyList(bool countProgress) {
  TRY(_checkFit());
  _volume.yieldGate();
  TRY(_readSources());
  TRY(_mayGoOn());
  TRY(_writeDestinations());
  _volume.yieldGate();

  Result<> result = _updateForks(countProgress);
  if (!result) {
    if (const Result<> discarded = _volume.discardChanges(); !discarded) {
      LWDebugLog(LWDebugLevel::Warning, "%@\n", discarded.error().description());
    }
  }
  return result;
}

Result<> HFSPlusCopyList::_checkFit() const {
  uint64_t blocks = 0;
  for (const HFSPlusCopyEntry& entry : _entries) {
    blocks += entry.count;
  }
  if (blocks > _buffer.blockCount()) {
    return std::unexpected(XRDefragError::internalHere());
  }
  return {};
}

/// Lets the others have a turn; an error if the run is to end.
Result<> HFSPlusCopyList::_mayGoOn() {
  _volume.yieldGate();
  if (_cancelled()) {
    return std::unexpected(XRDefragError::userCancelled());
  }
  return {};
}

/// The moves as transfers at blockOf(entry): as large as possible, and in the order of the blocks,
/// which a disk with heads covers in one sweep. The buffer is filled in the order of the list.
template <typename Block>
auto HFSPlusCopyList::_transfersOf(Block&& blockOf) const -> std::vector<Transfer> {
  std::vector<Transfer> transfers;
  uint32_t bufferBlock = 0;
  for (const HFSPlusCopyEntry& entry : _entries) {
    const uint32_t block = std::invoke(blockOf, entry);
    if (!transfers.empty() && transfers.back().block + transfers.back().count == block) {
      transfers.back().count += entry.count;
    } else {
      transfers.push_back({block, entry.count, bufferBlock});
    }
    bufferBlock += entry.count;
  }
  std::ranges::sort(transfers, {}, &Transfer::block);
  return transfers;
}

Result<> HFSPlusCopyList::_readSources() {
  bool first = true;
  for (const Transfer& transfer : _transfersOf(&HFSPlusCopyEntry::source)) {
    if (!std::exchange(first, false)) {
      TRY(_mayGoOn());
    }
    TRY(_volume.read(_buffer.blocks(transfer.bufferBlock, transfer.count),
                     uint64_t{transfer.block} * _buffer.blockSize()));
  }
  return {};
}

Result<> HFSPlusCopyList::_writeDestinations() {
  const auto destination = [](const HFSPlusCopyEntry& entry) { return entry.nustart; };
  bool first = true;
  for (const Transfer& transfer : _transfersOf(destination)) {
    if (!std::exchange(first, false)) {
      TRY(_mayGoOn());
    }
    TRY(_volume.write(_buffer.blocks(transfer.bufferBlock, transfer.count),
                      uint64_t{transfer.block} * _buffer.blockSize()));
  }
  return {};
}

/// Brings the entries together by fork, in the order in which the forks first appear: each fork is
/// read and written back once, however its pieces are interleaved with those of others.
auto HFSPlusCopyList::_groups() const -> std::vector<Group> {
  std::vector<Group> groups;
  std::unordered_map<uint64_t, uint32_t> groupOfFork;
  for (uint32_t i = 0; i < _entries.size(); ++i) {
    const HFSPlusExtentMapEntry& entry = _entries[i].entry;
    const uint64_t fork = uint64_t{entry.cnid} << 8 | entry.info.forkType;
    const auto [found, isNew] = groupOfFork.try_emplace(fork, static_cast<uint32_t>(groups.size()));
    if (isNew) {
      groups.push_back({entry.cnid, entry.info.forkType, {}});
    }
    groups[found->second].entries.push_back(i);
  }
  return groups;
}

Result<> HFSPlusCopyList::_updateForks(bool countProgress) {
  const std::vector<Group> groups = _groups();
  size_t flushed = 0;
  for (size_t i = 0; i < groups.size(); ++i) {
    TRY(_updateFork(groups[i]));
    if (_volume.heldWrites().byteCount() >= kHeldBytesLimit) {
      TRY(_flush(std::span(groups).subspan(flushed, i + 1 - flushed), countProgress));
      flushed = i + 1;
    }
    _volume.yieldGate();
  }
  return _flush(std::span(groups).subspan(flushed), countProgress);
}

Result<> HFSPlusCopyList::_updateFork(const Group& group) {
  const auto fork = TRY(HFSPlusForkExtents::open(_volume, group.cnid, group.forkType));
  for (const uint32_t i : group.entries) {
    const HFSPlusCopyEntry& entry = _entries[i];
    TRY(fork->move(entry.source(), entry.nustart, entry.count));
  }

  HFSPlusExtentMap& map = _stretch.map();
  for (const HFSPlusExtentDescriptor& extent : fork->copyExtentDescriptors(0)) {
    TRY(map.deleteBlocks(extent.startBlock, extent.blockCount));
  }
  TRY(fork->update());
  const HFSPlusExtentInfo info = _entries[group.entries.back()].entry.info;
  for (const HFSPlusExtentDescriptor& extent : fork->copyExtentDescriptors(0)) {
    TRY(map.insert(extent.startBlock, extent.blockCount, group.cnid, info));
  }
  return {};
}

/// Makes the moves of these forks last, and only then tells of them, in the order of the list.
Result<> HFSPlusCopyList::_flush(std::span<const Group> groups, bool countProgress) {
  if (TRY(_volume.flush()) == HFSPlusVolume::FlushOutcome::NoRoomForRecord) {
    return std::unexpected(XRDefragError::localized("The amount of free space is insufficient."));
  }
  std::vector<uint32_t> done;
  for (const Group& group : groups) {
    done.insert(done.end(), group.entries.begin(), group.entries.end());
  }
  std::ranges::sort(done);
  for (const uint32_t i : done) {
    const HFSPlusCopyEntry& entry = _entries[i];
    _progress.moved(entry.source(), entry.nustart, entry.count, countProgress);
  }
  return {};
}
