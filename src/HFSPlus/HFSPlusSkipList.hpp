#pragma once

#include <array>
#include <cstddef>
#include <utility>

#include "HFSPlus/HFSPlusRandom.hpp"
#include "HFSPlus/HFSPlusSkipListNodes.hpp"
#include "LWKit/LWDebug.hpp"

/// An ordered list of small records in which search, insertion and removal take O(log n).
///
/// A record's address is stable until it is removed. Its owner may change it in place as long as
/// its order among the others stays.
///
/// `Compare` orders records: a function object that is called with a record and a key (or another
/// record) and answers negative when the record lies before it, 0 when it matches and positive when
/// it lies after.
///
/// No lock: a list belongs to one thread at a time.
template <typename Record, typename Compare, unsigned kMaximumLevels>
class HFSPlusSkipList {
  using Nodes = HFSPlusSkipListNodes<Record, kMaximumLevels>;
  using Node = typename Nodes::Node;

 public:
  /// A place between two neighbours: on every level, the links of the last node left of it.
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
  Record* first() const { return Nodes::recordOf(_head[0]); }

  /// The record after one of this list, or null.
  Record* next(const Record* record) const {
    return Nodes::recordOf(Nodes::linksOf(Nodes::nodeOf(record))[0]);
  }

  /// The last record, or null.
  Record* last() const {
    return lastWhile([](const Node*) { return true; });
  }

  /// The last record that lies before the key or matches it, or null.
  template <typename Key>
  Record* lastNotAfter(const Key& key) const {
    return lastWhile([&](const Node* node) { return Compare{}(node->record, key) <= 0; });
  }

  /// The place behind every record that lies before the key or matches it.
  template <typename Key>
  Position positionAfter(const Key& key) {
    return positionWhile([&](const Node* node) { return Compare{}(node->record, key) <= 0; });
  }

  /// The record left of a place, or null at the front.
  Record* recordBefore(const Position& position) const { return Nodes::recordOf(position._before); }

  /// Inserts a record at a place where the order wants it, and answers its copy in the list; null
  /// when memory has run out. The place stays good, left of the new record.
  Record* insertAt(Position& position, const Record& record) {
    Node* node = _nodes.make(record, randomLevel());
    if (node == nullptr) {
      return nullptr;
    }
    // However lucky its draws were, a node raises the list by one level at most.
    unsigned top = node->level;
    if (top > _topLevel) {
      top = ++_topLevel;
    }
    Node** links = Nodes::linksOf(node);
    for (unsigned level = 0; level <= top; ++level) {
      links[level] = std::exchange(position._links[level][level], node);
    }
    return Nodes::recordOf(node);
  }

  /// Inserts a record in front of those that match it, and answers its copy in the list; null when
  /// memory has run out.
  Record* insert(const Record& record) {
    Position position = positionBefore(record);
    return insertAt(position, record);
  }

  /// Removes a record of this list; it must be the only one that matches itself.
  void remove(const Record* record) {
    Position position = positionBefore(*record);
    unlinkAt(position, Nodes::nodeOf(record));
  }

  /// Removes the last record. The list must not be empty.
  void removeLast() {
    Position position =
        positionWhile([](Node* node) { return Nodes::linksOf(node)[0] != nullptr; });
    unlinkAt(position, position._links[0][0]);
  }

  /// The highest level in use.
  unsigned topLevel() const { return _topLevel; }

  /// The level that a record's node drew; the list may link it on fewer.
  unsigned levelOf(const Record* record) const { return Nodes::nodeOf(record)->level; }

  /// Bytes of memory that the nodes have been given.
  size_t memoryUsage() const { return _nodes.memoryUsage(); }

 private:
  /// The last of the run of nodes, from the front, that all pass a test.
  template <typename Test>
  Record* lastWhile(Test&& passes) const {
    Node* before = nullptr;
    Node* const* links = _head.data();
    for (unsigned level = _topLevel + 1; level-- > 0;) {
      while (links[level] != nullptr && passes(links[level])) {
        before = links[level];
        links = Nodes::linksOf(before);
      }
    }
    return Nodes::recordOf(before);
  }

  /// The place behind that run. Levels above the top lead from the head, for nodes that raise it.
  template <typename Test>
  Position positionWhile(Test&& passes) {
    Position position;
    position._links.fill(_head.data());
    Node** links = _head.data();
    for (unsigned level = _topLevel + 1; level-- > 0;) {
      while (links[level] != nullptr && passes(links[level])) {
        position._before = links[level];
        links = Nodes::linksOf(position._before);
      }
      position._links[level] = links;
    }
    return position;
  }

  Position positionBefore(const Record& key) {
    return positionWhile([&](const Node* node) { return Compare{}(node->record, key) < 0; });
  }

  /// Takes the node right of a place out of the list.
  void unlinkAt(Position& position, Node* node) {
    LW_ASSERT(node != nullptr && position._links[0][0] == node);
    for (unsigned level = 0; level <= node->level; ++level) {
      if (position._links[level][level] != node) {
        break;
      }
      position._links[level][level] = Nodes::linksOf(node)[level];
    }
    while (_topLevel >= 1 && _head[_topLevel] == nullptr) {
      --_topLevel;
    }
    _nodes.recycle(node);
  }

  /// Each level's promotion to the next has a probability of just under one half.
  unsigned randomLevel() {
    unsigned level = 0;
    while (_random.next() <= 0x7FFFFFFE && level < kMaximumLevels - 1) {
      ++level;
    }
    return level;
  }

  HFSPlusRandom& _random;
  unsigned _topLevel = 0;
  std::array<Node*, kMaximumLevels> _head{};
  Nodes _nodes;
};
