#include "Tasks/HFSPlusFragInfoTask.hpp"

#include <algorithm>
#include <cstring>

#include "HFSPlus/HFSPlusForkWalk.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWDebug.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "Tasks/HFSPlusClosedGate.hpp"
#include "XRDefragReport.hpp"

HFSPlusFragInfoTask::HFSPlusFragInfoTask(HFSPlusVolume& volume, std::shared_ptr<LWToolEvent> event)
    : XRDefragTask(volume), _hfsPlusVolume(volume) {
  setArguments(LWTrimmedComponents(event->string()));
  setEvent(std::move(event));
  setName("FRAGINFO");
}

void HFSPlusFragInfoTask::runTask() {
  reportTaskStart();
  const auto outcome = _scan();
  if (!outcome) {
    reportTaskError(outcome.error());
  }
  reportTaskDone();
}

Result<> HFSPlusFragInfoTask::_scan() {
  if (arguments().size() > 1) {
    return std::unexpected(XRDefragError::localized("Unknown option: %1$@", arguments()[1]));
  }
  const HFSPlusClosedGate closed(_hfsPlusVolume);
  _startBlock = _hfsPlusVolume.firstDataBlock();
  LWDebugLog(LWDebugLevel::Debug, "%@,DEBUG,Starting at block %08X\n", name(), _startBlock);
  TRY(_hfsPlusVolume.scanCatalogFiles(*this));
  // The product is one of 32 bits and wraps around, as the line's readers know it.
  const uint32_t percent = _fragmentedBlocks * 100 / std::max(_totalBlocks, 1U);
  XRDefragReport::shared().print(
      LWFormat("%s,%u,%u,%u\n", name(), _fragmentedBlocks, _totalBlocks, percent));
  return {};
}

Result<> HFSPlusFragInfoTask::scanCatalogFile(const DiskOrder<HFSPlusCatalogFile>& file,
                                              const HFSPlusCatalogKeyView&) {
  const std::byte* record = file.bytes.data();
  TRY(_countFork(record + offsetof(HFSPlusCatalogFile, dataFork), file, kHFSDataForkType));
  return _countFork(record + offsetof(HFSPlusCatalogFile, resourceFork), file,
                    kHFSResourceForkType);
}

Result<> HFSPlusFragInfoTask::_countFork(const std::byte* fork,
                                         const DiskOrder<HFSPlusCatalogFile>& file,
                                         uint8_t forkType) {
  // Nearly all forks end within the record: their numbers are read where they lie.
  const auto totalBlocks = readBigEndian<uint32_t>(fork + offsetof(HFSPlusForkData, totalBlocks));
  const std::byte* extent = fork + offsetof(HFSPlusForkData, extents);
  ForkCount count;
  uint64_t seen = 0;
  for (size_t index = 0; index < kHFSPlusExtentDensity; index++, extent += 8) {
    const auto startBlock = readBigEndian<uint32_t>(extent);
    const auto blockCount = readBigEndian<uint32_t>(extent + 4);
    if (startBlock != 0 && blockCount != 0) {
      seen += blockCount;
      _countExtent(count, startBlock, blockCount);
    }
  }
  if (seen < totalBlocks) {
    DiskOrder<HFSPlusForkData> disk;
    std::memcpy(&disk, fork, sizeof disk);
    const auto fileID =
        readBigEndian<uint32_t>(file.bytes.data() + offsetof(HFSPlusCatalogFile, fileID));
    count = {};
    TRY(HFSPlusWalkForkExtents(_hfsPlusVolume.extents(), toHost(disk), fileID, forkType,
                               [&](const HFSPlusExtentDescriptor& found) {
                                 _countExtent(count, found.startBlock, found.blockCount);
                               }));
  }
  _totalBlocks += count.blocks;
  if (count.extents > 1) {
    _fragmentedBlocks += count.blocks;
  }
  return {};
}

void HFSPlusFragInfoTask::_countExtent(ForkCount& count, uint32_t startBlock,
                                       uint32_t blockCount) const {
  if (startBlock >= _startBlock) {
    count.blocks += blockCount;
    count.extents++;
  } else if (startBlock + blockCount > _startBlock) {
    count.blocks += blockCount - (_startBlock - startBlock);
    count.extents++;
  }
}
