#include "unit/support/BuiltVolumeChecks.hpp"

#include <algorithm>

#include "support/VolumeChecker.hpp"

namespace support {

namespace {

volumecheck::CheckResult check(const BuiltVolume& volume) {
  return volumecheck::checkVolumeBytes(
      {reinterpret_cast<const uint8_t*>(volume.image.data()), volume.image.size()});
}

bool isTreeOrBitmap(const BuiltFork& fork) {
  return fork.fileID == kExtentsFileID || fork.fileID == kCatalogFileID ||
         fork.fileID == kAllocationFileID || fork.fileID == kAttributesFileID;
}

std::string described(const BuiltFork& fork) {
  return "fork " + std::to_string(fork.forkType) + " of file " + std::to_string(fork.fileID);
}

// Whether the checker found the same places for the fork. Attribute forks have no number of their
// own there; they are told apart by their first block.
bool sameExtents(const BuiltFork& fork, const std::vector<volumecheck::Fork>& found) {
  return std::ranges::any_of(found, [&](const volumecheck::Fork& other) {
    const bool attribute = other.type == volumecheck::ForkType::Attribute;
    return other.cnid == fork.fileID && attribute == fork.isAttribute &&
           (attribute || static_cast<uint8_t>(other.type) == fork.forkType) &&
           other.logicalSize == fork.logicalSize &&
           std::ranges::equal(other.extents, fork.extents, [](const auto& a, const auto& b) {
             return a.startBlock == b.start && a.blockCount == b.count;
           });
  });
}

}  // namespace

std::string findingsIn(const BuiltVolume& volume) {
  return check(volume).report();
}

Bytes bytesInImage(const BuiltVolume& volume, const BuiltFork& fork) {
  Bytes bytes;
  for (const BlockExtent& extent : fork.extents) {
    const auto* start =
        volume.image.data() + volume.volumeStart + uint64_t{extent.start} * volume.blockSize;
    bytes.insert(bytes.end(), start, start + uint64_t{extent.count} * volume.blockSize);
  }
  bytes.resize(fork.logicalSize);
  return bytes;
}

Bytes bytesMeant(const BuiltVolume& volume, const BuiltFork& fork) {
  Bytes bytes(fork.logicalSize);
  volume.readFork(fork, 0, bytes);
  return bytes;
}

std::string disagreements(const BuiltVolume& volume) {
  const volumecheck::CheckResult result = check(volume);
  std::string lines;
  for (const BuiltFork& fork : volume.forks) {
    if (fork.fileID != kBadBlocksFileID && !isTreeOrBitmap(fork) &&
        bytesInImage(volume, fork) != bytesMeant(volume, fork))
      lines += described(fork) + " holds other bytes\n";
    if (!sameExtents(fork, result.truth.forks))
      lines += described(fork) + " lies elsewhere\n";
  }
  return lines;
}

}  // namespace support
