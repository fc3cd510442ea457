#include "HFSPlus/HFSPlusExtents.hpp"

#include <algorithm>
#include <cstring>
#include <tuple>
#include <utility>

#include "HFSPlus/HFSPlusExtentsRecord.hpp"
#include "LWKit/LWDebug.hpp"
#include "LWKit/LWStringUtilities.hpp"

namespace {

XRDefragError missingError() {
  return XRDefragError::localized("Overflow extent record missing.");
}

XRDefragError congestedError() {
  return XRDefragError::localized("Overflow extents file is too congested, unable to continue.");
}

/// Whether a record's key is greater than a key.
auto isGreaterThan(const HFSPlusExtentKey& key) {
  return [key](std::span<const std::byte> record) {
    return HFSPlusExtents::compare(HFSPlusExtentKeyOfRecord(record), key) > 0;
  };
}

/// The last record whose key is not greater than the key, or record 0 if all are.
uint32_t positionOfKey(const HFSPlusBTreeNode& node, const HFSPlusExtentKey& key) {
  const uint32_t behind = node.firstRecordWhere(isGreaterThan(key));
  return behind > 0 ? behind - 1 : 0;
}

/// The record with exactly this key.
std::optional<uint32_t> recordWithKey(const HFSPlusBTreeNode& leaf, const HFSPlusExtentKey& key) {
  const uint32_t behind = leaf.firstRecordWhere(isGreaterThan(key));
  if (behind > 0 && HFSPlusExtents::compare(
                        HFSPlusExtentKeyOfRecord(leaf.recordDataAtIndex(behind - 1)), key) == 0) {
    return behind - 1;
  }
  return std::nullopt;
}

/// Makes an index record's key that of its child's first record again.
void updateIndexKey(HFSPlusBTreeNode& node, uint32_t position, const HFSPlusBTreeNode& child) {
  const auto key = child.recordDataAtIndex(0).first(kHFSPlusExtentKeyBytes);
  if (!std::ranges::equal(node.recordDataAtIndex(position).first(key.size()), key)) {
    std::ranges::copy(key, node.mutableRecordDataAtIndex(position).begin());
  }
}

bool areSiblings(const HFSPlusBTreeNode& a, const HFSPlusBTreeNode& b) {
  return a.index() != b.index() && a.kind() == b.kind() && a.height() == b.height();
}

}  // namespace

Result<std::unique_ptr<HFSPlusExtents>> HFSPlusExtents::open(HFSPlusVolumeAccess& volume) {
  std::unique_ptr<HFSPlusExtents> extents(new HFSPlusExtents(volume));
  TRY(extents->openBTree());
  if (LWDebugEnabled(LWDebugLevel::Info)) {
    const uint64_t bytes = uint64_t{extents->nodeCount()} * extents->nodeSize();
    LWDebugLog(LWDebugLevel::Info, "Extents size        = %@ (node size = %@, total nodes = %lu)\n",
               LWPrettySize(bytes), LWPrettySize(extents->nodeSize()), extents->nodeCount());
    LWDebugLog(LWDebugLevel::Info,
               "Extents root node   = %lu (first leaf node = %lu, last leaf node = %lu)\n",
               extents->rootNode(), extents->firstLeafNode(), extents->lastLeafNode());
  }
  return extents;
}

HFSPlusExtents::HFSPlusExtents(HFSPlusVolumeAccess& volume)
    : HFSPlusBTreeFile(volume, kHFSExtentsFileID) {}

XRDefragError HFSPlusExtents::inconsistent() const {
  return XRDefragError::localized("Overflow extents file is inconsistent.");
}

std::strong_ordering HFSPlusExtents::compare(const HFSPlusExtentKey& a, const HFSPlusExtentKey& b) {
  if (a.fileID != b.fileID) {
    return a.fileID <=> b.fileID;
  }
  if (a.forkType != b.forkType) {
    return a.forkType <=> b.forkType;
  }
  return a.startBlock <=> b.startBlock;
}

bool HFSPlusExtents::match(const HFSPlusExtentKey& a, const HFSPlusExtentKey& b) {
  return a.fileID == b.fileID && a.forkType == b.forkType;
}

bool HFSPlusExtents::hasSoundRecords(const HFSPlusBTreeNode& node) const {
  uint32_t size;
  if (node.kind() == kBTLeafNode) {
    size = kHFSPlusExtentLeafRecordSize;
  } else if (node.kind() == kBTIndexNode) {
    size = kHFSPlusExtentIndexRecordSize;
  } else {
    return true;
  }
  for (uint32_t record = 0; record < node.recordCount(); ++record) {
    const std::span<const std::byte> bytes = node.recordDataAtIndex(record);
    if (bytes.size() != size || readBigEndian<uint16_t>(bytes.data()) != kHFSPlusExtentKeyLength) {
      return false;
    }
  }
  return true;
}

