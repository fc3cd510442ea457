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

Result<uint32_t> HFSPlusCopyList::performCopyList(bool countProgress) {
  TRY(_checkFit());
  _volume.yieldGate();
  TRY(_readSources());
  TRY(_mayGoOn());
  TRY(_writeDestinations());
  _volume.yieldGate();

  Result<uint32_t> result = _updateForks(countProgress);
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
std::vector<XRDefragVolume::Transfer> HFSPlusCopyList::_transfersOf(Block&& blockOf) const {
  struct Run {
    uint32_t block;
    uint32_t count;
    uint32_t bufferBlock;
  };
  std::vector<Run> runs;
  uint32_t bufferBlock = 0;
  for (const HFSPlusCopyEntry& entry : _entries) {
    const uint32_t block = std::invoke(blockOf, entry);
    if (!runs.empty() && runs.back().block + runs.back().count == block) {
      runs.back().count += entry.count;
    } else {
      runs.push_back({block, entry.count, bufferBlock});
    }
    bufferBlock += entry.count;
  }
  std::ranges::sort(runs, {}, &Run::block);

  std::vector<XRDefragVolume::Transfer> transfers;
  transfers.reserve(runs.size());
  for (const Run& run : runs) {
    transfers.push_back(
        {_buffer.blocks(run.bufferBlock, run.count), uint64_t{run.block} * _buffer.blockSize()});
  }
  return transfers;
}

Result<> HFSPlusCopyList::_readSources() {
  return _volume.readAll(_transfersOf(&HFSPlusCopyEntry::source), [this] { return _mayGoOn(); });
}

Result<> HFSPlusCopyList::_writeDestinations() {
  return _volume.writeAll(_transfersOf(&HFSPlusCopyEntry::nustart), [this] { return _mayGoOn(); });
}

std::vector<HFSPlusCopyGroup> HFSPlusCopyList::groups() const {
  // Each fork is read and written back once, however its pieces are interleaved with others'.
  std::vector<HFSPlusCopyGroup> groups;
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
  std::ranges::stable_partition(
      groups, [&](const HFSPlusCopyGroup& group) { return _volume.isSpecialFile(group.cnid); });
  return groups;
}

/// Points all forks to their new places, and flushes: as many at a time as may be held back, and as
/// there is room to write down.
Result<uint32_t> HFSPlusCopyList::_updateForks(bool countProgress) {
  const std::vector<HFSPlusCopyGroup> forks = groups();
  // The volume's own files all go with the first flush. It would change them where they were, and
  // what has been copied from there would be out of date.
  const auto isOwn = [&](const HFSPlusCopyGroup& group) {
    return _volume.isSpecialFile(group.cnid);
  };
  size_t least = std::max<size_t>(1, static_cast<size_t>(std::ranges::count_if(forks, isOwn)));
  size_t most = forks.size();
  size_t done = 0;
  while (done < forks.size()) {
    size_t next = done;
    while (next < done + least || (next < std::min(done + most, forks.size()) &&
                                   _volume.heldWrites().byteCount() < kHeldBytesLimit)) {
      TRY(_updateFork(forks[next++]));
      _volume.yieldGate();
    }
    const HFSPlusBlockRanges pending = _destinations(std::span(forks).subspan(next));
    if (TRY(_volume.flush(pending)) == HFSPlusVolume::FlushOutcome::Flushed) {
      _report(std::span(forks).subspan(done, next - done), countProgress);
      done = next;
      least = 1;
      if (done < forks.size()) {
        TRY(_mayGoOn());
      }
      continue;
    }
    TRY(_volume.discardChanges());
    if (next - done == least) {
      break;
    }
    most = std::max(least, (next - done) / 2);
  }
  return _leadingEntries(std::span(forks).subspan(done));
}

Result<> HFSPlusCopyList::_updateFork(const HFSPlusCopyGroup& group) {
  const auto fork = TRY(HFSPlusForkExtents::open(_volume, group.cnid, group.forkType));
  for (const uint32_t i : group.entries) {
    const HFSPlusCopyEntry& entry = _entries[i];
    TRY(fork->move(entry.source(), entry.nustart, entry.count));
  }

  Descriptors before = fork->copyExtentDescriptors(_stretch.map().startBlock());
  TRY(fork->update());
  Descriptors after = fork->copyExtentDescriptors(_stretch.map().startBlock());
  return _updateMap(std::move(before), std::move(after), _entries[group.entries.back()].entry);
}

/// Brings a fork's entries of the map from the extents that it had to those that it has now. What
/// has stayed is left alone: a fork may have very many extents.
Result<> HFSPlusCopyList::_updateMap(Descriptors before, Descriptors after,
                                     const HFSPlusExtentMapEntry& owner) {
  const auto byPlace = [](const HFSPlusExtentDescriptor& a, const HFSPlusExtentDescriptor& b) {
    return std::pair(a.startBlock, a.blockCount) < std::pair(b.startBlock, b.blockCount);
  };
  std::ranges::sort(before, byPlace);
  std::ranges::sort(after, byPlace);
  HFSPlusExtentMap& map = _stretch.map();
  Descriptors left;
  std::ranges::set_difference(before, after, std::back_inserter(left), byPlace);
  for (const HFSPlusExtentDescriptor& extent : left) {
    TRY(map.deleteBlocks(extent.startBlock, extent.blockCount));
  }
  if (map.blockCount() == 0) {
    return {};  // the batch has settled the last of this stretch
  }
  Descriptors taken;
  std::ranges::set_difference(after, before, std::back_inserter(taken), byPlace);
  for (const HFSPlusExtentDescriptor& extent : taken) {
    // It is there already when the fork is pointed to its place for the second time.
    TRY(map.deleteBlocks(extent.startBlock, extent.blockCount));
    TRY(map.insert(extent.startBlock, extent.blockCount, owner.cnid, owner.info));
  }
  return {};
}

/// Tells of the moves of these forks, which now last, in the order of the list.
void HFSPlusCopyList::_report(std::span<const HFSPlusCopyGroup> groups, bool countProgress) {
  std::vector<uint32_t> done;
  for (const HFSPlusCopyGroup& group : groups) {
    done.insert(done.end(), group.entries.begin(), group.entries.end());
  }
  std::ranges::sort(done);
  for (const uint32_t i : done) {
    const HFSPlusCopyEntry& entry = _entries[i];
    _progress.moved(entry.source(), entry.nustart, entry.count, countProgress);
  }
  _progress.send();
}

HFSPlusBlockRanges HFSPlusCopyList::_destinations(std::span<const HFSPlusCopyGroup> groups) const {
  HFSPlusBlockRanges blocks;
  for (const HFSPlusCopyGroup& group : groups) {
    for (const uint32_t i : group.entries) {
      blocks.add(_entries[i].nustart, _entries[i].count);
    }
  }
  return blocks;
}

/// Entries before the first one of these forks.
uint32_t HFSPlusCopyList::_leadingEntries(std::span<const HFSPlusCopyGroup> undone) const {
  auto leading = static_cast<uint32_t>(_entries.size());
  for (const HFSPlusCopyGroup& group : undone) {
    leading = std::min(leading, group.entries.front());
  }
  return leading;
}
