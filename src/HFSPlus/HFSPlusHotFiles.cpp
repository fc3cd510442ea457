#include "HFSPlus/HFSPlusHotFiles.hpp"

#include <algorithm>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusFileForkSet.hpp"

namespace {

constexpr std::string_view kHotFilesPath = "/.hotfiles.btree";

// A file's thread record carries this instead of a temperature.
constexpr uint32_t kHotFileThread = 0xFFFFFFFF;

/// Whether the fork lies in at most one piece that ends at or below a block.
bool liesBelow(const HFSPlusForkData& fork, uint32_t block) {
  const auto isValid = [](const HFSPlusExtentDescriptor& extent) {
    return extent.startBlock != 0 && extent.blockCount != 0;
  };
  const auto endsBelow = [block](const HFSPlusExtentDescriptor& extent) {
    return uint64_t{extent.startBlock} + extent.blockCount <= block;
  };
  return std::ranges::count_if(fork.extents, isValid) <= 1 &&
         std::ranges::all_of(fork.extents, [&](const HFSPlusExtentDescriptor& extent) {
           return !isValid(extent) || endsBelow(extent);
         });
}

}  // namespace

HFSPlusHotFiles::HFSPlusHotFiles(HFSPlusVolumeAccess& volume, HFSPlusForkDataRegistry& registry,
                                 const HFSPlusCatalogFile& file, HFSPlusCatalog& catalog)
    : HFSPlusRegisteredForkData(registry, file),
      HFSPlusBTreeFile(volume, file.fileID),
      _catalog(catalog) {}

XRDefragError HFSPlusHotFiles::inconsistent() const {
  return XRDefragError::localized("The hotfiles.btree file is inconsistent.");
}

Result<std::unique_ptr<HFSPlusHotFiles>> HFSPlusHotFiles::open(HFSPlusVolumeAccess& volume,
                                                               HFSPlusForkDataRegistry& registry,
                                                               HFSPlusCatalog& catalog) {
  const HFSPlusCatalogRecord record = TRY(catalog.copyRecordForPath(kHotFilesPath));
  if (!record.isFile()) {
    return nullptr;
  }
  std::unique_ptr<HFSPlusHotFiles> tree(
      new HFSPlusHotFiles(volume, registry, record.file(), catalog));
  TRY(tree->openBTree());
  return tree;
}

Result<> HFSPlusHotFiles::mergeFileIDs(HFSPlusFileForkSet& fileForks, uint32_t firstDataBlock) {
  uint32_t nodesLeft = nodeCount();
  for (uint32_t index = firstLeafNode(); index != 0;) {
    if (nodesLeft-- == 0) {
      return std::unexpected(inconsistent());
    }
    const HFSPlusBTreeNodeHold node = TRY(cachedNodeWithIndex(index));
    if (node->kind() != kBTLeafNode) {
      return std::unexpected(inconsistent());
    }
    for (uint32_t i = 0; i < node->recordCount(); ++i) {
      TRY(_mergeRecord(node->recordDataAtIndex(i), fileForks, firstDataBlock));
    }
    index = node->fLink();
  }
  return {};
}

Result<> HFSPlusHotFiles::_mergeRecord(std::span<const std::byte> record,
                                       HFSPlusFileForkSet& fileForks, uint32_t firstDataBlock) {
  if (record.size() < sizeof(HotFileKey)) {
    return std::unexpected(inconsistent());
  }
  const auto forkType = static_cast<uint8_t>(record[offsetof(HotFileKey, forkType)]);
  const uint32_t temperature =
      readBigEndian<uint32_t>(record.data() + offsetof(HotFileKey, temperature));
  const uint32_t fileID = readBigEndian<uint32_t>(record.data() + offsetof(HotFileKey, fileID));
  const bool knownFork = forkType == kHFSDataForkType || forkType == kHFSResourceForkType;
  if (temperature == kHotFileThread || !knownFork) {
    return {};
  }
  // The tree may name files that are gone, or whose records can no longer be read.
  const Result<HFSPlusCatalogRecord> owner = _catalog.copyRecordForCNID(fileID);
  if (!owner || !owner->isFile()) {
    return {};
  }
  const HFSPlusCatalogFile& file = owner->file();
  if (liesBelow(forkType == kHFSDataForkType ? file.dataFork : file.resourceFork, firstDataBlock)) {
    fileForks.add(fileID, forkType);
  }
  return {};
}