Result<std::optional<HFSPlusExtents::Found>> HFSPlusExtents::copyExtentRecord(uint32_t block,
                                                                              uint32_t fileID,
                                                                              uint8_t forkType) {
  const HFSPlusExtentKey searchKey = HFSPlusMakeExtentKey(fileID, forkType, block);
  const auto isGreater = isGreaterThan(searchKey);
  HFSPlusBTreeNodeHold leaf = TRY(leafNodeWhere(isGreater));
  const uint32_t behind = leaf->firstRecordWhere(isGreater);
  if (behind == 0) {
    return std::nullopt;
  }
  const std::span<const std::byte> record = leaf->recordDataAtIndex(behind - 1);
  const HFSPlusExtentKey key = HFSPlusExtentKeyOfRecord(record);
  if (!match(key, searchKey)) {
    return std::nullopt;
  }
  return Found{key.startBlock, HFSPlusExtentsOfRecord(record)};
}

Result<HFSPlusExtentRecord> HFSPlusExtents::requireExtentRecord(uint32_t block, uint32_t fileID,
                                                                uint8_t forkType) {
  const std::optional<Found> found = TRY(copyExtentRecord(block, fileID, forkType));
  if (!found || found->startBlock != block || found->extents[0].startBlock == 0 ||
      found->extents[0].blockCount == 0) {
    return std::unexpected(missingError());
  }
  return found->extents;
}

Result<> HFSPlusExtents::updateExtentRecord(const HFSPlusExtentRecord& host, uint32_t block,
                                            uint32_t fileID, uint8_t forkType) {
  const HFSPlusExtentKey searchKey = HFSPlusMakeExtentKey(fileID, forkType, block);
  HFSPlusBTreeNodeHold leaf = TRY(leafNodeWhere(isGreaterThan(searchKey)));
  const std::optional<uint32_t> record = recordWithKey(*leaf, searchKey);
  if (!record) {
    return std::unexpected(missingError());
  }
  // The key stays as it is, bytes that no comparison looks at included.
  const std::span<std::byte> stored = leaf->mutableRecordDataAtIndex(*record);
  std::ranges::copy(toDisk(host).bytes, stored.subspan(kHFSPlusExtentKeyBytes).begin());
  return {};
}

// Insertion

struct HFSPlusExtents::NewRecord {
  HFSPlusExtentKey key;
  HFSPlusExtentLeafRecord bytes;
};

Result<> HFSPlusExtents::insertExtentRecord(const HFSPlusExtentRecord& host, uint32_t block,
                                            uint32_t fileID, uint8_t forkType) {
  const HFSPlusExtentKey key = HFSPlusMakeExtentKey(fileID, forkType, block);
  const NewRecord record{key, HFSPlusMakeExtentLeafRecord(key, host)};
  if (rootNode() == 0) {
    TRY(_createRootNode());
  } else {
    TRY(_checkInsertion(key));
  }
  HFSPlusBTreeNodeHold root = TRY(cachedNodeWithIndex(rootNode()));
  Insertion insertion = TRY(_insertRecord(*root, record, kMaxDepth));
  if (insertion == Insertion::NoRoom) {
    root = TRY(_growRoot(std::move(root)));
    insertion = TRY(_insertRecord(*root, record, kMaxDepth));
  }
  if (insertion == Insertion::NoRoom) {
    return std::unexpected(inconsistent());
  }
  return {};
}

/// Finds out, before anything is changed, whether the key is taken and whether there are enough
/// free nodes for the splits to come: every full node on the way that has no node with room between
/// itself and the leaf is split, and with a full root the tree grows.
Result<> HFSPlusExtents::_checkInsertion(const HFSPlusExtentKey& searchKey) {
  uint32_t index = rootNode();
  uint32_t splits = 1;
  for (uint32_t level = kMaxDepth; level > 0; --level) {
    HFSPlusBTreeNodeHold node = TRY(cachedNodeWithIndex(index));
    const bool isLeaf = node->kind() == kBTLeafNode;
    if (!isLeaf && (node->kind() != kBTIndexNode || node->recordCount() == 0)) {
      break;
    }
    splits = node->hasRoomForRecord(isLeaf ? kHFSPlusExtentLeafRecordSize
                                           : kHFSPlusExtentIndexRecordSize)
                 ? 0
                 : splits + 1;
    if (!isLeaf) {
      index = TRY(childNodeOfRecord(node->recordDataAtIndex(positionOfKey(*node, searchKey))));
    } else if (recordWithKey(*node, searchKey)) {
      return std::unexpected(XRDefragError::localized("Overflow extent record collision."));
    } else if (!hasFreeNodes(splits)) {
      return std::unexpected(congestedError());
    } else {
      return {};
    }
  }
  return std::unexpected(inconsistent());
}

