// Writing a fork's edited extents back.
//
// Record by record the new extents take the place of the old ones as long as both cover the same
// number of blocks, so that no overflow record changes its key; from the first pair on that does
// not, the old records are deleted, the last one first, and the new ones inserted.

#include <algorithm>
#include <numeric>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"

namespace {

using Descriptors = HFSPlusForkExtents::Descriptors;

/// Joins neighbours that follow on from each other.
void coalesce(Descriptors& list) {
  if (list.empty()) {
    return;
  }
  auto last = list.begin();
  for (auto next = last + 1; next != list.end(); ++next) {
    if (uint64_t{last->startBlock} + last->blockCount == next->startBlock) {
      last->blockCount += next->blockCount;
    } else {
      *++last = *next;
    }
  }
  list.erase(last + 1, list.end());
}

std::vector<HFSPlusExtentRecord> packed(const Descriptors& list) {
  std::vector<HFSPlusExtentRecord> records((list.size() + kHFSPlusExtentDensity - 1) /
                                           kHFSPlusExtentDensity);
  for (size_t i = 0; i < list.size(); ++i) {
    records[i / kHFSPlusExtentDensity][i % kHFSPlusExtentDensity] = list[i];
  }
  return records;
}

/// Blocks of a record.
uint64_t blocksOf(const HFSPlusExtentRecord& record) {
  return std::accumulate(record.begin(), record.end(), uint64_t{0},
                         [](uint64_t blocks, const HFSPlusExtentDescriptor& extent) {
                           return extent.startBlock == 0 ? blocks : blocks + extent.blockCount;
                         });
}

/// The blocks that `these` have and `those` do not, as ranges. Both are sorted by start block and
/// do not overlap within themselves.
template <typename Visit>
Result<> visitDifference(const Descriptors& these, const Descriptors& those, Visit&& visit) {
  auto other = those.begin();
  for (const HFSPlusExtentDescriptor& extent : these) {
    uint64_t block = extent.startBlock;
    const uint64_t end = block + extent.blockCount;
    while (other != those.end() && uint64_t{other->startBlock} + other->blockCount <= block) {
      ++other;
    }
    for (auto cover = other; block < end; ++cover) {
      const uint64_t covered =
          cover == those.end() ? end : std::max<uint64_t>(cover->startBlock, block);
      if (const uint64_t stop = std::min(covered, end); stop > block) {
        TRY(visit(static_cast<uint32_t>(block), static_cast<uint32_t>(stop - block)));
      }
      if (cover == those.end()) {
        break;
      }
      block = std::max(block, uint64_t{cover->startBlock} + cover->blockCount);
    }
  }
  return {};
}

}  // namespace

Result<> HFSPlusForkExtents::update() {
  if (!_modifiedDescriptors) {
    return {};
  }
  coalesce(*_modifiedDescriptors);
  std::vector<HFSPlusExtentRecord> records = packed(*_modifiedDescriptors);
  TRY(_writeRecords(records));
  TRY(_updateAllocation(*_modifiedDescriptors));
  _originalRecords = std::move(records);
  _originalDescriptors = *std::move(_modifiedDescriptors);
  _modifiedDescriptors.reset();
  _searchStart = 0;
  return {};
}

Result<> HFSPlusForkExtents::_writeRecords(std::span<const HFSPlusExtentRecord> records) {
  const size_t pairs = std::min(records.size(), _originalRecords.size());
  if (pairs == 0) {
    return _deleteAllRecords();
  }
  uint64_t startBlock = 0;
  size_t index = 0;
  for (bool aligned = true; aligned && index < pairs; ++index) {
    const HFSPlusExtentRecord& old = _originalRecords[index];
    const HFSPlusExtentRecord& record = records[index];
    if (record != old) {
      aligned = blocksOf(record) == blocksOf(old);
      if (!aligned) {
        TRY(_deleteRecordsBehind(index, startBlock));
      }
      TRY(_updateForkExtents(record, static_cast<uint32_t>(startBlock)));
    }
    startBlock += blocksOf(record);
  }
  for (; index < records.size(); ++index) {
    TRY(_insertForkExtents(records[index], static_cast<uint32_t>(startBlock)));
    startBlock += blocksOf(records[index]);
  }
  return {};
}

Result<> HFSPlusForkExtents::_deleteRecordsBehind(size_t index, uint64_t startBlock) {
  uint64_t end = startBlock;
  for (size_t i = index; i + 1 < _originalRecords.size(); ++i) {
    end += blocksOf(_originalRecords[i]);
  }
  for (size_t last = _originalRecords.size() - 1; last > index; --last) {
    TRY(_deleteForkExtents(static_cast<uint32_t>(end), false));
    end -= blocksOf(_originalRecords[last - 1]);
  }
  return {};
}

Result<> HFSPlusForkExtents::_deleteAllRecords() {
  uint64_t startBlock = 0;
  for (const HFSPlusExtentRecord& record : _originalRecords) {
    TRY(_deleteForkExtents(static_cast<uint32_t>(startBlock), true));
    startBlock += blocksOf(record);
  }
  return {};
}

Result<> HFSPlusForkExtents::_writeFirstRecord(const HFSPlusExtentRecord& record,
                                               bool setZeroLength) {
  if (_specialFile) {
    if (setZeroLength) {
      return std::unexpected(XRDefragError::internal("HFSPlus/HFSPlusForkExtents", 653));
    }
    TRY(_volume.updateForkExtents(record, _fileID));
  } else {
    TRY(_volume.catalog().updateForkExtents(record, _fileID, _forkType, setZeroLength));
  }
  _fork().extents = record;
  return {};
}

Result<> HFSPlusForkExtents::_updateForkExtents(const HFSPlusExtentRecord& record,
                                                uint32_t startBlock) {
  if (startBlock == 0) {
    return _writeFirstRecord(record, false);
  }
  TRY(_overflowRecord(startBlock));
  return _volume.extents().updateExtentRecord(record, startBlock, _fileID, _forkType);
}

Result<> HFSPlusForkExtents::_insertForkExtents(const HFSPlusExtentRecord& record,
                                                uint32_t startBlock) {
  if (startBlock == 0) {
    return _writeFirstRecord(record, false);
  }
  if (_fileID == kHFSExtentsFileID) {
    // The overflow file finds itself by the header alone: it has no overflow records.
    return std::unexpected(
        XRDefragError::localized("Overflow extents file is too congested, unable to continue."));
  }
  return _volume.extents().insertExtentRecord(record, startBlock, _fileID, _forkType);
}

Result<> HFSPlusForkExtents::_deleteForkExtents(uint32_t startBlock, bool setZeroLength) {
  if (startBlock == 0) {
    return _writeFirstRecord(HFSPlusExtentRecord{}, setZeroLength);
  }
  TRY(_overflowRecord(startBlock));
  return _volume.extents().deleteExtentRecord(startBlock, _fileID, _forkType);
}

Result<> HFSPlusForkExtents::_updateAllocation(const Descriptors& descriptors) {
  // What the fork keeps is not touched: forks of many extents change only a few at a time.
  Descriptors before = _originalDescriptors;
  Descriptors after = descriptors;
  const auto startBlock = &HFSPlusExtentDescriptor::startBlock;
  std::ranges::sort(before, {}, startBlock);
  std::ranges::sort(after, {}, startBlock);
  HFSPlusAllocation& allocation = _volume.allocation();
  TRY(visitDifference(before, after, [&](uint32_t block, uint32_t count) {
    return allocation.clear(block, count);
  }));
  return visitDifference(
      after, before, [&](uint32_t block, uint32_t count) { return allocation.set(block, count); });
}
