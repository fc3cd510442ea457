#pragma once

#include <span>

#include "XRDefragError.hpp"

class HFSPlusVolume;
struct HFSPlusCopyEntry;
struct HFSPlusCopyGroup;

/// Finds out, before any block is copied, whether the forks of a batch can be written back: the
/// overflow file may have no nodes left for all the pieces that they are about to fall into.
///
/// A batch that is bound to fail would be forgotten without harm, but only after its data had been
/// copied for nothing, and it would end the run.
class HFSPlusCopyRehearsal {
 public:
  /// The volume must outlive the object and have no changes that are not to be flushed.
  explicit HFSPlusCopyRehearsal(HFSPlusVolume& volume) : _volume(volume) {}

  /// Whether the moves can be written back. Plays them through in memory unless there are more
  /// than enough free nodes, and forgets them again. Errors of flushing and of forgetting.
  [[nodiscard]] Result<bool> succeeds(std::span<const HFSPlusCopyEntry> entries,
                                      std::span<const HFSPlusCopyGroup> groups);

 private:
  bool _hasAmpleNodes(size_t entryCount, size_t groupCount) const;
  Result<> _play(std::span<const HFSPlusCopyEntry> entries,
                 std::span<const HFSPlusCopyGroup> groups);

  HFSPlusVolume& _volume;
};