Result<uint32_t> HFSPlusExtents::_getNextFreeNodeIndex() const {
  const uint32_t index = getNextFreeNodeIndex();
  if (index == 0) {
    return std::unexpected(congestedError());
  }
  return index;
}

Result<> HFSPlusExtents::_createRootNode() {
  const uint32_t index = TRY(_getNextFreeNodeIndex());
  const HFSPlusBTreeNodeHold root = TRY(newNodeWithIndex(index, kBTLeafNode));
  markNodeAsUsed(index);
  setFirstRoot(index);
  return {};
}

/// Puts a new root above the one that has no room, which is split in two.
Result<HFSPlusBTreeNodeHold> HFSPlusExtents::_growRoot(HFSPlusBTreeNodeHold root) {
  const uint32_t index = TRY(_getNextFreeNodeIndex());
  HFSPlusBTreeNodeHold newRoot = TRY(newNodeWithIndex(index, kBTIndexNode));
  markNodeAsUsed(index);
  Result<HFSPlusBTreeNodeHold> split = _splitNode(*root);
  if (!split) {
    markNodeAsFree(index);
    return std::unexpected(std::move(split).error());
  }
  const HFSPlusBTreeNode& sibling = **split;
  newRoot->setHeight(static_cast<uint8_t>(root->height() + 1));
  TRY(incrementTreeDepth(index));
  TRY(newRoot->insertRecordData(
      HFSPlusMakeExtentIndexRecord(root->recordDataAtIndex(0), root->index()), 0));
  TRY(newRoot->insertRecordData(
      HFSPlusMakeExtentIndexRecord(sibling.recordDataAtIndex(0), sibling.index()), 1));
  return newRoot;
}

Result<HFSPlusExtents::Insertion> HFSPlusExtents::_insertRecord(HFSPlusBTreeNode& node,
                                                                const NewRecord& record,
                                                                uint32_t levels) {
  if (levels > 0 && node.kind() == kBTLeafNode) {
    return _insertIntoLeaf(node, record);
  }
  if (levels > 0 && node.kind() == kBTIndexNode && node.recordCount() > 0) {
    return _insertBelow(node, record, levels);
  }
  return std::unexpected(inconsistent());
}

Result<HFSPlusExtents::Insertion> HFSPlusExtents::_insertIntoLeaf(HFSPlusBTreeNode& leaf,
                                                                  const NewRecord& record) {
  if (!leaf.hasRoomForRecord(record.bytes.size())) {
    return Insertion::NoRoom;
  }
  TRY(leaf.insertRecordData(record.bytes, leaf.firstRecordWhere(isGreaterThan(record.key))));
  return Insertion::Done;
}

Result<HFSPlusExtents::Insertion> HFSPlusExtents::_insertBelow(HFSPlusBTreeNode& node,
                                                               const NewRecord& record,
                                                               uint32_t levels) {
  for (;;) {
    const uint32_t position = positionOfKey(node, record.key);
    HFSPlusBTreeNodeHold child = TRY(_childAtIndex(node, position));
    if (TRY(_insertRecord(*child, record, levels - 1)) == Insertion::Done) {
      updateIndexKey(node, position, *child);
      return Insertion::Done;
    }
    if (!node.hasRoomForRecord(kHFSPlusExtentIndexRecordSize)) {
      return Insertion::NoRoom;
    }
    const HFSPlusBTreeNodeHold sibling = TRY(_splitNode(*child));
    TRY(node.insertRecordData(
        HFSPlusMakeExtentIndexRecord(sibling->recordDataAtIndex(0), sibling->index()),
        position + 1));
  }
}

/// Moves the latter half of a node's records into a new right sibling, which is returned.
Result<HFSPlusBTreeNodeHold> HFSPlusExtents::_splitNode(HFSPlusBTreeNode& node) {
  const uint32_t count = node.recordCount();
  if (count < 2) {
    return std::unexpected(inconsistent());
  }
  const HFSPlusBTreeNodeHold right = TRY(_rightNeighbour(node));
  const uint32_t index = TRY(_getNextFreeNodeIndex());
  HFSPlusBTreeNodeHold sibling = TRY(newNodeWithIndex(index, node.kind()));
  sibling->setFLink(node.fLink());
  sibling->setBLink(node.index());
  sibling->setHeight(node.height());

  const uint32_t kept = (count + 1) / 2;
  for (uint32_t record = kept; record < count; ++record) {
    TRY(sibling->insertRecordData(node.recordDataAtIndex(record), record - kept));
  }
  while (node.recordCount() > kept) {
    TRY(node.deleteRecordAtIndex(kept));
  }

  markNodeAsUsed(index);
  node.setFLink(index);
  if (right) {
    right->setBLink(index);
  }
  if (node.kind() == kBTLeafNode && lastLeafNode() == node.index()) {
    setLastLeafNode(index);
  }
  return sibling;
}

