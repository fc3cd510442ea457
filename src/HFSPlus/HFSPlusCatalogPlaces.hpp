#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>

/// Where in the catalog's leaves records lie, by catalog node ID, for finding them again without a
/// descent from the root. Remembers some hundred thousand, the last ones of those that share a
/// cell. A place is a hint: who takes it looks whether the record is still there.
class HFSPlusCatalogPlaces {
 public:
  struct Place {
    uint32_t node;
    uint32_t record;
  };

  /// The place of an ID, unless only one half of what makes it count is known.
  [[nodiscard]] std::optional<Place> find(uint32_t cnid) const;

  /// Remembers a place that was found by a descent, or that counts by itself.
  void add(uint32_t cnid, const Place& place);

  /// Remembers the halves of a place that counts once both are there, in either order: a file's
  /// record, and a thread that leads to a record of this key. Keys are told apart by fingerprints.
  void addRecord(uint32_t cnid, const Place& place, uint64_t keyFingerprint);
  void addThread(uint32_t cnid, uint64_t keyFingerprint);

  /// Whether every record has been added once. The catalog's records stay where they are: no run
  /// adds or removes any.
  bool isComplete() const { return _isComplete; }
  void setComplete() { _isComplete = true; }

  void forgetAll() {
    _cells.reset();
    _isComplete = false;
  }

 private:
  struct Cell {
    uint32_t cnid;
    uint32_t key;   // the lower half of its fingerprint
    uint32_t node;  // 0, the header node, when the record was not seen
    uint16_t record;
    bool hasThread;
  };
  struct Free {
    void operator()(Cell* cells) const { std::free(cells); }
  };

  Cell* _cell(uint32_t cnid);
  Cell* _cellOfKey(uint32_t cnid, uint64_t keyFingerprint);

  std::unique_ptr<Cell[], Free> _cells;
  bool _isComplete = false;
};
