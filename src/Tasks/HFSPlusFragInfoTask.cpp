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
  const auto fileID = readBigEndian<uint32_t>(&file.bytes[offsetof(HFSPlusCatalogFile, fileID)]);
  TRY(_countFork(partOf<HFSPlusForkData>(file, offsetof(HFSPlusCatalogFile, dataFork)), fileID,
                 kHFSDataForkType));
  return _countFork(partOf<HFSPlusForkData>(file, offsetof(HFSPlusCatalogFile, resourceFork)),
                    fileID, kHFSResourceForkType);
}

Result<> HFSPlusFragInfoTask::_countFork(const DiskOrder<HFSPlusForkData>& fork, uint32_t fileID,
                                         uint8_t forkType) {
  ForkCount count;
  TRY(HFSPlusWalkForkExtents(_hfsPlusVolume.extents(), fork, fileID, forkType,
                             [&](const HFSPlusExtentDescriptor& extent) {
                               _countExtent(count, extent.startBlock, extent.blockCount);
                             }));
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
