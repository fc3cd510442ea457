#include "support/VolumeCheckerTruth.hpp"

#include <algorithm>

namespace volumecheck {

ForkData forkDataFrom(Bytes bytes) {
  ForkData data;
  data.logicalSize = u64At(bytes, 0);
  data.clumpSize = u32At(bytes, 8);
  data.totalBlocks = u32At(bytes, 12);
  for (std::size_t i = 0; i < 8; ++i) {
    data.extents[i] = {u32At(bytes, 16 + 8 * i), u32At(bytes, 20 + 8 * i)};
  }
  return data;
}

HeaderTruth headerFrom(Bytes bytes) {
  HeaderTruth header;
  header.signature = u16At(bytes, 0);
  header.version = u16At(bytes, 2);
  std::uint32_t* const words[] = {
      &header.attributes,     &header.lastMountedVersion, &header.journalInfoBlock,
      &header.createDate,     &header.modifyDate,         &header.backupDate,
      &header.checkedDate,    &header.fileCount,          &header.folderCount,
      &header.blockSize,      &header.totalBlocks,        &header.freeBlocks,
      &header.nextAllocation, &header.rsrcClumpSize,      &header.dataClumpSize,
      &header.nextCatalogID,  &header.writeCount};
  std::size_t offset = 4;
  for (std::uint32_t* word : words) {
    *word = u32At(bytes, offset);
    offset += 4;
  }
  header.encodingsBitmap = u64At(bytes, 72);
  header.finderInfo = hashOf(sliceOf(bytes, 80, 32));
  header.allocationFile = forkDataFrom(sliceOf(bytes, 112, 80));
  header.extentsFile = forkDataFrom(sliceOf(bytes, 192, 80));
  header.catalogFile = forkDataFrom(sliceOf(bytes, 272, 80));
  header.attributesFile = forkDataFrom(sliceOf(bytes, 352, 80));
  header.startupFile = forkDataFrom(sliceOf(bytes, 432, 80));
  return header;
}

const Fork* VolumeTruth::findFork(std::uint32_t cnid, ForkType type) const {
  const auto fork = std::find_if(forks.begin(), forks.end(), [&](const Fork& candidate) {
    return candidate.cnid == cnid && candidate.type == type;
  });
  return fork == forks.end() ? nullptr : &*fork;
}

const CatalogItem* VolumeTruth::findItem(const std::string& path) const {
  const auto item = std::find_if(items.begin(), items.end(), [&](const CatalogItem& candidate) {
    return candidate.path == path;
  });
  return item == items.end() ? nullptr : &*item;
}

}  // namespace volumecheck
