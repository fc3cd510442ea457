#include "Tasks/HFSPlusDefragStretch.hpp"

#include <algorithm>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "HFSPlus/HFSPlusForkWalk.hpp"
#include "HFSPlus/HFSPlusJournal.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWDebug.hpp"
#include "Tasks/HFSPlusBlockMarking.hpp"
#include "Tasks/HFSPlusUnlistedForks.hpp"

namespace {

constexpr HFSPlusExtentInfo kImmutable{0, kHFSDataForkType, kHFSPlusExtentImmutable};

XRDefragError blockOutOfRange(uint64_t block) {
  return XRDefragError::localized("Allocation block %1$lu is out of range.", block);
}

}  // namespace

HFSPlusDefragStretch::HFSPlusDefragStretch(HFSPlusVolume& volume, std::function<bool()> cancelled,
                                           uint64_t capacity)
    : _volume(volume),
      _cancelled(std::move(cancelled)),
      _capacity(capacity),
      _extentMap(
          std::make_unique<HFSPlusExtentMap>(volume, volume.hostVolumeHeader().totalBlocks)) {}

bool HFSPlusDefragStretch::reachesVolumeEnd() const {
  return _extentNextStartBlock >= _volume.hostVolumeHeader().totalBlocks;
}

uint32_t HFSPlusDefragStretch::movableBlocks() const {
  return _extentMap->blockCount() - _extentMap->blockCountForType(kHFSPlusExtentImmutable);
}

Result<> HFSPlusDefragStretch::build(uint32_t startBlock) {
  // The old map goes first, so that there are never two.
  _extentMap.reset();
  _extentMap = std::make_unique<HFSPlusExtentMap>(_volume, startBlock);
  _extentMap->limitMemoryUsageTo(_capacity * HFSPlusExtentMap::kBytesPerEntry + 1);
  const Result<> result = _buildExtentMap();
  _extentMap->limitMemoryUsageTo(0);
  _extentBlockCount = _extentMap->blockCount();
  _extentNextStartBlock = _extentMap->startBlock() + _extentBlockCount;
  return result;
}

Result<> HFSPlusDefragStretch::_buildExtentMap() {
  TRY(_insertHeaders());
  TRY(_insertJournal());
  TRY(_insertBadBlocks());
  TRY(_insertUnlistedForks());
  TRY(_insertSpecialFiles());
  TRY(_volume.scanCatalogFiles(*this));
  if (_cancelled()) {
    return std::unexpected(XRDefragError::userCancelled());
  }
  return _crossCheck();
}

Result<> HFSPlusDefragStretch::_insertHeaders() {
  const HFSPlusVolumeHeader& header = _volume.hostVolumeHeader();
  const uint32_t bootBlocks = (kHFSPlusBootAreaBytes + header.blockSize - 1) / header.blockSize;
  const uint32_t alternateBlocks = header.blockSize <= 512 ? 2 : 1;
  if (header.totalBlocks < std::max(bootBlocks, alternateBlocks)) {
    return std::unexpected(blockOutOfRange(bootBlocks));
  }
  TRY(_insertExtent(0, bootBlocks, 0, kImmutable));
  return _insertExtent(header.totalBlocks - alternateBlocks, alternateBlocks, 0, kImmutable);
}

Result<uint32_t> HFSPlusDefragStretch::_fileIDForPath(const char* path) {
  const HFSPlusCatalogRecord record = TRY(_volume.catalog().copyRecordForPath(path));
  return record.isFile() ? record.file().fileID : 0;
}

Result<> HFSPlusDefragStretch::_insertJournal() {
  if (!_volume.isJournaled()) {
    return {};
  }
  const uint32_t infoFileID = TRY(_fileIDForPath("/.journal_info_block"));
  TRY(_insertExtent(_volume.hostVolumeHeader().journalInfoBlock, 1, infoFileID, kImmutable));

  const std::optional<HFSPlusJournal> journal = TRY(HFSPlusFindJournal(_volume));
  if (!journal) {
    return {};
  }
  if (journal->hasTransactions) {
    // Whoever mounts the volume would write them over what the run has written.
    return std::unexpected(XRDefragError::localized("Volume is inconsistent."));
  }
  const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
  const uint64_t count = (blockSize - 1 + journal->offset % blockSize + journal->size) / blockSize;
  const uint32_t journalFileID = TRY(_fileIDForPath("/.journal"));
  return _insertExtent(journal->offset / blockSize, count, journalFileID, kImmutable);
}

Result<> HFSPlusDefragStretch::_insertBadBlocks() {
  const HFSPlusCatalogRecord record = TRY(_volume.catalog().copyRecordForCNID(kHFSBadBlockFileID));
  if (!record.isFile()) {
    return {};
  }
  return _insertFileExtents(record.file(), kHFSPlusExtentImmutable);
}

/// Known to the map like everything else that has an owner, so that blocks are found which a file
/// claims as well.
Result<> HFSPlusDefragStretch::_insertUnlistedForks() {
  return HFSPlusVisitUnlistedForks(_volume, [this](const HFSPlusExtentDescriptor& extent) {
    return _insertExtent(extent.startBlock, extent.blockCount, 0, kImmutable);
  });
}

