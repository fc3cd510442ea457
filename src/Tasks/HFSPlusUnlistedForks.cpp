#include "Tasks/HFSPlusUnlistedForks.hpp"

#include <cstddef>
#include <cstring>

#include "HFSPlus/HFSPlusAttributes.hpp"
#include "HFSPlus/HFSPlusBTreeBulkIterator.hpp"
#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"

namespace {

// Attribute records that own blocks: their types, and where their extents lie behind the key.
constexpr uint32_t kForkDataAttribute = 0x20;
constexpr uint32_t kMoreExtentsAttribute = 0x30;
constexpr size_t kForkDataExtentsOffset = 8 + offsetof(HFSPlusForkData, extents);
constexpr size_t kMoreExtentsOffset = 8;

Result<> visitExtents(const HFSPlusExtentRecord& extents, const HFSPlusExtentVisitor& visit) {
  for (const HFSPlusExtentDescriptor& extent : extents) {
    if (extent.startBlock != 0 && extent.blockCount != 0) {
      TRY(visit(extent));
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

Result<> visitAttributeForks(HFSPlusVolume& volume, const HFSPlusExtentVisitor& visit) {
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
      TRY(visitExtents(extentsOfAttribute(node->recordDataAtIndex(i)), visit));
    }
  }
  return {};
}

Result<> visitBadBlocks(HFSPlusVolume& volume, const HFSPlusExtentVisitor& visit) {
  HFSPlusExtents& tree = volume.extents();
  uint64_t block = 0;
  while (tree.rootNode() != 0 && block < volume.hostVolumeHeader().totalBlocks) {
    const auto found = TRY(
        tree.copyExtentRecord(static_cast<uint32_t>(block), kHFSBadBlockFileID, kHFSDataForkType));
    if (!found || found->startBlock != block || found->extents.front().blockCount == 0) {
      break;
    }
    TRY(visitExtents(found->extents, visit));
    for (const HFSPlusExtentDescriptor& extent : found->extents) {
      block += extent.blockCount;
    }
  }
  return {};
}

}  // namespace

Result<> HFSPlusVisitUnlistedForks(HFSPlusVolume& volume, const HFSPlusExtentVisitor& visit) {
  TRY(visitAttributeForks(volume, visit));
  return visitBadBlocks(volume, visit);
}
