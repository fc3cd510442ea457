#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "HFSPlus/HFSPlusBTreeFile.hpp"
#include "Platform/PlatformPages.hpp"

/// Visits every node in use of a tree in ascending order, reading the file a mebibyte at a time.
///
/// Which nodes are in use is what the tree's map nodes said at creation. A node that the tree's
/// cache has is taken from there; any other is shown where it lies in the chunk. Copied into the
/// cache, where nobody asks for it again, it would take as long as all the rest of a scan, and push
/// out what others need. Whoever does ask the tree for such a node gets it without reading it
/// again.
class HFSPlusBTreeBulkIterator : private HFSPlusBTreeNodesAtHand {
 public:
  /// The tree must outlive the iterator. Fails with "Out of memory." or the errors of the tree's
  /// map nodes.
  [[nodiscard]] static Result<std::unique_ptr<HFSPlusBTreeBulkIterator>> open(
      HFSPlusBTreeFile& btree);
  HFSPlusBTreeBulkIterator(const HFSPlusBTreeBulkIterator&) = delete;
  HFSPlusBTreeBulkIterator& operator=(const HFSPlusBTreeBulkIterator&) = delete;
  ~HFSPlusBTreeBulkIterator() { _btree.setNodesAtHand(nullptr); }

  /// The next node in use, of whatever kind, for looking at, held for the caller until the next
  /// call; an empty hold at the end, as often as it is asked for. After a failure the next call
  /// goes on behind the failing node.
  [[nodiscard]] Result<HFSPlusBTreeNodeHold> nextCachedNode();

  /// Whether a node is among those visited, sooner or later.
  [[nodiscard]] bool visits(uint32_t index) const;

 private:
  explicit HFSPlusBTreeBulkIterator(HFSPlusBTreeFile& btree);

  bool _isUsed(uint32_t index) const;
  bool _chunkHolds(uint32_t index) const;
  std::span<std::byte> _image(uint32_t index) const;
  std::span<const std::byte> imageAtHand(uint32_t index) const override;
  [[nodiscard]] Result<> _copyMap();
  [[nodiscard]] Result<> _loadChunk(uint32_t index);

  HFSPlusBTreeFile& _btree;
  uint32_t _nextNodeIndex = 0;
  uint32_t _nodesPerBuffer;
  uint32_t _bufferBaseIndex = 0;
  bool _bufferValid = false;
  uint64_t _bufferWrittenNodes = 0;  // the tree's writtenNodes() when the chunk was read
  uint64_t _bufferSize;              // bytes
  PlatformPages _bufferData;
  uint64_t _mapSize;  // bytes
  std::unique_ptr<std::byte[]> _mapData;
};
