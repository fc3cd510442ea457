#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "HFSPlus/HFSPlusFileForkSet.hpp"
#include "XRDefragError.hpp"
#include "XRDefragTask.hpp"

class HFSPlusDefragProgress;
class HFSPlusDefragStretch;
class HFSPlusVolume;

/// DEFRAG and COMPACT: rearranges the file data of an unmounted, writable volume by copying it into
/// free space at the volume's low end and pointing the forks there.
///
/// The task's options and the frame of its work are here: whether the volume may be rewritten, the
/// turn among rewriting tasks, the gate, and the start and end of the rewriting run, which are
/// passed through whatever happens in between.
class HFSPlusDefragTask : public XRDefragTask {
 public:
  /// The volume must outlive the task.
  HFSPlusDefragTask(HFSPlusVolume& volume, bool compact);

  /// Also ends the wait for the turn.
  void abort() override;

  /// Makes the copy buffer (bytes) and the extent map (entries) smaller than the machine would have
  /// them. To be called before the task starts.
  void limitResources(uint64_t copyBufferBytes, uint64_t extentMapCapacity);

 protected:
  void runTask() override;

 private:
  Result<> _parseOptions();
  Result<> _parseProfile(std::string_view value);
  Result<> _rewriteVolume();
  Result<> _run();
  Result<> _prepareProfiles();
  Result<> _emptyPlaylist();
  HFSPlusDefragProgress _makeProgress();
  Result<> _runEngine(HFSPlusDefragStretch& stretch, HFSPlusDefragProgress& progress);
  std::function<bool()> _cancelled() const;

  HFSPlusVolume& _volume;
  const bool _compact;
  bool _verbose = true;
  bool _useAppProfile = false;
  bool _useBootProfile = false;
  bool _playlistIsUsed = false;
  uint64_t _copyBufferSize;
  uint64_t _extentMapCapacity;
  std::optional<HFSPlusFileForkSet> _profileFileForks;  // none: no profile
};
