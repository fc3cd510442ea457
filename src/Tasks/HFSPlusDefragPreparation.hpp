#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "HFSPlus/HFSPlusExtentMap.hpp"
#include "HFSPlus/HFSPlusFileForkSet.hpp"
#include "XRDefragError.hpp"

class HFSPlusDefragStretch;
class HFSPlusVolume;

/// What happens between a rewriting run's start and its first move: finding out what must not be
/// moved, checking the volume's metadata against itself, and skipping what is in place already.
class HFSPlusDefragPreparation {
 public:
  /// What is skipped at the front is removed from the stretch's map and, where the profile's forks
  /// are in place, from the profile. All must outlive the object.
  HFSPlusDefragPreparation(HFSPlusVolume& volume, HFSPlusDefragStretch& stretch,
                           std::optional<HFSPlusFileForkSet>& profileFileForks,
                           std::string taskName)
      : _volume(volume),
        _stretch(stretch),
        _profileFileForks(profileFileForks),
        _taskName(std::move(taskName)) {}

  /// Leaves the stretch's map beginning where the run begins. The number of blocks that the run
  /// expects to move, or none when there is nothing to do. Fails with the errors of the volume's
  /// immutable forks, of building the map and of reading forks.
  [[nodiscard]] Result<std::optional<uint32_t>> prepareForRun(bool compact);

 private:
  Result<> _checkVolume();
  void _dropImmutableProfileForks();
  Result<std::optional<HFSPlusExtentRun>> _firstRun();
  Result<> _skipToFirstDataBlock();
  Result<> _skipToFirstFreeBlock();
  Result<> _skipForksInPlace();
  Result<bool> _isInPlace(const HFSPlusExtentMapEntry& entry);
  Result<bool> _isProfilesNext(const HFSPlusExtentDescriptor& inPlace);
  uint32_t _expectedBlocks() const;

  HFSPlusVolume& _volume;
  HFSPlusDefragStretch& _stretch;
  std::optional<HFSPlusFileForkSet>& _profileFileForks;
  std::string _taskName;
  uint64_t _skippedBlocks = 0;  // movable ones
};
