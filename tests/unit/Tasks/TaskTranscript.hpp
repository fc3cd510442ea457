#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusVolume.hpp"
#include "XRDefragTask.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "support/doubles/MemoryDevice.hpp"

using Transcript = std::vector<std::string>;

/// A volume in memory, opened by the program; stops the test program when that fails.
class OpenedVolume {
 public:
  explicit OpenedVolume(const support::VolumeDescription& description);
  explicit OpenedVolume(std::vector<std::byte> image);

  HFSPlusVolume& operator*() { return *_volume; }
  const support::BuiltVolume& built() const { return _built; }
  /// What the checker reads from the bytes as they were before they were opened.
  const volumecheck::VolumeTruth& truth() const { return _truth; }

 private:
  void _open(std::vector<std::byte> image);

  support::BuiltVolume _built;
  volumecheck::VolumeTruth _truth;
  std::unique_ptr<HFSPlusVolume> _volume;
};

/// The lines that a task reports to standard output when it runs to its end.
Transcript transcriptOf(const std::shared_ptr<XRDefragTask>& task);

/// The same for the task of a command line.
template <typename Task>
Transcript transcriptOf(HFSPlusVolume& volume, const std::string& line) {
  auto event = std::make_shared<LWToolEvent>(LWToolEvent::Type::String, line,
                                             [](const std::shared_ptr<LWToolEvent>&) {});
  return transcriptOf(std::make_shared<Task>(volume, std::move(event)));
}

/// ",start,count" for every extent of an item's data and then resource fork.
std::string extentsOf(const volumecheck::VolumeTruth& truth, uint32_t cnid);

/// A field as report lines want it.
std::string escaped(const std::string& text);

/// The item's path as this program prints it: "" for the root folder.
std::string printedPath(const volumecheck::CatalogItem& item);

/// The lines without those of START and DONE.
Transcript dataLines(const Transcript& transcript);

/// Replaces the three dates of every FILE line by the letter D.
Transcript withoutDates(Transcript lines);

/// Makes the overflow record of a file's data fork that begins at a fork block belong to a file
/// that does not exist. The image's bytes must not hold its key twice.
void loseOverflowRecord(std::vector<std::byte>& image, uint32_t fileID, uint32_t startBlock);

/// The volumes that the environment variable XRDEFRAG_REAL_VOLUMES names the folder of.
std::vector<std::string> realVolumes();
std::vector<std::byte> bytesOfFile(const std::string& path);
