#pragma once

#include <memory>
#include <utility>

#include "HFSPlus/HFSPlusBTreeNodeCache.hpp"
#include "LWKit/LWDebug.hpp"

/// A node that somebody uses: as long as one of these refers to it, it stays in memory. Gives the
/// node back on destruction. Must not outlive the tree.
class HFSPlusBTreeNodeHold {
 public:
  /// Refers to no node.
  HFSPlusBTreeNodeHold() = default;
  /// Takes over one hold that the cache has counted already.
  HFSPlusBTreeNodeHold(HFSPlusBTreeNodeCache& cache, HFSPlusBTreeNode& node)
      : _cache(&cache), _node(&node) {}
  /// Owns a node that is in no cache. It is to be looked at only.
  explicit HFSPlusBTreeNodeHold(std::unique_ptr<HFSPlusBTreeNode> node) : _node(node.release()) {}
  HFSPlusBTreeNodeHold(HFSPlusBTreeNodeHold&& other) noexcept
      : _cache(other._cache), _node(std::exchange(other._node, nullptr)) {}
  HFSPlusBTreeNodeHold& operator=(HFSPlusBTreeNodeHold&& other) noexcept {
    if (this != &other) {
      reset();
      _cache = other._cache;
      _node = std::exchange(other._node, nullptr);
    }
    return *this;
  }
  ~HFSPlusBTreeNodeHold() { reset(); }

  /// Gives the node back now.
  void reset() {
    if (_node == nullptr) {
      return;
    }
    HFSPlusBTreeNode* node = std::exchange(_node, nullptr);
    if (_cache != nullptr) {
      _cache->release(*node);
    } else {
      LW_ASSERT(!node->dirty());
      delete node;
    }
  }

  explicit operator bool() const { return _node != nullptr; }
  HFSPlusBTreeNode* operator->() const { return _node; }
  HFSPlusBTreeNode& operator*() const { return *_node; }

 private:
  HFSPlusBTreeNodeCache* _cache = nullptr;
  HFSPlusBTreeNode* _node = nullptr;
};
