#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "HFSPlus/HFSPlusBTreeNodeHold.hpp"
#include "HFSPlus/HFSPlusFile.hpp"

/// Somebody who has nodes of a tree in memory, as they are in its file.
class HFSPlusBTreeNodesAtHand {
 public:
  /// The node's image; empty when it is not among them.
  virtual std::span<const std::byte> imageAtHand(uint32_t index) const = 0;

 protected:
  ~HFSPlusBTreeNodesAtHand() = default;
};

/// What every B-tree of the volume shares: the header record, the map of free nodes, and the node
/// cache. Knows nothing of keys and records, but the length of a key.
///
/// The header is checked when the tree is opened, each node when its image comes from disk, so that
/// everybody above may follow record offsets without checking them. Links and child pointers are
/// not checked beforehand: who follows them bounds the walk.
///
/// Changes stay in memory until flush() hands them to the volume's held writes; a dirty node that
/// is evicted goes there earlier. Used by one thread at a time, the one that has closed the
/// volume's gate.
class HFSPlusBTreeFile : public HFSPlusFile, private HFSPlusBTreeNodeOwner {
 public:
  /// Levels that no tree exceeds; a descent that has not met a leaf by then goes in circles.
  static constexpr uint32_t kMaxDepth = 32;

  /// No node may be held any more. Dirty nodes go to the held writes, header and map do not.
  ~HFSPlusBTreeFile() override;

  uint32_t rootNode() const { return _hostHeaderRec.rootNode; }
  uint32_t firstLeafNode() const { return _hostHeaderRec.firstLeafNode; }
  uint32_t lastLeafNode() const { return _hostHeaderRec.lastLeafNode; }
  uint32_t freeNodes() const { return _hostHeaderRec.freeNodes; }
  uint32_t nodeCount() const { return _hostHeaderRec.totalNodes; }
  /// Bytes.
  uint32_t nodeSize() const { return _hostHeaderRec.nodeSize; }
  const BTHeaderRec& headerRecord() const { return _hostHeaderRec; }

  /// The node, held for the caller. If it is not in memory it is read from the file, or shown where
  /// its image lies in `data` (nodeSize() bytes, which stay there as long as it is held): then it
  /// does not enter the cache, and must not be changed. Fails with "B-Tree node %1$lu is out of
  /// range.", read errors, or inconsistent() for an image whose record offsets are broken.
  [[nodiscard]] Result<HFSPlusBTreeNodeHold> cachedNodeWithIndex(uint32_t index,
                                                                 std::span<std::byte> data = {});

  /// From now on copies nodes that somebody has at hand instead of reading them; null for nobody.
  void setNodesAtHand(const HFSPlusBTreeNodesAtHand* nodes) { _nodesAtHand = nodes; }

  /// Descends from the root to the leaf whose records surround a key. The predicate, asked with a
  /// record's bytes, tells whether the record's key is greater than the one sought. Fails with
  /// inconsistent() if the way does not lead to a leaf.
  template <typename KeyIsGreater>
  [[nodiscard]] Result<HFSPlusBTreeNodeHold> leafNodeWhere(KeyIsGreater&& keyIsGreater);

  /// Bytes of idle nodes that are kept; less than one node's means no limit.
  uint32_t nodeCacheSize() const;
  void setNodeCacheSize(uint32_t bytes);
  const HFSPlusBTreeNodeCache& nodeCache() const { return _nodeCache; }

  /// Bit n, from the most significant bit of each byte, is set if node n is in use.
  std::span<const std::byte> freeNodeMap() const { return _freeNodeMap; }
  /// The lowest free node, or 0 if there is none.
  uint32_t getNextFreeNodeIndex() const;
  /// Whether header and map agree that there are as many free nodes.
  bool hasFreeNodes(uint32_t count) const;
  void markNodeAsUsed(uint32_t index);
  /// Also makes the node's image all zeros.
  void markNodeAsFree(uint32_t index);

  /// Shows the records that make up the map, in order, each with the node it lies in, until the
  /// visitor returns false. Fails with "B-Tree header is inconsistent." or "B-Tree file has
  /// inconsistent map node.".
  [[nodiscard]] Result<> visitMapRecords(
      const std::function<bool(HFSPlusBTreeNode& node, uint32_t record)>& visit);

  /// Hands header, map and all dirty nodes to the held writes, by ascending node. After a failure
  /// the other nodes are still handed over; the first error is returned.
  [[nodiscard]] virtual Result<> flush();

