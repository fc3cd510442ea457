#include "Tasks/HFSPlusCopyRehearsal.hpp"

#include <algorithm>
#include <array>
#include <iterator>

#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "Tasks/HFSPlusCopyList.hpp"

namespace {

constexpr uint64_t kNodeDescriptorBytes = 14;
constexpr uint64_t kLeafRecordBytes = 78;  // with its offset
constexpr uint64_t kSpareNodes = 8;        // for the index levels

/// The volume's own files last, the extents file behind all others: once they have been pointed to
/// blocks that have not been written, nothing can be read through them.
constexpr std::array<uint32_t, 5> kPlayedLast = {kHFSCatalogFileID, kHFSAttributesFileID,
                                                 kHFSStartupFileID, kHFSAllocationFileID,
                                                 kHFSExtentsFileID};

}  // namespace

Result<bool> HFSPlusCopyRehearsal::succeeds(std::span<const HFSPlusCopyEntry> entries,
                                            std::span<const HFSPlusCopyGroup> groups) {
  if (_hasAmpleNodes(entries.size(), groups.size())) {
    return true;
  }
  const std::vector<HFSPlusCopyGroup> forks = _forksWithNodes(entries, groups);
  if (forks.empty()) {
    return true;
  }
  if (TRY(_volume.flush()) == HFSPlusVolume::FlushOutcome::NoRoomForRecord) {
    return false;
  }
  const Result<> played = _play(entries, forks);
  TRY(_volume.discardChanges());
  return played.has_value();
}

/// Whether the records would fit even if all of them were inserted anew, which leaves nodes half
/// full, and every fork had its leaf split.
bool HFSPlusCopyRehearsal::_hasAmpleNodes(size_t entryCount, size_t groupCount) const {
  const HFSPlusExtents& tree = _volume.extents();
  const uint64_t leafRecords = (tree.nodeSize() - kNodeDescriptorBytes) / kLeafRecordBytes;
  // A move splits an extent into three at most.
  const uint64_t newRecords = groupCount + 2 * entryCount / kHFSPlusExtentDensity;
  const uint64_t usedNodes = tree.nodeCount() - tree.freeNodes();
  return tree.freeNodes() >= usedNodes + 2 * (groupCount + newRecords / leafRecords) + kSpareNodes;
}

/// The forks that the overflow file has to do with, and those that cannot be moved at all.
std::vector<HFSPlusCopyGroup> HFSPlusCopyRehearsal::_forksWithNodes(
    std::span<const HFSPlusCopyEntry> entries, std::span<const HFSPlusCopyGroup> groups) const {
  std::vector<HFSPlusCopyGroup> forks;
  std::ranges::copy_if(groups, std::back_inserter(forks), [&](const HFSPlusCopyGroup& group) {
    const auto fork = _moved(entries, group);
    return !fork || !(*fork)->staysInFirstRecord();
  });
  return forks;
}

/// A fork with its moves made in its list, which is not written back.
Result<std::unique_ptr<HFSPlusForkExtents>> HFSPlusCopyRehearsal::_moved(
    std::span<const HFSPlusCopyEntry> entries, const HFSPlusCopyGroup& group) const {
  auto fork = TRY(HFSPlusForkExtents::open(_volume, group.cnid, group.forkType));
  for (const uint32_t i : group.entries) {
    TRY(fork->move(entries[i].source(), entries[i].nustart, entries[i].count));
  }
  return fork;
}

Result<> HFSPlusCopyRehearsal::_play(std::span<const HFSPlusCopyEntry> entries,
                                     std::span<const HFSPlusCopyGroup> groups) {
  const auto play = [&](const HFSPlusCopyGroup& group) -> Result<> {
    const auto fork = TRY(_moved(entries, group));
    return fork->update();
  };
  for (const HFSPlusCopyGroup& group : groups) {
    if (!_volume.isSpecialFile(group.cnid)) {
      TRY(play(group));
    }
  }
  for (const uint32_t fileID : kPlayedLast) {
    for (const HFSPlusCopyGroup& group : groups) {
      if (group.cnid == fileID) {
        TRY(play(group));
      }
    }
  }
  return {};
}
