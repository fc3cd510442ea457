#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "HFSPlus/HFSPlusFileForkSet.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "Tasks/HFSPlusDefragTask.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "support/doubles/MemoryDevice.hpp"
#include "support/doubles/RecordingDevice.hpp"

/// A volume in memory on which DEFRAG and COMPACT are run, and what became of it.
class RewritingRun {
 public:
  /// How much a run may use; the sizes that the machine would give by default.
  struct Limits {
    uint64_t copyBufferBlocks = 0;  // 0: a buffer of 64 MiB
    uint64_t mapCapacity = 0x40000;
  };
  /// One "NAME,PROGRESS,…" line.
  struct Move {
    int percent;
    uint32_t from, to, count, allocatedBlocks;
  };
  using Wrap = std::function<std::shared_ptr<PlatformDevice>(std::shared_ptr<PlatformDevice>)>;

  explicit RewritingRun(const support::VolumeDescription& description);
  explicit RewritingRun(support::BuiltVolume built);

  /// Opens the volume again, through a device of the test's choice.
  void openThrough(const Wrap& wrap);

  /// The task of a DEFRAG or COMPACT line on any volume.
  static std::shared_ptr<HFSPlusDefragTask> taskOf(HFSPlusVolume& volume, std::string_view line);
  /// Runs a task to its end; the report lines without their newlines.
  static std::vector<std::string> linesOf(HFSPlusDefragTask& task);

  /// Opens the volume in an image, as a new start of the program would; what is on the device then.
  /// `changes` receives what opening wrote.
  static Result<std::vector<std::byte>> reopened(
      const std::vector<std::byte>& image,
      std::vector<doubles::RecordingDevice::Record>* changes = nullptr);
  /// The bytes that the format reserves, in which a run leaves nothing.
  static std::vector<std::byte> reservedBytes(const std::vector<std::byte>& image);

  /// Runs a DEFRAG or COMPACT line to its end.
  std::vector<std::string> run(std::string_view line);
  std::vector<std::string> run(std::string_view line, const Limits& limits);

  HFSPlusVolume& volume() { return *_volume; }
  doubles::MemoryDevice& device() { return *_device; }
  const support::BuiltVolume& built() const { return _built; }

  /// The moves that the lines tell of.
  static std::vector<Move> movesIn(const std::vector<std::string>& lines);
  /// The message of the ERROR line; empty without one.
  static std::string errorIn(const std::vector<std::string>& lines);
  static uint64_t blocksMovedIn(const std::vector<std::string>& lines);

  /// What is wrong with the volume on the device: findings that it did not have when it was built,
  /// forks whose bytes differ, records that changed otherwise than by extents. Empty if nothing is.
  std::string faults();
  /// The same for the bytes of a device.
  std::string faultsIn(const std::vector<std::byte>& image) const;
  /// The volume on the device as the checker reads it.
  volumecheck::VolumeTruth truth();
  const volumecheck::VolumeTruth& truthBefore() const { return _before.truth; }

  /// Whether the extents file counts as movable. It cannot always be moved on a volume that is
  /// nearly full: it must never be in more than eight pieces.
  enum class ExtentsFile { Moves, MayStay };
  /// What to expect of a run with these limits on the volume as it was built.
  ExtentsFile extentsFileRule(uint32_t fillPercent, const Limits& limits) const;

  /// Forks in more than one piece although nothing immovable separates the pieces; the special
  /// files included. One line each.
  std::string scatteredForks(ExtentsFile extentsFile = ExtentsFile::Moves);
  /// The first of the forks that does not follow right on the one before it, in the order given and
  /// from the data area's first block on; only immovable blocks may come between. Empty if all do.
  std::string firstForkOutOfOrder(const std::vector<HFSPlusFileFork>& order,
                                  ExtentsFile extentsFile = ExtentsFile::Moves);
  /// The order in which the profiles of the volume on the device, which no run has changed yet,
  /// want its forks: those of the boot playlist, then the applications'.
  std::vector<HFSPlusFileFork> placementOrder();
  /// faults() beyond the boot playlist's having been emptied, which a run with that profile does.
  std::string faultsBesidesEmptiedPlaylist();
  std::string faultsBesidesEmptiedPlaylistIn(const std::vector<std::byte>& image) const;
  /// Forks with movable extents above the first free block of the data area. One line each.
  std::string dataAboveFreeSpace(ExtentsFile extentsFile = ExtentsFile::Moves);

 private:
  support::BuiltVolume _built;
  std::shared_ptr<doubles::MemoryDevice> _device;
  std::unique_ptr<HFSPlusVolume> _volume;
  volumecheck::CheckResult _before;
};