  /// Forgets every change: drops all nodes, of which none may be held, and reads header and map
  /// again. The volume has dropped the held writes before.
  [[nodiscard]] virtual Result<> discardChanges();

  /// "<This tree> is inconsistent."
  [[nodiscard]] virtual XRDefragError inconsistent() const = 0;

  /// Counts the node images that have left the cache: as long as it stands still, an image read
  /// from the file is as good as one read now.
  uint64_t writtenNodes() const { return _writtenNodes; }

 protected:
  HFSPlusBTreeFile(HFSPlusVolumeAccess& volume, uint32_t fileID) : HFSPlusFile(volume, fileID) {}

  /// Reads and checks header and map. Fails with "B-Tree header is inconsistent.", "B-Tree file has
  /// inconsistent map node." or read errors.
  [[nodiscard]] Result<> openBTree();

  /// What the subclass asks of a node that comes from disk beyond sound offsets.
  virtual bool hasSoundRecords(const HFSPlusBTreeNode&) const { return true; }

  /// A free node, held, as an empty node of a kind. Fails with inconsistent() if the node, which
  /// the map calls free, is in use at this moment.
  [[nodiscard]] Result<HFSPlusBTreeNodeHold> newNodeWithIndex(uint32_t index, int8_t kind);

  /// The node number behind the key of an index record; inconsistent() if the record is too short.
  [[nodiscard]] Result<uint32_t> childNodeOfRecord(std::span<const std::byte> record) const;

  // Header changes.
  void setFirstLeafNode(uint32_t index);
  void setLastLeafNode(uint32_t index);
  void setEmptyTree();
  void setFirstRoot(uint32_t index);
  [[nodiscard]] Result<> incrementLeafRecordCount() override;
  [[nodiscard]] Result<> decrementLeafRecordCount() override;
  [[nodiscard]] Result<> incrementTreeDepth(uint32_t newRoot);
  [[nodiscard]] Result<> decrementTreeDepth(uint32_t newRoot);

 private:
  [[nodiscard]] Result<> readNode(uint32_t index, std::span<std::byte> image) const;
  [[nodiscard]] Result<> writeNode(uint32_t index, std::span<const std::byte> image) override;

  [[nodiscard]] Result<> _loadHeader();
  [[nodiscard]] Result<BTHeaderRec> _readHeader() const;
  [[nodiscard]] Result<> _loadMapRecords();
  [[nodiscard]] Result<> _updateHeaderAndMapRecords();
  /// None if the image is broken.
  [[nodiscard]] Result<HFSPlusBTreeNode*> _retainNode(uint32_t index);
  [[nodiscard]] Result<HFSPlusBTreeNodeHold> _showNode(uint32_t index, std::span<std::byte> image);
  [[nodiscard]] Result<std::unique_ptr<HFSPlusBTreeNode>> _blankNode(uint32_t index);
  [[nodiscard]] Result<> _checkRange(uint32_t index) const;
  [[nodiscard]] bool _isSound(const HFSPlusBTreeNode& node) const;
  [[nodiscard]] Result<HFSPlusBTreeNodeHold> _mapNode(uint32_t index);

  BTHeaderRec _hostHeaderRec{};
  std::unique_ptr<HFSPlusBTreeNodeImages> _nodeImages;
  HFSPlusBTreeNodeCache _nodeCache;
  const HFSPlusBTreeNodesAtHand* _nodesAtHand = nullptr;
  std::vector<std::byte> _freeNodeMap;
  bool _updated = false;  // header record or map differ from the nodes that hold them
  uint64_t _writtenNodes = 0;
};

template <typename KeyIsGreater>
Result<HFSPlusBTreeNodeHold> HFSPlusBTreeFile::leafNodeWhere(KeyIsGreater&& keyIsGreater) {
  uint32_t index = rootNode();
  for (uint32_t level = kMaxDepth; level > 0; --level) {
    HFSPlusBTreeNodeHold node = TRY(cachedNodeWithIndex(index));
    if (node->kind() == kBTLeafNode) {
      return node;
    }
    if (node->kind() != kBTIndexNode || node->recordCount() == 0) {
      break;
    }
    const uint32_t behind = node->firstRecordWhere(keyIsGreater);
    index = TRY(childNodeOfRecord(node->recordDataAtIndex(behind > 0 ? behind - 1 : 0)));
  }
  return std::unexpected(inconsistent());
}
