#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "support/doubles/RecordingDevice.hpp"

namespace doubles {

/// What a device may hold when the power goes in the midst of recorded writes and syncs.
///
/// The cut points are walked from first to last: point k lies after the first k records. What was
/// written before the last sync is there; what was written since may be lost, kept or torn.
class PowerCut {
 public:
  enum class Unsynced {
    Lost,
    Kept,
    Torn,  // of each 512 bytes independently it is open whether they got through
  };

  /// The bytes before the first record, and the writes and syncs that followed.
  PowerCut(std::vector<std::byte> image, std::vector<RecordingDevice::Record> changes)
      : _stable(std::move(image)), _changes(std::move(changes)) {}

  /// Number of cut points.
  size_t pointCount() const { return _changes.size() + 1; }

  /// The cut point at hand.
  size_t point() const { return _point; }

  /// Whether anything is open at the point at hand.
  bool hasUnsynced() const { return _firstUnsynced < _point; }

  /// Moves on to a point that is not before the one at hand.
  void advanceTo(size_t point);

  /// Makes the sync at a record, which lies ahead, one that only says it was done: what was written
  /// before it stays open until the next one.
  void lieAbout(size_t sync) { _lie = sync; }

  /// The device's bytes after a cut at the point at hand. The seed decides what is torn.
  std::vector<std::byte> image(Unsynced unsynced, uint64_t seed = 0) const {
    return image(unsynced, unsynced, seed);
  }
  /// The same with one fate for what was written before the lie, and another for what came then.
  std::vector<std::byte> image(Unsynced beforeLie, Unsynced sinceLie, uint64_t seed) const;

 private:
  std::vector<std::byte> _stable;
  std::vector<RecordingDevice::Record> _changes;
  size_t _point = 0;
  size_t _firstUnsynced = 0;
  size_t _lie = SIZE_MAX;
};

}  // namespace doubles
