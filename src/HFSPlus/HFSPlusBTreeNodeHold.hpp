#pragma once

#include <utility>

#include "HFSPlus/HFSPlusBTreeNodeCache.hpp"

/// A node that somebody uses: as long as one of these refers to it, it stays in memory. Gives the
/// node back on destruction. Must not outlive the tree.
class HFSPlusBTreeNodeHold {
 public:
  /// Refers to no node.
  HFSPlusBTreeNodeHold() = default;
  /// Takes over one hold that the cache has counted already.
  HFSPlusBTreeNodeHold(HFSPlusBTreeNodeCache& cache, HFSPlusBTreeNode& node)
      : _cache(&cache), _node(&node) {}
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
    if (_node != nullptr) {
      _cache->release(*std::exchange(_node, nullptr));
    }
  }

  explicit operator bool() const { return _node != nullptr; }
  HFSPlusBTreeNode* operator->() const { return _node; }
  HFSPlusBTreeNode& operator*() const { return *_node; }

 private:
  HFSPlusBTreeNodeCache* _cache = nullptr;
  HFSPlusBTreeNode* _node = nullptr;
};
