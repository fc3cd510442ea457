#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "HFSPlus/HFSPlusRandom.hpp"
#include "LWKit/LWDebug.hpp"

/// An ordered list of small records in which search, insertion and removal take O(log n).
///
/// A node is one piece of memory: the record, the node's level, and one forward pointer for every
/// level from 0 to it. Nodes are cut from larger blocks and, once removed, wait for the next node
/// of their level, so that the list costs its nodes and hardly more. A record's address is stable
/// until it is removed. Its owner may change it in place as long as its order among the others
/// stays.
///
/// `Compare` orders records: a function object that is called with a record and a key (or another
/// record) and answers negative when the record lies before it, 0 when it matches and positive when
/// it lies after. A search may bring a comparison of its own if it follows the same order.
///
/// No lock: a list belongs to one thread at a time.
template <typename Record, typename Compare, unsigned kMaximumLevels>
class HFSPlusSkipList {
  struct Node;

 public:
  /// A place between two neighbours: the links, one a level, that lead across it.
  class Position {
    friend class HFSPlusSkipList;
    std::array<Node**, kMaximumLevels> _links;
    Node* _before = nullptr;
  };

  explicit HFSPlusSkipList(HFSPlusRandom& random = HFSPlusRandom::sharedRandom())
      : _random(random) {}
  HFSPlusSkipList(const HFSPlusSkipList&) = delete;
  HFSPlusSkipList& operator=(const HFSPlusSkipList&) = delete;

  /// The first record, or null.
  Record* first() const { return recordOf(_head[0]); }

  /// The record after one of this list, or null.
  Record* next(const Record* record) const { return recordOf(linksOf(nodeOf(record))[0]); }

  /// The last record, or null.
  Record* last() const {
    Node* node = nullptr;
    Node* const* links = _head.data();
    for (unsigned level = _topLevel + 1; level-- > 0;) {
      while (links[level] != nullptr) {
        node = links[level];
        links = linksOf(node);
      }
    }
    return recordOf(node);
  }

  /// The first record that matches the key, or null.
  template <typename Key, typename KeyCompare = Compare>
  Record* find(const Key& key, KeyCompare compare = {}) const {
    Node* const* links = _head.data();
    for (unsigned level = _topLevel + 1; level-- > 0;) {
      while (links[level] != nullptr && compare(links[level]->record, key) < 0) {
        links = linksOf(links[level]);
      }
    }
    Node* node = links[0];
    return node != nullptr && compare(node->record, key) == 0 ? recordOf(node) : nullptr;
  }

  /// The place behind every record that lies before the key or matches it.
  template <typename Key>
  Position positionAfter(const Key& key) {
    return positionWhile([&](const Node* node) { return Compare{}(node->record, key) <= 0; });
  }

  /// The record left of a place, or null at the front.
  Record* recordBefore(const Position& position) const { return recordOf(position._before); }

  /// Inserts a record at a place where the order wants it, and answers its copy in the list; null
  /// when memory has run out. The place stays good, left of the new record.
  Record* insertAt(Position& position, const Record& record) {
    Node* node = makeNode(record);
    if (node == nullptr) {
      return nullptr;
    }
    // However lucky its draws were, a node raises the list by one level at most.
    unsigned top = node->level;
    if (top > _topLevel) {
      top = ++_topLevel;
    }
    Node** links = linksOf(node);
    for (unsigned level = 0; level <= top; ++level) {
      links[level] = std::exchange(position._links[level][level], node);
    }
    return recordOf(node);
  }

  /// Inserts a record in front of those that match it, and answers its copy in the list; null when
  /// memory has run out.
  Record* insert(const Record& record) {
    Position position = positionBefore(record);
    return insertAt(position, record);
  }

  /// Removes a record of this list.
  void remove(const Record* record) {
    Position position = positionBefore(*record);
    unlinkAt(position, record);
  }

  /// Removes the last record; nothing when the list is empty.
  void removeLast() {
    Position position = positionWhile([](Node* node) { return linksOf(node)[0] != nullptr; });
    if (Node* node = position._links[0][0]) {
      unlinkAt(position, recordOf(node));
    }
  }

  /// The highest level in use.
  unsigned topLevel() const { return _topLevel; }

