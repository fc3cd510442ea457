#include "support/VolumeGeometry.hpp"

#include <algorithm>
#include <bit>

namespace support {

namespace {

constexpr uint64_t kKiB = 1024;
constexpr uint64_t kMiB = 1024 * kKiB;
constexpr uint64_t kGiB = 1024 * kMiB;
constexpr uint64_t kSectorSize = 512;

// The wrapper's own bitmap begins at this sector, and some blocks before the embedded volume are
// what a real wrapper keeps its trees and its note in.
constexpr uint64_t kWrapperBitmapSector = 3;
constexpr uint16_t kWrapperStart = 5;
constexpr uint64_t kWrapperMostBlocks = 65000;

uint64_t roundedUp(uint64_t amount, uint64_t unit) {
  return dividedUp(amount, unit) * unit;
}

uint64_t treeAllowance(uint64_t wanted, uint64_t least, uint64_t most) {
  return std::bit_ceil(std::clamp(wanted, least, most)) * 64 + 64;
}

}  // namespace

VolumeGeometry VolumeGeometry::of(const VolumeDescription& description, uint64_t volumeSize) {
  VolumeGeometry geometry;
  geometry.blockSize = description.blockSize;
  geometry.volumeSize = volumeSize;
  geometry.imageSize = volumeSize;
  if (description.wrapper) {
    const uint64_t unit = wrapperUnit(description.blockSize, volumeSize);
    geometry.volumeSize = volumeSize / unit * unit;
    geometry.wrapperBlockSize = static_cast<uint32_t>(unit);
    geometry.wrapperStart = kWrapperStart;
    geometry.wrapperCount = static_cast<uint16_t>(volumeSize / unit);
    const uint64_t blocks = uint64_t{geometry.wrapperStart} + geometry.wrapperCount;
    const uint64_t bitmapSectors = dividedUp(blocks, kSectorSize * 8);
    geometry.wrapperFirstSector = static_cast<uint16_t>(kWrapperBitmapSector + bitmapSectors);
    geometry.volumeStart = geometry.wrapperFirstSector * kSectorSize + geometry.wrapperStart * unit;
    geometry.imageSize = geometry.volumeStart + geometry.volumeSize + 2 * kSectorSize;
  }
  geometry.totalBlocks = static_cast<uint32_t>(geometry.volumeSize / geometry.blockSize);
  return geometry;
}

uint64_t VolumeGeometry::wrapperUnit(uint32_t blockSize, uint64_t volumeSize) {
  uint64_t unit = blockSize;
  while (volumeSize / unit > kWrapperMostBlocks)
    unit *= 2;
  return unit;
}

uint32_t VolumeGeometry::frontBlocks() const {
  return static_cast<uint32_t>(dividedUp(kReservedFrontBytes, blockSize));
}

uint32_t VolumeGeometry::backBlocks() const {
  return static_cast<uint32_t>(dividedUp(kReservedBackBytes, blockSize));
}

uint64_t VolumeGeometry::bitmapSize() const {
  return roundedUp(dividedUp(totalBlocks, 8), blockSize);
}

uint32_t VolumeGeometry::metadataZoneBlocks() const {
  const uint64_t bytes = uint64_t{blockSize} * totalBlocks;
  if (bytes < 10 * kGiB)
    return 0;
  const uint64_t hundreds = bytes / (4 * kGiB) / 25 + 1;
  uint64_t zone = roundedUp(totalBlocks / 8, blockSize);
  zone += std::min(bytes / kKiB * 10, kGiB);
  zone += std::clamp(bytes / kKiB * 5, 10 * kMiB, 512 * kMiB);
  zone += std::min(hundreds * 4 * kMiB, 128 * kMiB);
  zone += std::min(hundreds * 8 * kMiB, 512 * kMiB);
  zone += treeAllowance(bytes / kGiB * 256, 2048, 2097152);
  zone += treeAllowance(bytes / kGiB * 32, 2048, 262144);
  zone = roundedUp(zone, uint64_t{8} * blockSize * blockSize);
  return static_cast<uint32_t>(dividedUp(zone, blockSize));
}

}  // namespace support
