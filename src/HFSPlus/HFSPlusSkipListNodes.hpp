#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

/// The nodes of a skip list.
///
/// A node is one piece of memory: the record, the node's level, and one forward pointer for every
/// level from 0 to it. Nodes are cut from larger blocks. One that is no longer used waits for the
/// next node of its level, so a list costs its nodes at their most numerous and hardly more.
template <typename Record, unsigned kMaximumLevels>
class HFSPlusSkipListNodes {
 public:
  struct Node {
    Record record;  // first, so that a record's address is its node's
    uint32_t level;
  };

  /// The forward pointers of a node, by level.
  static Node** linksOf(Node* node) {
    return std::launder(reinterpret_cast<Node**>(reinterpret_cast<std::byte*>(node) + kLinkOffset));
  }
  /// The node of a record of the list, and back. Null is the record of no node.
  static Node* nodeOf(const Record* record) {
    return reinterpret_cast<Node*>(const_cast<Record*>(record));
  }
  static Record* recordOf(Node* node) { return reinterpret_cast<Record*>(node); }

  /// A node with a copy of the record; null when memory has run out.
  Node* make(const Record& record, unsigned level) {
    if (Node* node = _unused[level]) {
      _unused[level] = linksOf(node)[0];
      node->record = record;
      return node;
    }
    std::byte* storage = cutStorage(kLinkOffset + (level + 1) * sizeof(Node*));
    if (storage == nullptr) {
      return nullptr;
    }
    for (unsigned link = 0; link <= level; ++link) {
      ::new (storage + kLinkOffset + link * sizeof(Node*)) Node*(nullptr);
    }
    return ::new (storage) Node{record, level};
  }

  /// Takes back a node that no link leads to any more.
  void recycle(Node* node) { linksOf(node)[0] = std::exchange(_unused[node->level], node); }

  /// Bytes of memory that nodes have been given.
  size_t memoryUsage() const { return _blocks.size() * kBlockSize; }

 private:
  static_assert(std::is_trivially_copyable_v<Record> && std::is_trivially_destructible_v<Record>);
  static_assert(std::is_standard_layout_v<Node> && alignof(Node) <= alignof(Node*));

  static constexpr size_t kLinkOffset =
      (sizeof(Node) + alignof(Node*) - 1) / alignof(Node*) * alignof(Node*);
  static constexpr size_t kBlockSize = 32768;
  static_assert(kLinkOffset + kMaximumLevels * sizeof(Node*) <= kBlockSize);

  std::byte* cutStorage(size_t size) {
    if (_blocks.empty() || kBlockSize - _used < size) {
      std::unique_ptr<std::byte[]> block(new (std::nothrow) std::byte[kBlockSize]);
      if (block == nullptr) {
        return nullptr;
      }
      _blocks.push_back(std::move(block));
      _used = 0;
    }
    return _blocks.back().get() + std::exchange(_used, _used + size);
  }

  std::array<Node*, kMaximumLevels> _unused{};  // by level, chained by their link 0
  std::vector<std::unique_ptr<std::byte[]>> _blocks;
  size_t _used = 0;  // bytes of the last block
};
