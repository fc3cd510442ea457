#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "HFSPlus/HFSPlusBTreeNode.hpp"

/// The nodes of one tree that are in memory: those in use, and up to a limit those that are not.
///
/// Owns every node. A node in use has a retain count above 0 and is on no list; an idle node is on
/// the idle list, which runs from the most to the least recently released one, where nodes are
/// evicted. Finding, holding, releasing and evicting take constant time and allocate nothing: index
/// chains and idle list run through the nodes themselves, and an evicted node is reused.
class HFSPlusBTreeNodeCache {
 public:
  HFSPlusBTreeNodeCache();
  HFSPlusBTreeNodeCache(const HFSPlusBTreeNodeCache&) = delete;
  HFSPlusBTreeNodeCache& operator=(const HFSPlusBTreeNodeCache&) = delete;
  /// Nothing may be in use any more. Idle nodes are destroyed as they are.
  ~HFSPlusBTreeNodeCache();

  /// The node, held once more, or none if it is not in memory.
  HFSPlusBTreeNode* retain(uint32_t index);

  /// Takes a node that is not in memory yet under its index(); it is held once.
  HFSPlusBTreeNode& add(std::unique_ptr<HFSPlusBTreeNode> node);

  /// Gives back one hold. The last one makes the node idle, and may evict the idle node that has
  /// not been used for longest: a dirty one is flushed first.
  void release(HFSPlusBTreeNode& node);

  /// An evicted node for reuse, or none.
  std::unique_ptr<HFSPlusBTreeNode> takeSpare() { return std::move(_spare); }

  /// Evicts every idle node, flushing the dirty ones.
  void evictAll();

  /// Destroys every node without flushing any. Nothing may be in use.
  void forgetAll();

  /// The dirty nodes, in use or idle, by ascending index.
  std::vector<HFSPlusBTreeNode*> dirtyNodes() const;

  /// The largest number of idle nodes; 0 for no limit. A lower limit evicts nothing by itself.
  uint64_t nodeCacheLimit() const { return _nodeCacheLimit; }
  void setNodeCacheLimit(uint64_t nodes) { _nodeCacheLimit = nodes; }

  /// Idle nodes.
  uint64_t nodeCacheCount() const { return _nodeCacheCount; }
  /// All nodes, in use or idle.
  uint64_t nodeCount() const { return _nodeCount; }
  bool contains(uint32_t index) const { return _find(index) != nullptr; }

 private:
  size_t _bucket(uint32_t index) const {
    return (index * uint64_t{0x9E3779B97F4A7C15}) >> _nodeCacheTOCShift;
  }
  HFSPlusBTreeNode* _find(uint32_t index) const;
  void _grow();
  void _linkIdle(HFSPlusBTreeNode& node);
  void _unlinkIdle(HFSPlusBTreeNode& node);
  void _cachedNodeDealloc(HFSPlusBTreeNode& node);

  // Buckets, a power of two, of nodes chained by their index.
  std::vector<HFSPlusBTreeNode*> _nodeCacheTOC;
  unsigned _nodeCacheTOCShift;
  uint64_t _nodeCount = 0;
  uint64_t _nodeCacheCount = 0;
  uint64_t _nodeCacheLimit = 0;
  HFSPlusBTreeNode* _nodeCacheQHead = nullptr;
  HFSPlusBTreeNode* _nodeCacheQTail = nullptr;
  std::unique_ptr<HFSPlusBTreeNode> _spare;
};
