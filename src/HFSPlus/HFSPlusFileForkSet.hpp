#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "HFSPlus/HFSPlusPathLookup.hpp"

/// A fork of a file.
struct HFSPlusFileFork {
  uint32_t fileID;
  uint8_t forkType;  // kHFSDataForkType or kHFSResourceForkType
  friend bool operator==(const HFSPlusFileFork&, const HFSPlusFileFork&) = default;
};

/// A set of forks that remembers the order in which they were first added.
///
/// Adding, asking, and taking the first member away or putting it back are constant-time whatever
/// the file IDs are, with some 24 bytes a member. Removing from the middle moves all later members
/// up.
class HFSPlusFileForkSet {
 public:
  size_t count() const { return _entriesArray.size() - _removedFront; }
  bool empty() const { return count() == 0; }

  /// Appends a fork; one that is a member already keeps its place.
  void add(uint32_t fileID, uint8_t forkType);

  /// Puts forks that are no members in front of all others, in the order given.
  void addInFront(std::span<const HFSPlusFileFork> fileForks);

  bool contains(uint32_t fileID, uint8_t forkType) const;

  /// The member at a position below count().
  HFSPlusFileFork fileForkAtIndex(size_t index) const;

  /// Removes the member at a position below count(); later ones move up by one.
  void removeFileForkAtIndex(size_t index);

  /// Logs every member with the name of its file.
  void dump(const HFSPlusPathLookup& path) const;

 private:
  using Key = uint64_t;  // never 0, which marks an empty slot

  static Key keyOf(uint32_t fileID, uint8_t forkType);
  static HFSPlusFileFork forkOf(Key key);
  size_t homeOf(Key key) const;
  size_t slotOf(Key key) const;
  void addToSet(Key key);
  void removeFromSet(Key key);
  void growSet();

  std::vector<Key> _entriesArray;  // members in order, behind those taken from the front
  size_t _removedFront = 0;
  std::vector<Key> _entriesSet;  // open addressing with linear probing; a power of two long
};
