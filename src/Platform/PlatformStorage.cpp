#include "Platform/PlatformStorage.hpp"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <set>

namespace {

namespace fs = std::filesystem;

std::string firstLineOf(const fs::path& file) {
  std::ifstream stream(file);
  std::string line;
  std::getline(stream, line);
  return line;
}

std::optional<PlatformDeviceNumber> parseNumber(const std::string& text) {
  PlatformDeviceNumber number;
  const char* end = text.data() + text.size();
  const auto [colon, majorError] = std::from_chars(text.data(), end, number.major);
  if (majorError != std::errc() || colon == end || *colon != ':') {
    return std::nullopt;
  }
  if (std::from_chars(colon + 1, end, number.minor).ec != std::errc()) {
    return std::nullopt;
  }
  return number;
}

fs::path directoryOf(PlatformDeviceNumber device) {
  std::error_code error;
  return fs::canonical(
      "/sys/dev/block/" + std::to_string(device.major) + ":" + std::to_string(device.minor), error);
}

std::vector<fs::path> entriesOf(const fs::path& directory) {
  std::vector<fs::path> entries;
  std::error_code error;
  for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    entries.push_back(entry->path());
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

bool isThere(const fs::path& path) {
  std::error_code error;
  return fs::exists(path, error);
}

/// The devices whose directories in the device tree are given.
void appendDevices(const std::vector<fs::path>& directories,
                   std::vector<PlatformDeviceNumber>& devices) {
  for (const fs::path& directory : directories) {
    if (const auto number = parseNumber(firstLineOf(directory / "dev"))) {
      devices.push_back(*number);
    }
  }
}

/// A device's partitions and what is stacked on it.
std::vector<PlatformDeviceNumber> devicesDirectlyAbove(PlatformDeviceNumber device) {
  std::vector<PlatformDeviceNumber> above;
  const fs::path directory = directoryOf(device);
  if (directory.empty()) {
    return above;
  }
  std::vector<fs::path> partitions = entriesOf(directory);
  std::erase_if(partitions, [](const fs::path& entry) { return !isThere(entry / "partition"); });
  appendDevices(partitions, above);
  appendDevices(entriesOf(directory / "holders"), above);
  return above;
}

/// A partition's disk, and the parts of a stacked device.
std::vector<PlatformDeviceNumber> devicesDirectlyBelow(PlatformDeviceNumber device) {
  std::vector<PlatformDeviceNumber> below;
  const fs::path directory = directoryOf(device);
  if (directory.empty()) {
    return below;
  }
  if (isThere(directory / "partition")) {
    appendDevices({directory.parent_path()}, below);
  }
  appendDevices(entriesOf(directory / "slaves"), below);
  return below;
}

std::string nodeOf(PlatformDeviceNumber device) {
  const fs::path directory = directoryOf(device);
  return directory.empty() ? std::string() : "/dev/" + directory.filename().string();
}

/// The path of a loop device's backing file; empty for any other device.
std::string backingFileOf(PlatformDeviceNumber device) {
  const fs::path directory = directoryOf(device);
  return directory.empty() ? std::string() : firstLineOf(directory / "loop" / "backing_file");
}

bool isSameFile(const std::string& path, const struct stat& other) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0 || (status.st_mode & S_IFMT) != (other.st_mode & S_IFMT)) {
    return false;
  }
  return S_ISBLK(other.st_mode) ? status.st_rdev == other.st_rdev
                                : status.st_dev == other.st_dev && status.st_ino == other.st_ino;
}

/// The loop devices whose backing file is the file, or the block device, at a path.
std::vector<PlatformDeviceNumber> loopDevicesOver(const std::string& path) {
  std::vector<PlatformDeviceNumber> devices;
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0) {
    return devices;
  }
  for (const fs::path& directory : entriesOf("/sys/block")) {
    const std::string backingFile = firstLineOf(directory / "loop" / "backing_file");
    if (!backingFile.empty() && isSameFile(backingFile, status)) {
      appendDevices({directory}, devices);
    }
  }
  return devices;
}

/// Walks from some devices to all that `next` leads to, those included.
template <typename Next>
std::set<PlatformDeviceNumber> reach(std::vector<PlatformDeviceNumber> pending, Next next) {
  std::set<PlatformDeviceNumber> reached;
  while (!pending.empty()) {
    const PlatformDeviceNumber device = pending.back();
    pending.pop_back();
    if (reached.insert(device).second) {
      const std::vector<PlatformDeviceNumber> more = next(device);
      pending.insert(pending.end(), more.begin(), more.end());
    }
  }
  return reached;
}

}  // namespace

std::optional<PlatformDeviceNumber> PlatformStorage::deviceNumberOf(const std::string& path) {
  struct stat status = {};
  if (::stat(path.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) {
    return std::nullopt;
  }
  return PlatformDeviceNumber{.major = gnu_dev_major(status.st_rdev),
                              .minor = gnu_dev_minor(status.st_rdev)};
}

std::vector<PlatformStorage::Place> PlatformStorage::placesOfSameBytes(const std::string& path) {
  std::vector<Place> places;
  const std::optional<PlatformDeviceNumber> device = deviceNumberOf(path);
  const std::string backingFile = device ? backingFileOf(*device) : std::string();
  if (!backingFile.empty()) {
    places.push_back(
        {.path = backingFile, .isBlockDevice = deviceNumberOf(backingFile).has_value()});
  }
  for (const PlatformDeviceNumber loop :
       loopDevicesOver(backingFile.empty() ? path : backingFile)) {
    if (loop != device) {
      places.push_back({.path = nodeOf(loop), .isBlockDevice = true});
    }
  }
  return places;
}

std::vector<PlatformDeviceNumber> PlatformStorage::devicesSharingBytes(const std::string& path) {
  std::vector<PlatformDeviceNumber> same;
  if (const auto device = deviceNumberOf(path)) {
    same.push_back(*device);
  }
  const std::set<PlatformDeviceNumber> below = reach(same, devicesDirectlyBelow);
  for (const Place& place : placesOfSameBytes(path)) {
    if (const auto device = deviceNumberOf(place.path)) {
      same.push_back(*device);
    }
  }
  std::set<PlatformDeviceNumber> all = reach(same, [](PlatformDeviceNumber device) {
    std::vector<PlatformDeviceNumber> above = devicesDirectlyAbove(device);
    const std::vector<PlatformDeviceNumber> loops = loopDevicesOver(nodeOf(device));
    above.insert(above.end(), loops.begin(), loops.end());
    return above;
  });
  all.insert(below.begin(), below.end());
  return {all.begin(), all.end()};
}
