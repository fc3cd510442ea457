#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "HFSPlus/HFSPlusFileForkSet.hpp"
#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "Tasks/HFSPlusSourceMode.hpp"

class HFSPlusDefragStretch;
class HFSPlusVolume;

/// Makes forks contiguous: hands out one fork after another, each extent by extent in the fork's
/// own order, so that its pieces end up side by side at the front.
///
/// The next fork is that of the first allocated run of the map, or, while a profile is in force,
/// the profile's first member. Only extents at or above the map's front are handed out: what lies
/// below has its place.
class HFSPlusDefragMode final : public HFSPlusSourceMode {
 public:
  /// The profile, if there is one, is used up member by member and dropped at its end. All three
  /// must outlive the mode.
  HFSPlusDefragMode(HFSPlusVolume& volume, HFSPlusDefragStretch& stretch,
                    std::optional<HFSPlusFileForkSet>& profileFileForks)
      : _volume(volume), _stretch(stretch), _profileFileForks(profileFileForks) {}

  /// Fails with "Volume is too congested, unable to continue." when rebuilding the map three times
  /// has brought no allocated run, with internal errors, and with the fork's errors.
  [[nodiscard]] Result<std::optional<HFSPlusSourceEntry>> getSourceEntry() override;
  [[nodiscard]] Result<> putSourceEntry(const HFSPlusSourceEntry& taken) override;
  void updateSource() override;
  void startOver(const HFSPlusFileFork& fork) override;
  void forgetFile(uint32_t fileID) override;

 private:
  struct State {
    uint32_t fileID = 0;  // fork being laid down; 0: none chosen
    uint8_t forkType = 0;
    uint32_t retries = 0;  // maps in a row without an allocated run
    std::optional<HFSPlusForkExtents::Descriptors> extents;  // still to be moved, if loaded
    size_t firstExtent = 0;                                  // those before it are done
    uint32_t startBlock = 0;                                 // extent now being moved
    uint32_t blockCount = 0;
    HFSPlusSourceEntry entry{};             // pending source; start 0: none
    std::vector<HFSPlusFileFork> finished;  // profile members that left it in this batch
    uint32_t searchBlock = 0;               // no allocated run lies below it in this batch
  };

  enum class Choice { Fork, Nothing };

  Result<Choice> _chooseFork();
  Result<Choice> _chooseProfileFork();
  Result<Choice> _chooseFirstAllocatedFork();
  Result<Choice> _resumeFork();
  Result<bool> _loadExtents();
  Result<> _checkProfileMember() const;
  void _removeProfileMember();
  void _restoreProfileMembers();
  void _clearEntry();
  void _freeExtents();
  size_t _remainingExtents() const;

  HFSPlusVolume& _volume;
  HFSPlusDefragStretch& _stretch;
  std::optional<HFSPlusFileForkSet>& _profileFileForks;
  State _state;
};
