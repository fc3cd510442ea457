#include "Tasks/HFSPlusBlockMarking.hpp"

#include <cstring>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusAttributes.hpp"
#include "HFSPlus/HFSPlusBTreeBulkIterator.hpp"
#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWDebug.hpp"

namespace {

// Attribute records that own blocks: their types, and where their extents lie behind the key.
constexpr uint32_t kForkDataAttribute = 0x20;
constexpr uint32_t kMoreExtentsAttribute = 0x30;
constexpr size_t kForkDataExtentsOffset = 8 + offsetof(HFSPlusForkData, extents);
constexpr size_t kMoreExtentsOffset = 8;

Result<> markExtents(HFSPlusVolume& volume, const HFSPlusExtentRecord& extents) {
  for (const HFSPlusExtentDescriptor& extent : extents) {
    if (extent.startBlock != 0 && extent.blockCount != 0) {
      TRY(HFSPlusMarkOwnedBlocks(volume, extent.startBlock, extent.blockCount));
    }
  }
  return {};
}

/// The extents of an attribute record; all zero for one that owns no blocks.
HFSPlusExtentRecord extentsOfAttribute(std::span<const std::byte> record) {
  if (record.size() < sizeof(uint16_t)) {
    return {};
  }
  const size_t keyBytes = sizeof(uint16_t) + readBigEndian<uint16_t>(record.data());
  const size_t keyEnd = keyBytes + keyBytes % 2;
  if (record.size() < keyEnd + sizeof(uint32_t)) {
    return {};
  }
  const std::span<const std::byte> data = record.subspan(keyEnd);
  const auto type = readBigEndian<uint32_t>(data.data());
  const size_t offset = type == kForkDataAttribute ? kForkDataExtentsOffset : kMoreExtentsOffset;
  DiskOrder<HFSPlusExtentRecord> extents;
  if ((type != kForkDataAttribute && type != kMoreExtentsAttribute) ||
      data.size() < offset + sizeof extents) {
    return {};
  }
  std::memcpy(&extents, &data[offset], sizeof extents);
  return toHost(extents);
}

Result<> markAttributeForks(HFSPlusVolume& volume) {
  HFSPlusAttributes* attributes = volume.attributes();
  if (attributes == nullptr) {
    return {};
  }
  const auto nodes = TRY(HFSPlusBTreeBulkIterator::open(*attributes));
  while (const HFSPlusBTreeNodeHold node = TRY(nodes->nextCachedNode())) {
    if (node->kind() != kBTLeafNode) {
      continue;
    }
    for (uint32_t i = 0; i < node->recordCount(); ++i) {
      TRY(markExtents(volume, extentsOfAttribute(node->recordDataAtIndex(i))));
    }
  }
  return {};
}

Result<> markBadBlocks(HFSPlusVolume& volume) {
  HFSPlusExtents& tree = volume.extents();
  uint64_t block = 0;
  while (tree.rootNode() != 0 && block < volume.hostVolumeHeader().totalBlocks) {
    const auto found = TRY(
        tree.copyExtentRecord(static_cast<uint32_t>(block), kHFSBadBlockFileID, kHFSDataForkType));
    if (!found || found->startBlock != block || found->extents.front().blockCount == 0) {
      break;
    }
    TRY(markExtents(volume, found->extents));
    for (const HFSPlusExtentDescriptor& extent : found->extents) {
      block += extent.blockCount;
    }
  }
  return {};
}

}  // namespace

Result<> HFSPlusMarkOwnedBlocks(HFSPlusVolume& volume, uint64_t start, uint64_t count) {
  const uint32_t totalBlocks = volume.hostVolumeHeader().totalBlocks;
  if (start > totalBlocks || count > totalBlocks - start) {
    return std::unexpected(
        XRDefragError::localized("Allocation block %1$lu is out of range.", start + count));
  }
  HFSPlusAllocation& allocation = volume.allocation();
  auto block = static_cast<uint32_t>(start);
  auto left = static_cast<uint32_t>(count);
  while (left > 0) {
    const uint32_t set = TRY(allocation.isSet(block, left));
    block += set;
    left -= set;
    const uint32_t clear = left > 0 ? TRY(allocation.isClear(block, left)) : 0;
    if (clear > 0) {
      TRY(allocation.set(block, clear));
      LWDebugLog(LWDebugLevel::Warning,
                 "Allocation bitmap block = %08X with count = %u was not set (and should have "
                 "been), marking range allocated.\n",
                 block, clear);
    }
    block += clear;
    left -= clear;
  }
  return {};
}

Result<> HFSPlusMarkUnlistedForks(HFSPlusVolume& volume) {
  TRY(markAttributeForks(volume));
  return markBadBlocks(volume);
}
