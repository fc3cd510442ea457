#include "unit/Tasks/RewritingRun.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <set>
#include <sstream>

#include "LWKit/LWStringUtilities.hpp"
#include "support/PlacementOrder.hpp"

namespace {

using volumecheck::Extent;
using volumecheck::Finding;
using volumecheck::Fork;
using volumecheck::ForkType;
using volumecheck::VolumeTruth;

const std::string kPlaylistPath = "/private/var/db/BootCache.playlist";

volumecheck::CheckResult check(const std::vector<std::byte>& image) {
  volumecheck::CheckOptions options;
  options.alternate = volumecheck::AlternateRule::MayLag;
  return volumecheck::checkVolumeBytes(
      {reinterpret_cast<const uint8_t*>(image.data()), image.size()}, options);
}

std::vector<std::string> splitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

bool moves(RewritingRun::ExtentsFile extentsFile) {
  return extentsFile == RewritingRun::ExtentsFile::Moves;
}

std::string describe(const Fork& fork) {
  std::ostringstream text;
  text << fork.path << (fork.type == ForkType::Resource ? " (resource fork)" : "") << ":";
  for (const Extent& extent : fork.extents) {
    text << " " << extent.startBlock << "+" << extent.blockCount;
  }
  return text.str();
}

}  // namespace

RewritingRun::RewritingRun(const support::VolumeDescription& description)
    : RewritingRun(support::buildVolume(description)) {}

RewritingRun::RewritingRun(support::BuiltVolume built)
    : _built(std::move(built)), _before(check(_built.image)) {
  _device = std::make_shared<doubles::MemoryDevice>(_built.image);
  _built.image = {};
  openThrough([](std::shared_ptr<PlatformDevice> device) { return device; });
}

void RewritingRun::openThrough(const Wrap& wrap) {
  const XRDefragVolume device("/nowhere/volume", wrap(_device), false, true);
  auto opened = HFSPlusVolume::open(device, HFSXVolumes::Accepted);
  ASSERT_TRUE(opened) << opened.error().description();
  _volume = std::move(*opened);
}

Result<std::vector<std::byte>> RewritingRun::reopened(
    const std::vector<std::byte>& image, std::vector<doubles::RecordingDevice::Record>* changes) {
  const auto memory = std::make_shared<doubles::MemoryDevice>(image);
  const auto recording = std::make_shared<doubles::RecordingDevice>(memory);
  const XRDefragVolume device("/nowhere/volume", recording, false, true);
  const auto volume = HFSPlusVolume::open(device, HFSXVolumes::Accepted);
  if (changes) {
    *changes = recording->changes();
  }
  if (!volume) {
    return std::unexpected(volume.error());
  }
  return memory->image();
}

std::vector<std::byte> RewritingRun::reservedBytes(const std::vector<std::byte>& image) {
  std::vector<std::byte> sectors(image.begin(), image.begin() + 1024);
  sectors.insert(sectors.end(), image.end() - 512, image.end());
  return sectors;
}

std::shared_ptr<HFSPlusDefragTask> RewritingRun::taskOf(HFSPlusVolume& volume,
                                                        std::string_view line) {
  const std::vector<std::string> words = LWTrimmedComponents(line);
  auto task = std::make_shared<HFSPlusDefragTask>(volume, words.front() == "COMPACT");
  task->setArguments(words);
  return task;
}

std::vector<std::string> RewritingRun::linesOf(HFSPlusDefragTask& task) {
  testing::internal::CaptureStdout();
  const auto started = task.start();
  if (started) {
    task.join();
  }
  const std::string output = testing::internal::GetCapturedStdout();
  EXPECT_TRUE(started);
  return splitLines(output);
}

std::vector<std::string> RewritingRun::run(std::string_view line) {
  return run(line, Limits());
}

std::vector<std::string> RewritingRun::run(std::string_view line, const Limits& limits) {
  const auto task = taskOf(*_volume, line);
  if (limits.copyBufferBlocks != 0) {
    task->limitResources(limits.copyBufferBlocks * _volume->hostVolumeHeader().blockSize,
                         limits.mapCapacity);
  }
  return linesOf(*task);
}

auto RewritingRun::movesIn(const std::vector<std::string>& lines) -> std::vector<Move> {
  std::vector<Move> moves;
  for (const std::string& line : lines) {
    unsigned from = 0;
    unsigned to = 0;
    unsigned count = 0;
    unsigned allocated = 0;
    int percent = 0;
    if (std::sscanf(line.c_str(), "%*[^,],PROGRESS,%d,%u,%u,%u,%u", &percent, &from, &to, &count,
                    &allocated) == 5) {
      moves.push_back({percent, from, to, count, allocated});
    }
  }
  return moves;
}

uint64_t RewritingRun::blocksMovedIn(const std::vector<std::string>& lines) {
  uint64_t blocks = 0;
  for (const Move& move : movesIn(lines)) {
    blocks += move.count;
  }
  return blocks;
}

std::string RewritingRun::errorIn(const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    const size_t field = line.find(",ERROR,");
    if (field != std::string::npos) {
      return line.substr(field + 7);
    }
  }
  return {};
}

VolumeTruth RewritingRun::truth() {
  return check(_device->image()).truth;
}

std::string RewritingRun::faults() {
  return faultsIn(_device->image());
}

std::string RewritingRun::faultsIn(const std::vector<std::byte>& image) const {
  const volumecheck::CheckResult after = check(image);
  if (!after.readable) {
    return "The volume cannot be read any more.\n" + after.report();
  }
  std::multiset<std::string> known;
  for (const Finding& finding : _before.findings) {
    known.insert(finding.sentence);
  }
  std::string faults;
  for (const Finding& finding : after.findings) {
    const auto old = known.find(finding.sentence);
    if (old == known.end()) {
      faults += std::string(volumecheck::nameOf(finding.kind)) + ": " + finding.sentence + "\n";
    } else {
      known.erase(old);
    }
  }
  for (const std::string& difference : compareVolumes(_before.truth, after.truth)) {
    faults += difference + "\n";
  }
  return faults;
}

