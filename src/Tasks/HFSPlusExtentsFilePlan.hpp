#pragma once

#include <memory>

#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "XRDefragError.hpp"

class HFSPlusVolume;
struct HFSPlusCopyEntry;

/// The extents file as the moves of a batch will leave it.
///
/// That file holds the overflow records of all others but has none itself: what the volume header
/// lists is all that there may be of it.
class HFSPlusExtentsFilePlan {
 public:
  /// The volume must outlive the plan.
  explicit HFSPlusExtentsFilePlan(HFSPlusVolume& volume) : _volume(volume) {}

  /// Takes note of a move, whosever blocks it moves. Errors of the fork's extents.
  [[nodiscard]] Result<> add(const HFSPlusCopyEntry& move);

  /// Whether the header can list all pieces.
  bool fitsHeader() const {
    return !_fork || _fork->editedDescriptorCount() <= kHFSPlusExtentDensity;
  }

 private:
  HFSPlusVolume& _volume;
  std::unique_ptr<HFSPlusForkExtents> _fork;  // none as long as the file stays where it is
};
