// A damaged volume through everything that the program does with one.

#include <ctime>

#include "FuzzTargets.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "ReportCapture.hpp"
#include "TaskRun.hpp"
#include "VolumeContents.hpp"
#include "VolumeRecipe.hpp"

namespace fuzz {

namespace {

// A sound volume of a fuzzer's size takes a few thousand transfers and less than a second.
constexpr uint64_t kMostTransfers = 400'000;
constexpr double kMostSeconds = 20;

constexpr const char* kPlaylistPath = "/private/var/db/BootCache.playlist";

double secondsSpent() {
  timespec time{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/// One volume's way through the program.
class Passage {
 public:
  explicit Passage(const VolumeRecipe& recipe)
      : _recipe(recipe), _memory(recipe.makeDevice()), _start(secondsSpent()) {}

  void run() {
    auto volume = open();
    if (!volume) {
      return;
    }
    if (_recipe.reportsFirst) {
      report(*volume);
    }
    if (_recipe.rewriting != VolumeRecipe::Rewriting::None) {
      rewrite(*volume);
    }
    if (!_recipe.reportsFirst) {
      report(*volume);
    }
  }

 private:
  /// The volume on the device as it is now; null when the program refuses it.
  std::unique_ptr<HFSPlusVolume> open() {
    _memory->allow(kMostTransfers);
    XRDefragVolume device("/nowhere", _memory, _recipe.mounted,
                          !_recipe.mounted && !_recipe.readOnly);
    static_cast<void>(HFSPlusVolume::probe(device));
    auto volume = HFSPlusVolume::open(device, HFSXVolumes::Accepted);
    if (!volume) {
      _refusal = volume.error().description();
      checkMessage(_refusal);
      return nullptr;
    }
    return *std::move(volume);
  }

  void report(HFSPlusVolume& volume) {
    for (const char* line : {"SCAN", "SCAN --frag-only --full-paths", "FRAGINFO", "BITMAP 3",
                             "BITMAP -m 64", "MAP -i 2 -i 16 -i 20 -i 27",
                             "MAP -p /private/var/db/BootCache.playlist", "MAP -p /.journal"}) {
      _memory->allow(kMostTransfers);
      checkMessage(errorOf(runReporting(volume, line)));
    }
  }

  void rewrite(HFSPlusVolume& volume) {
    _memory->allow(kMostTransfers);
    const std::string excepted = playlistOwner(volume);
    const VolumeContents before = contentsOf(volume);

    TaskLimits limits;
    if (_recipe.copyBufferBlocks != 0) {
      limits.copyBufferBytes =
          uint64_t{_recipe.copyBufferBlocks} * volume.hostVolumeHeader().blockSize;
    }
    if (_recipe.mapCapacity != 0) {
      limits.mapCapacity = _recipe.mapCapacity;
    }
    _memory->allow(kMostTransfers);
    const std::string error = errorOf(runRewriting(volume, commandLine(), limits));
    checkMessage(error);

    const auto reopened = open();
    FUZZ_CHECK(reopened, "after a run (" + error + ") the volume is refused: " + _refusal);
    _memory->allow(kMostTransfers);
    const VolumeContents after = contentsOf(*reopened);
    const std::string lost = lostContents(before, after, excepted);
    FUZZ_CHECK(lost.empty(), "after a run (" + error + ") " + lost);
    // What the run left in memory is what it left on the device.
    _memory->allow(kMostTransfers);
    FUZZ_CHECK(runReporting(volume, "SCAN") == runReporting(*reopened, "SCAN"),
               "the volume in memory is not the volume on the device");
  }

  std::string commandLine() const {
    switch (_recipe.rewriting) {
      case VolumeRecipe::Rewriting::Compact:
        return "COMPACT";
      case VolumeRecipe::Rewriting::DefragWithProfiles:
        return "DEFRAG --profile boot,app";
      default:
        return "DEFRAG";
    }
  }

  /// Whom a run may take its contents from: the playlist, once it has been used.
  std::string playlistOwner(HFSPlusVolume& volume) const {
    if (_recipe.rewriting != VolumeRecipe::Rewriting::DefragWithProfiles) {
      return {};
    }
    const auto record = volume.catalog().copyRecordForPath(kPlaylistPath);
    return record && record->isFile() ? ownerOfDataFork(record->file().fileID) : std::string();
  }

  void checkMessage(const std::string& message) const {
    FUZZ_CHECK(!message.starts_with("Internal error"), "damage is no internal error: " + message);
    FUZZ_CHECK(secondsSpent() - _start < kMostSeconds, "more time than the volume is worth");
  }

  const VolumeRecipe& _recipe;
  std::shared_ptr<FuzzDevice> _memory;
  double _start;
  std::string _refusal;  // the message of the last volume that did not open
};

}  // namespace

void runVolume(Input input) {
  const VolumeRecipe recipe(input);
  Passage(recipe).run();
}

}  // namespace fuzz