// A zone that holds the file only in part may leave it in too many pieces to be moved.
auto RewritingRun::extentsFileRule(uint32_t fillPercent, const Limits& limits) const
    -> ExtentsFile {
  const Fork& fork = *truthBefore().findFork(volumecheck::kExtentsFileID, ForkType::Data);
  const bool mayStay = fillPercent > 50 || fork.extents.size() > 4 ||
                       (limits.copyBufferBlocks != 0 && limits.copyBufferBlocks < fork.totalBlocks);
  return mayStay ? ExtentsFile::MayStay : ExtentsFile::Moves;
}

std::string RewritingRun::scatteredForks(ExtentsFile extentsFile) {
  const VolumeTruth after = truth();
  const std::vector<bool> immovable = immovableBlocks(after, moves(extentsFile));
  const uint32_t firstDataBlock = _volume->firstDataBlock();
  std::string lines;
  for (const Fork& fork : after.forks) {
    if (!isMovable(fork, moves(extentsFile))) {
      continue;
    }
    uint32_t end = 0;  // of the extent before
    for (const Extent& extent : fork.extents) {
      if (extent.startBlock < firstDataBlock) {
        continue;
      }
      const bool followsOn =
          end == 0 || (end <= extent.startBlock &&
                       std::all_of(immovable.begin() + end, immovable.begin() + extent.startBlock,
                                   [](bool isImmovable) { return isImmovable; }));
      if (!followsOn) {
        lines += describe(fork) + "\n";
        break;
      }
      end = extent.startBlock + extent.blockCount;
    }
  }
  return lines;
}

auto RewritingRun::placementOrder() -> std::vector<HFSPlusFileFork> {
  const auto& image = _device->image();
  volumecheck::VolumeCheckerSource source(
      {reinterpret_cast<const uint8_t*>(image.data()), image.size()});
  std::vector<HFSPlusFileFork> order;
  for (const auto& fork :
       bootAndApplicationOrder(source, truthBefore(), _volume->firstDataBlock())) {
    order.push_back({fork.cnid, static_cast<uint8_t>(fork.type)});
  }
  return order;
}

std::string RewritingRun::firstForkOutOfOrder(const std::vector<HFSPlusFileFork>& order,
                                              ExtentsFile extentsFile) {
  const VolumeTruth after = truth();
  const std::vector<bool> immovable = immovableBlocks(after, moves(extentsFile));
  uint32_t next = _volume->firstDataBlock();
  for (const HFSPlusFileFork& member : order) {
    const Fork* fork = after.findFork(member.fileID, static_cast<ForkType>(member.forkType));
    if (!fork) {
      return "There is no such fork of file " + std::to_string(member.fileID) + ".";
    }
    for (const Extent& extent : fork->extents) {
      while (next < immovable.size() && immovable[next]) {
        ++next;
      }
      if (extent.startBlock != next) {
        return describe(*fork) + " instead of " + std::to_string(next);
      }
      next += extent.blockCount;
    }
  }
  return {};
}

std::string RewritingRun::faultsBesidesEmptiedPlaylist() {
  return faultsBesidesEmptiedPlaylistIn(_device->image());
}

std::string RewritingRun::faultsBesidesEmptiedPlaylistIn(
    const std::vector<std::byte>& image) const {
  const volumecheck::CatalogItem* item = truthBefore().findItem(kPlaylistPath);
  if (!item) {
    return faultsIn(image);
  }
  const VolumeTruth after = check(image).truth;
  const Fork* before = truthBefore().findFork(item->cnid, ForkType::Data);
  const Fork* now = after.findFork(item->cnid, ForkType::Data);
  if (!now || now->logicalSize != 0 || now->totalBlocks != 0 || !now->extents.empty() ||
      after.header.freeBlocks != after.clearBits) {
    return faultsIn(image);
  }
  const std::string fork =
      "The data fork of file " + std::to_string(item->cnid) + " " + kPlaylistPath + "'s ";
  const std::vector<std::string> expected = {
      fork + "size changed from " + std::to_string(before->logicalSize) + " to 0.",
      fork + "block count changed from " + std::to_string(before->totalBlocks) + " to 0.",
      fork + "bytes changed from " + before->hash.hex() + " to " + now->hash.hex() + ".",
      "The catalog record \"BootCache.playlist\" of folder " + std::to_string(item->parentID) +
          " changed beyond its extents."};
  std::string others;
  for (const std::string& line : splitLines(faultsIn(image))) {
    others += std::ranges::find(expected, line) != expected.end() ? "" : line + "\n";
  }
  return others;
}

std::string RewritingRun::dataAboveFreeSpace(ExtentsFile extentsFile) {
  const VolumeTruth after = truth();
  const uint32_t firstDataBlock = _volume->firstDataBlock();
  const auto firstFree = std::ranges::find_if(
      after.freeRuns, [&](const Extent& run) { return run.startBlock >= firstDataBlock; });
  std::string lines;
  for (const Fork& fork : after.forks) {
    const auto above = [&](const Extent& extent) {
      return firstFree != after.freeRuns.end() && extent.startBlock > firstFree->startBlock;
    };
    if (isMovable(fork, moves(extentsFile)) && std::ranges::any_of(fork.extents, above)) {
      lines += describe(fork) + "\n";
    }
  }
  return lines;
}
