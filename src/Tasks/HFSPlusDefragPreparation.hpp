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

  /// Holds the volume's metadata against itself and marks owned blocks that are not marked. Until
  /// this has succeeded nothing else may be written. Fails with the errors of the volume's
  /// immutable forks and of building the map.
  [[nodiscard]] Result<> checkVolume();

  /// To be told of changes to forks after the check.
  void forksHaveChanged() { _mapIsCurrent = false; }

  /// To be called after the check: leaves the stretch's map beginning where the run begins. The
  /// number of blocks that the run expects to move, or none when there is nothing to do. Fails with
  /// the errors of building the map and of reading forks.
  [[nodiscard]] Result<std::optional<uint32_t>> prepareForRun(bool compact);

 private:
  void _dropImmutableProfileForks();
  Result<std::optional<HFSPlusExtentRun>> _firstRun();
  template <typename Test>
  Result<> _skipWhile(Test&& passes);
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
  bool _mapIsCurrent = false;   // the stretch's map is that of the volume's start
  uint64_t _skippedBlocks = 0;  // movable ones
};