// Deletion

Result<> HFSPlusExtents::deleteExtentRecord(uint32_t block, uint32_t fileID, uint8_t forkType) {
  if (rootNode() == 0) {
    return std::unexpected(missingError());
  }
  const HFSPlusExtentKey searchKey = HFSPlusMakeExtentKey(fileID, forkType, block);
  HFSPlusBTreeNodeHold root = TRY(cachedNodeWithIndex(rootNode()));
  TRY(_deleteRecord(*root, searchKey, kMaxDepth));
  root = TRY(cachedNodeWithIndex(rootNode()));
  if (root->recordCount() == 0) {
    markNodeAsFree(root->index());
    setEmptyTree();
  }
  return {};
}

Result<> HFSPlusExtents::_deleteRecord(HFSPlusBTreeNode& node, const HFSPlusExtentKey& searchKey,
                                       uint32_t levels) {
  if (levels > 0 && node.kind() == kBTLeafNode) {
    const std::optional<uint32_t> record = recordWithKey(node, searchKey);
    if (!record) {
      return std::unexpected(missingError());
    }
    return node.deleteRecordAtIndex(*record);
  }
  if (levels == 0 || node.kind() != kBTIndexNode || node.recordCount() == 0) {
    return std::unexpected(inconsistent());
  }
  const uint32_t position = positionOfKey(node, searchKey);
  HFSPlusBTreeNodeHold child = TRY(_childAtIndex(node, position));
  TRY(_deleteRecord(*child, searchKey, levels - 1));
  if (child->recordCount() == 0) {
    return _removeChild(node, position, *child);
  }
  updateIndexKey(node, position, *child);
  return {};
}

/// Takes a child without records out of the tree; a root that is left with one child goes as well.
Result<> HFSPlusExtents::_removeChild(HFSPlusBTreeNode& node, uint32_t position,
                                      HFSPlusBTreeNode& child) {
  TRY(node.deleteRecordAtIndex(position));
  TRY(_unlinkAndFreeNode(child));
  if (node.recordCount() == 1 && node.index() == rootNode()) {
    TRY(_collapseRoot(node));
  }
  return {};
}

/// Makes the root's only child the root.
Result<> HFSPlusExtents::_collapseRoot(HFSPlusBTreeNode& root) {
  const HFSPlusBTreeNodeHold child = TRY(_childAtIndex(root, 0));
  TRY(_unlinkAndFreeNode(root));
  return decrementTreeDepth(child->index());
}

Result<> HFSPlusExtents::_unlinkAndFreeNode(HFSPlusBTreeNode& node) {
  const HFSPlusBTreeNodeHold right = TRY(_rightNeighbour(node));
  const HFSPlusBTreeNodeHold left = TRY(_leftNeighbour(node));
  if (right) {
    right->setBLink(node.bLink());
  }
  if (left) {
    left->setFLink(node.fLink());
  }
  if (firstLeafNode() == node.index()) {
    setFirstLeafNode(node.fLink());
  }
  if (lastLeafNode() == node.index()) {
    setLastLeafNode(node.bLink());
  }
  markNodeAsFree(node.index());
  return {};
}

// Neighbours

Result<HFSPlusBTreeNodeHold> HFSPlusExtents::_childAtIndex(const HFSPlusBTreeNode& node,
                                                           uint32_t position) {
  return cachedNodeWithIndex(TRY(childNodeOfRecord(node.recordDataAtIndex(position))));
}

Result<HFSPlusBTreeNodeHold> HFSPlusExtents::_rightNeighbour(const HFSPlusBTreeNode& node) {
  if (node.fLink() == 0) {
    return HFSPlusBTreeNodeHold();
  }
  HFSPlusBTreeNodeHold right = TRY(cachedNodeWithIndex(node.fLink()));
  if (!areSiblings(*right, node) || right->bLink() != node.index()) {
    return std::unexpected(inconsistent());
  }
  return right;
}

Result<HFSPlusBTreeNodeHold> HFSPlusExtents::_leftNeighbour(const HFSPlusBTreeNode& node) {
  if (node.bLink() == 0) {
    return HFSPlusBTreeNodeHold();
  }
  HFSPlusBTreeNodeHold left = TRY(cachedNodeWithIndex(node.bLink()));
  if (!areSiblings(*left, node) || left->fLink() != node.index()) {
    return std::unexpected(inconsistent());
  }
  return left;
}