Result<> HFSPlusDefragStretch::_insertSpecialFiles() {
  TRY(_buildSpecialFileExtentMap(kHFSAllocationFileID, kHFSPlusExtentAllocated));
  TRY(_buildSpecialFileExtentMap(kHFSAttributesFileID, kHFSPlusExtentAllocated));
  TRY(_buildSpecialFileExtentMap(kHFSCatalogFileID, kHFSPlusExtentAllocated));
  TRY(_buildSpecialFileExtentMap(
      kHFSExtentsFileID, _extentsFilePinned ? kHFSPlusExtentImmutable : kHFSPlusExtentAllocated));
  return _buildSpecialFileExtentMap(kHFSStartupFileID, kHFSPlusExtentImmutable);
}

Result<> HFSPlusDefragStretch::_buildSpecialFileExtentMap(uint32_t fileID, HFSPlusExtentType type) {
  const auto fork = TRY(HFSPlusForkExtents::open(_volume, fileID, kHFSDataForkType));
  for (const HFSPlusExtentDescriptor& extent : fork->copyExtentDescriptors(0)) {
    TRY(_insertExtent(extent.startBlock, extent.blockCount, fileID, {0, kHFSDataForkType, type}));
  }
  return {};
}

Result<> HFSPlusDefragStretch::scanCatalogFile(const DiskOrder<HFSPlusCatalogFile>& file,
                                               const HFSPlusCatalogKeyView&) {
  const HFSPlusCatalogFile host = toHost(file);
  // The map could not tell the blocks of such a file from free ones, or from the volume's own.
  if (host.fileID == 0 || _volume.isSpecialFile(host.fileID)) {
    return std::unexpected(_volume.catalog().inconsistent());
  }
  // Bad blocks stay where they are, also when the catalog lists them like any other file.
  return _insertFileExtents(
      host, host.fileID == kHFSBadBlockFileID ? kHFSPlusExtentImmutable : kHFSPlusExtentAllocated);
}

Result<> HFSPlusDefragStretch::_insertFileExtents(const HFSPlusCatalogFile& file,
                                                  HFSPlusExtentType type) {
  TRY(_insertForkExtents(file.dataFork, file.fileID, kHFSDataForkType, type));
  return _insertForkExtents(file.resourceFork, file.fileID, kHFSResourceForkType, type);
}

Result<> HFSPlusDefragStretch::_insertForkExtents(const HFSPlusForkData& fork, uint32_t fileID,
                                                  uint8_t forkType, HFSPlusExtentType type) {
  if (_immutableFileForks.contains(fileID, forkType)) {
    type = kHFSPlusExtentImmutable;
  }
  const auto insert = [&](const HFSPlusExtentDescriptor& extent) {
    return _insertExtent(extent.startBlock, extent.blockCount, fileID, {0, forkType, type});
  };
  return HFSPlusWalkForkExtents(_volume.extents(), fork, fileID, forkType, insert);
}

Result<> HFSPlusDefragStretch::_insertExtent(uint64_t start, uint64_t count, uint32_t cnid,
                                             HFSPlusExtentInfo info) {
  const uint32_t totalBlocks = _volume.hostVolumeHeader().totalBlocks;
  if (start > totalBlocks || count > totalBlocks - start) {
    return std::unexpected(blockOutOfRange(start + count));
  }
  if (info.type == kHFSPlusExtentImmutable) {
    // Several structures may claim the same immutable blocks: the journal and its file, say.
    while (count > 0) {
      const auto run = _extentMap->findEntry(static_cast<uint32_t>(start));
      if (!run || run->entry->info.type != kHFSPlusExtentImmutable) {
        break;
      }
      const uint64_t end = uint64_t{run->entry->start} + run->count;
      const uint64_t covered = std::min(end - start, count);
      start += covered;
      count -= covered;
    }
  }
  return _extentMap->insert(static_cast<uint32_t>(start), static_cast<uint32_t>(count), cnid, info);
}

Result<> HFSPlusDefragStretch::_crossCheck() {
  // Goes by blocks, not by entries: keeping set blocks splits entries, and clips the last ones.
  uint32_t block = _extentMap->startBlock();
  while (const auto run = _extentMap->findEntry(block)) {
    const uint32_t start = run->entry->start;
    const uint32_t count = run->count;
    if (run->entry->info.type == kHFSPlusExtentUnalloced) {
      TRY(_keepSetBlocks(start, count));
    } else {
      TRY(HFSPlusMarkOwnedBlocks(_volume, start, count));
    }
    block = start + count;
  }
  return {};
}

Result<> HFSPlusDefragStretch::_keepSetBlocks(uint32_t start, uint32_t count) {
  HFSPlusAllocation& allocation = _volume.allocation();
  while (count > 0) {
    const uint32_t clear = TRY(allocation.isClear(start, count));
    start += clear;
    count -= clear;
    const uint32_t set = count > 0 ? TRY(allocation.isSet(start, count)) : 0;
    if (set > 0) {
      TRY(_insertExtent(start, set, 0, kImmutable));
      LWDebugLog(LWDebugLevel::Warning,
                 "Allocation bitmap block = %08X with count = %u was not clear (and should have "
                 "been), marking range immutable.\n",
                 start, set);
    }
    start += set;
    count -= set;
  }
  return {};
}
