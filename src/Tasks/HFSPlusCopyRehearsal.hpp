#pragma once

#include <memory>
#include <span>
#include <vector>

#include "XRDefragError.hpp"

class HFSPlusForkExtents;
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

  /// Whether the moves can be written back. Plays those that the overflow file has to do with
  /// through in memory, unless it has more than enough free nodes, and forgets them again. Errors
  /// of flushing and of forgetting.
  [[nodiscard]] Result<bool> succeeds(std::span<const HFSPlusCopyEntry> entries,
                                      std::span<const HFSPlusCopyGroup> groups);

 private:
  bool _hasAmpleNodes(size_t entryCount, size_t groupCount) const;
  std::vector<HFSPlusCopyGroup> _forksWithNodes(std::span<const HFSPlusCopyEntry> entries,
                                                std::span<const HFSPlusCopyGroup> groups) const;
  Result<std::unique_ptr<HFSPlusForkExtents>> _moved(std::span<const HFSPlusCopyEntry> entries,
                                                     const HFSPlusCopyGroup& group) const;
  Result<> _play(std::span<const HFSPlusCopyEntry> entries,
                 std::span<const HFSPlusCopyGroup> groups);

  HFSPlusVolume& _volume;
};