  /// The level of a record's node; it may be higher than what the list links it on.
  unsigned levelOf(const Record* record) const { return nodeOf(record)->level; }

  /// Bytes of memory that the nodes have been given so far.
  size_t memoryUsage() const { return _blocks.size() * kBlockSize; }

 private:
  static_assert(std::is_trivially_copyable_v<Record> && std::is_standard_layout_v<Record>);
  static_assert(kMaximumLevels > 0);

  struct Node {
    Record record;  // first, so that a record's address is its node's
    uint32_t level;
  };
  static_assert(std::is_standard_layout_v<Node> && alignof(Node) <= alignof(Node*));

  /// Forward pointers follow their node at this distance.
  static constexpr size_t kLinkOffset =
      (sizeof(Node) + alignof(Node*) - 1) / alignof(Node*) * alignof(Node*);
  static constexpr size_t kBlockSize = 32768;
  static_assert(kLinkOffset + kMaximumLevels * sizeof(Node*) <= kBlockSize);

  static Node** linksOf(Node* node) {
    return std::launder(reinterpret_cast<Node**>(reinterpret_cast<std::byte*>(node) + kLinkOffset));
  }
  static Node* nodeOf(const Record* record) {
    return reinterpret_cast<Node*>(const_cast<Record*>(record));
  }
  static Record* recordOf(Node* node) { return reinterpret_cast<Record*>(node); }

  /// The place behind the longest run of nodes, from the front, that all pass a test.
  template <typename Test>
  Position positionWhile(Test&& passes) {
    Position position;
    position._links.fill(_head.data());
    Node** links = _head.data();
    for (unsigned level = _topLevel + 1; level-- > 0;) {
      while (links[level] != nullptr && passes(links[level])) {
        position._before = links[level];
        links = linksOf(links[level]);
      }
      position._links[level] = links;
    }
    return position;
  }

  /// The place in front of every record that matches the key or lies after it.
  Position positionBefore(const Record& key) {
    return positionWhile([&](const Node* node) { return Compare{}(node->record, key) < 0; });
  }

  /// Takes the record right of a place out of the list.
  void unlinkAt(Position& position, const Record* record) {
    Node* node = nodeOf(record);
    LW_ASSERT(position._links[0][0] == node);
    for (unsigned level = 0; level <= node->level; ++level) {
      if (position._links[level][level] != node) {
        break;
      }
      position._links[level][level] = linksOf(node)[level];
    }
    while (_topLevel >= 1 && _head[_topLevel] == nullptr) {
      --_topLevel;
    }
    linksOf(node)[0] = std::exchange(_unused[node->level], node);
  }

  /// Promotes a node with a probability of just under one half for every level.
  unsigned randomLevel() {
    unsigned level = 0;
    while (_random.next() <= 0x7FFFFFFE && level < kMaximumLevels - 1) {
      ++level;
    }
    return level;
  }

  Node* makeNode(const Record& record) {
    unsigned level = randomLevel();
    Node* node = _unused[level];
    if (node != nullptr) {
      _unused[level] = linksOf(node)[0];
      node->record = record;
    } else {
      std::byte* storage = cutStorage(kLinkOffset + (level + 1) * sizeof(Node*));
      if (storage == nullptr) {
        return nullptr;
      }
      node = ::new (storage) Node{record, level};
      for (unsigned link = 0; link <= level; ++link) {
        ::new (storage + kLinkOffset + link * sizeof(Node*)) Node*(nullptr);
      }
    }
    return node;
  }

  std::byte* cutStorage(size_t size) {
    if (_blocks.empty() || kBlockSize - _used < size) {
      std::unique_ptr<std::byte[]> block(new (std::nothrow) std::byte[kBlockSize]);
      if (block == nullptr) {
        return nullptr;
      }
      _blocks.push_back(std::move(block));
      _used = 0;
    }
    std::byte* storage = _blocks.back().get() + _used;
    _used += size;
    return storage;
  }

  HFSPlusRandom& _random;
  unsigned _topLevel = 0;
  std::array<Node*, kMaximumLevels> _head{};
  std::array<Node*, kMaximumLevels> _unused{};  // removed nodes by level, chained by their link 0
  std::vector<std::unique_ptr<std::byte[]>> _blocks;
  size_t _used = 0;  // bytes of the last block
};
