#include "Tasks/HFSPlusDefragTask.hpp"

#include <memory>

#include "HFSPlus/HFSPlusApplicationProfile.hpp"
#include "HFSPlus/HFSPlusBootCacheProfile.hpp"
#include "HFSPlus/HFSPlusExtentMap.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "Platform/PlatformProcess.hpp"
#include "Tasks/HFSPlusClosedGate.hpp"
#include "Tasks/HFSPlusCompactMode.hpp"
#include "Tasks/HFSPlusCopyBuffer.hpp"
#include "Tasks/HFSPlusCopyEngine.hpp"
#include "Tasks/HFSPlusDefragMode.hpp"
#include "Tasks/HFSPlusDefragPreparation.hpp"
#include "Tasks/HFSPlusDefragProgress.hpp"
#include "Tasks/HFSPlusDefragStretch.hpp"
#include "Tasks/HFSPlusRewritingTurn.hpp"

namespace {

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) {
    return {};
  }
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::unexpected<XRDefragError> unknownProfile(std::string_view name) {
  return std::unexpected(XRDefragError::localized("Unknown profile: %1$@", name));
}

}  // namespace

HFSPlusDefragTask::HFSPlusDefragTask(HFSPlusVolume& volume, bool compact)
    : XRDefragTask(volume),
      _volume(volume),
      _compact(compact),
      _copyBufferSize(HFSPlusCopyBuffer::sizeForMemory(PlatformProcess::physicalMemoryBytes())),
      _extentMapCapacity(HFSPlusExtentMap::kDefaultCapacity) {
  setName(compact ? "COMPACT" : "DEFRAG");
}

void HFSPlusDefragTask::limitResources(uint64_t copyBufferBytes, uint64_t extentMapCapacity) {
  _copyBufferSize = copyBufferBytes;
  _extentMapCapacity = extentMapCapacity;
}

void HFSPlusDefragTask::abort() {
  XRDefragTask::abort();
  HFSPlusRewritingTurn::wakeWaiters();
}

std::function<bool()> HFSPlusDefragTask::_cancelled() const {
  return [this] { return aborted(); };
}

void HFSPlusDefragTask::runTask() {
  reportTaskStart();
  Result<> result = _parseOptions();
  if (result) {
    result = _rewriteVolume();
  }
  if (!result) {
    reportTaskError(result.error());
  }
  reportTaskDone();
}

Result<> HFSPlusDefragTask::_parseOptions() {
  const std::vector<std::string>& words = arguments();
  for (size_t i = 1; i < words.size(); ++i) {
    const std::string& option = words[i];
    if (option == "-q" || option == "--quiet") {
      _verbose = false;
    } else if (!_compact && (option == "-p" || option == "--profile")) {
      if (++i == words.size()) {
        return std::unexpected(
            XRDefragError::localized("Option %1$@ requires an argument.", option));
      }
      TRY(_parseProfile(words[i]));
    } else {
      return std::unexpected(XRDefragError::localized("Unknown option: %1$@", option));
    }
  }
  return {};
}

Result<> HFSPlusDefragTask::_parseProfile(std::string_view value) {
  std::string_view rest = value;
  while (!rest.empty()) {
    const size_t comma = std::min(rest.find(','), rest.size());
    const std::string_view piece = trimmed(rest.substr(0, comma));
    rest.remove_prefix(std::min(comma + 1, rest.size()));
    if (piece == "app") {
      _useAppProfile = true;
    } else if (piece == "boot") {
      _useBootProfile = true;
    } else if (!piece.empty()) {
      return unknownProfile(piece);
    }
  }
  return _useAppProfile || _useBootProfile ? Result<>() : unknownProfile(value);
}

Result<> HFSPlusDefragTask::_rewriteVolume() {
  if (_volume.isMounted() || _volume.mounted()) {
    return std::unexpected(XRDefragError::localized("Volume is mounted."));
  }
  if (!_volume.isWritable()) {
    return std::unexpected(XRDefragError::localized("Volume is read-only."));
  }
  const auto turn = HFSPlusRewritingTurn::wait(_volume, _cancelled());
  if (!turn) {
    return std::unexpected(XRDefragError::userCancelled());
  }
  const HFSPlusClosedGate gate(_volume);
  _volume.beginRewriting();
  Result<> result = _run();
  Result<> ended = _volume.endRewriting();
  return result ? ended : result;
}

Result<> HFSPlusDefragTask::_run() {
  TRY(_volume.reread());
  HFSPlusDefragProgress progress = _makeProgress();
  if (!_compact) {
    TRY(_prepareProfiles());
  }
  HFSPlusDefragStretch stretch(_volume, _cancelled(), _extentMapCapacity);
  HFSPlusDefragPreparation preparation(_volume, stretch, _profileFileForks, name());
  TRY(preparation.checkVolume());
  if (_playlistIsUsed) {
    TRY(_emptyPlaylist());
    preparation.forksHaveChanged();
  }
  const auto expectedBlocks = TRY(preparation.prepareForRun(_compact));
  if (!expectedBlocks) {
    return {};
  }
  progress.expect(*expectedBlocks);
  return _runEngine(stretch, progress);
}

/// Before the run has marked or emptied anything: its lines tell of the volume as it was.
HFSPlusDefragProgress HFSPlusDefragTask::_makeProgress() {
  const HFSPlusVolumeHeader& header = _volume.hostVolumeHeader();
  HFSPlusDefragProgress progress(name(), header.totalBlocks - header.freeBlocks);
  if (!_verbose) {
    progress.setQuiet([this](int percent) { updateTaskProgress(percent); });
  }
  return progress;
}

/// Collects the forks that are to be laid down first.
Result<> HFSPlusDefragTask::_prepareProfiles() {
  HFSPlusFileForkSet fileForks;
  if (_useBootProfile) {
    const HFSPlusProfile profile = TRY(HFSPlusBootCacheProfile::addFileForks(_volume, fileForks));
    _playlistIsUsed = profile == HFSPlusProfile::Added;
  }
  if (_useAppProfile) {
    TRY(HFSPlusApplicationProfile::addFileForks(_volume.catalog(), fileForks));
  }
  if (!fileForks.empty()) {
    _profileFileForks = std::move(fileForks);
  }
  return {};
}

/// Empties the boot playlist, unless there is no room to do that in one piece.
Result<> HFSPlusDefragTask::_emptyPlaylist() {
  HFSPlusBootCacheProfile::reset(_volume);
  if (TRY(_volume.flush()) == HFSPlusVolume::FlushOutcome::NoRoomForRecord) {
    TRY(_volume.discardChanges());
  }
  return {};
}

Result<> HFSPlusDefragTask::_runEngine(HFSPlusDefragStretch& stretch,
                                       HFSPlusDefragProgress& progress) {
  const uint32_t blockSize = _volume.hostVolumeHeader().blockSize;
  const auto buffer = TRY(HFSPlusCopyBuffer::open(_copyBufferSize, blockSize));
  std::unique_ptr<HFSPlusSourceMode> mode;
  if (_compact) {
    mode = std::make_unique<HFSPlusCompactMode>(stretch);
  } else {
    mode = std::make_unique<HFSPlusDefragMode>(_volume, stretch, _profileFileForks);
  }
  HFSPlusCopyEngine engine(_volume, stretch, *mode, buffer, progress, _cancelled());
  return engine.run();
}
