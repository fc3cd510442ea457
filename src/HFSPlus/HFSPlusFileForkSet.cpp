#include "HFSPlus/HFSPlusFileForkSet.hpp"

#include <algorithm>

#include "HFSPlus/HFSPlusRandom.hpp"
#include "LWKit/LWDebug.hpp"
#include "XRDefragReport.hpp"

namespace {

constexpr size_t kSmallestSet = 16;

}  // namespace

HFSPlusFileForkSet::Key HFSPlusFileForkSet::keyOf(uint32_t fileID, uint8_t forkType) {
  return Key{1} << 40 | Key{fileID} << 8 | forkType;
}

HFSPlusFileFork HFSPlusFileForkSet::forkOf(Key key) {
  return {static_cast<uint32_t>(key >> 8), static_cast<uint8_t>(key)};
}

/// The slot where a key would like to be. File IDs come from the volume, so what they hash to
/// depends on a seed that no volume knows.
size_t HFSPlusFileForkSet::homeOf(Key key) const {
  static const uint64_t seed = HFSPlusRandom::clockSeed() * 0x9E3779B97F4A7C15ULL;
  uint64_t hash = key ^ seed;
  hash = (hash ^ hash >> 30) * 0xBF58476D1CE4E5B9ULL;
  hash = (hash ^ hash >> 27) * 0x94D049BB133111EBULL;
  return (hash ^ hash >> 31) & (_entriesSet.size() - 1);
}

/// The slot that holds a key, or the empty one where it would go.
size_t HFSPlusFileForkSet::slotOf(Key key) const {
  size_t slot = homeOf(key);
  while (_entriesSet[slot] != 0 && _entriesSet[slot] != key) {
    slot = (slot + 1) & (_entriesSet.size() - 1);
  }
  return slot;
}

void HFSPlusFileForkSet::growSet() {
  _entriesSet.assign(std::max(kSmallestSet, _entriesSet.size() * 2), 0);
  for (size_t index = _removedFront; index < _entriesArray.size(); ++index) {
    _entriesSet[slotOf(_entriesArray[index])] = _entriesArray[index];
  }
}

void HFSPlusFileForkSet::add(uint32_t fileID, uint8_t forkType) {
  if (contains(fileID, forkType)) {
    return;
  }
  Key key = keyOf(fileID, forkType);
  addToSet(key);
  _entriesArray.push_back(key);
}

void HFSPlusFileForkSet::addInFront(std::span<const HFSPlusFileFork> fileForks) {
  if (fileForks.size() > _removedFront) {
    // Some room more, so that the next ones find it; not so much that it is soon swept away.
    size_t room = fileForks.size() + count() / 4;
    _entriesArray.insert(_entriesArray.begin(), room, 0);
    _removedFront += room;
  }
  for (size_t index = fileForks.size(); index > 0; --index) {
    const HFSPlusFileFork& fork = fileForks[index - 1];
    LW_ASSERT(!contains(fork.fileID, fork.forkType));
    Key key = keyOf(fork.fileID, fork.forkType);
    addToSet(key);
    _entriesArray[--_removedFront] = key;
  }
}

bool HFSPlusFileForkSet::contains(uint32_t fileID, uint8_t forkType) const {
  Key key = keyOf(fileID, forkType);
  return !_entriesSet.empty() && _entriesSet[slotOf(key)] == key;
}

HFSPlusFileFork HFSPlusFileForkSet::fileForkAtIndex(size_t index) const {
  LW_ASSERT(index < count());
  return forkOf(_entriesArray[_removedFront + index]);
}

void HFSPlusFileForkSet::removeFileForkAtIndex(size_t index) {
  LW_ASSERT(index < count());
  auto begin = _entriesArray.begin();
  auto member = begin + static_cast<std::ptrdiff_t>(_removedFront + index);
  removeFromSet(*member);
  if (index > 0) {
    _entriesArray.erase(member);
    return;
  }
  // Members taken from the front are swept away once they are the greater half.
  if (++_removedFront * 2 > _entriesArray.size()) {
    _entriesArray.erase(begin, begin + static_cast<std::ptrdiff_t>(_removedFront));
    _removedFront = 0;
  }
}

void HFSPlusFileForkSet::addToSet(Key key) {
  if ((count() + 1) * 4 > _entriesSet.size() * 3) {
    growSet();
  }
  _entriesSet[slotOf(key)] = key;
}

/// Empties a key's slot and moves back the keys behind it that had to make way for it.
void HFSPlusFileForkSet::removeFromSet(Key key) {
  size_t mask = _entriesSet.size() - 1;
  size_t hole = slotOf(key);
  for (size_t slot = (hole + 1) & mask; _entriesSet[slot] != 0; slot = (slot + 1) & mask) {
    size_t distanceFromHome = (slot - homeOf(_entriesSet[slot])) & mask;
    if (distanceFromHome >= ((slot - hole) & mask)) {
      _entriesSet[hole] = _entriesSet[slot];
      hole = slot;
    }
  }
  _entriesSet[hole] = 0;
}

void HFSPlusFileForkSet::dump(const HFSPlusPathLookup& path) const {
  if (!LWDebugEnabled(LWDebugLevel::Debug)) {
    return;
  }
  for (size_t index = 0; index < count(); ++index) {
    HFSPlusFileFork fork = fileForkAtIndex(index);
    LWDebugLog(LWDebugLevel::Debug, "%10u:%-2X  %@\n", fork.fileID, fork.forkType,
               outputSafeString(path(fork.fileID).value_or("")));
  }
}
