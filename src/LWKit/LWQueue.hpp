#pragma once

#include <functional>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "LWKit/LWDebug.hpp"

/// A doubly linked queue of distinct objects, any of which can be found, removed or used as an
/// insertion point in constant time.
///
/// Invariants: `_map` owns the members; every member's entry is linked exactly once between `_head`
/// and `_tail`. Entering an object twice, or next to one that is not a member, stops the process.
/// No lock: its user locks it.
template <typename T, typename Hash = std::hash<T>>
class LWQueue {
 public:
  LWQueue() = default;
  LWQueue(const LWQueue&) = delete;
  LWQueue& operator=(const LWQueue&) = delete;

  size_t count() const { return _map.size(); }
  bool empty() const { return _map.empty(); }
  bool containsObject(const T& object) const { return _map.contains(object); }

  /// The member at an end, or none.
  std::optional<T> headObject() const { return objectOf(_head); }
  std::optional<T> tailObject() const { return objectOf(_tail); }

  /// The neighbour of a member towards the tail or head; none at the end or for a non-member.
  std::optional<T> nextObject(const T& member) const {
    const Entry* entry = find(member);
    return entry == nullptr ? std::nullopt : objectOf(entry->next);
  }
  std::optional<T> prevObject(const T& member) const {
    const Entry* entry = find(member);
    return entry == nullptr ? std::nullopt : objectOf(entry->prev);
  }

  /// All members, head first.
  std::vector<T> getObjects() const {
    std::vector<T> objects;
    objects.reserve(count());
    for (const Entry* entry = _head; entry != nullptr; entry = entry->next) {
      objects.push_back(*entry->object);
    }
    return objects;
  }

  void enqueueHeadObject(T object) { insert(std::move(object), nullptr, _head); }
  void enqueueTailObject(T object) { insert(std::move(object), _tail, nullptr); }

  void enqueueObjectBeforeObject(T object, const T& member) {
    Entry* entry = findMember(member);
    insert(std::move(object), entry->prev, entry);
  }
  void enqueueObjectAfterObject(T object, const T& member) {
    Entry* entry = findMember(member);
    insert(std::move(object), entry, entry->next);
  }

  /// Removes a member; ignores what is none.
  void dequeueObject(const T& object) {
    if (Entry* entry = find(object)) {
      remove(entry);
    }
  }

  /// Remove and return the member at an end, or none.
  std::optional<T> dequeueHeadObject() { return remove(_head); }
  std::optional<T> dequeueTailObject() { return remove(_tail); }

  /// Remove and return the neighbour of a member, or none.
  std::optional<T> dequeueNextObject(const T& member) {
    Entry* entry = find(member);
    return remove(entry == nullptr ? nullptr : entry->next);
  }
  std::optional<T> dequeuePrevObject(const T& member) {
    Entry* entry = find(member);
    return remove(entry == nullptr ? nullptr : entry->prev);
  }

  void dequeueAllObjects() {
    _map.clear();
    _head = _tail = nullptr;
  }

 private:
  struct Entry {
    Entry* next = nullptr;  // towards the tail
    Entry* prev = nullptr;  // towards the head
    const T* object = nullptr;
  };

  static std::optional<T> objectOf(const Entry* entry) {
    return entry == nullptr ? std::nullopt : std::optional<T>(*entry->object);
  }

  Entry* find(const T& object) { return const_cast<Entry*>(std::as_const(*this).find(object)); }
  const Entry* find(const T& object) const {
    const auto found = _map.find(object);
    return found == _map.end() ? nullptr : &found->second;
  }

  Entry* findMember(const T& member) {
    Entry* entry = find(member);
    LW_ASSERT(entry != nullptr);
    return entry;
  }

  void insert(T object, Entry* prev, Entry* next) {
    const auto [position, isNew] = _map.try_emplace(std::move(object));
    LW_ASSERT(isNew);
    Entry& entry = position->second;
    entry = {.next = next, .prev = prev, .object = &position->first};
    (prev == nullptr ? _head : prev->next) = &entry;
    (next == nullptr ? _tail : next->prev) = &entry;
  }

  std::optional<T> remove(Entry* entry) {
    if (entry == nullptr) {
      return std::nullopt;
    }
    (entry->prev == nullptr ? _head : entry->prev->next) = entry->next;
    (entry->next == nullptr ? _tail : entry->next->prev) = entry->prev;
    // The entry goes with its node, and the member may have been named by a reference into it.
    auto node = _map.extract(_map.find(*entry->object));
    return std::optional<T>(std::move(node.key()));
  }

  Entry* _head = nullptr;
  Entry* _tail = nullptr;
  std::unordered_map<T, Entry, Hash> _map;
};
