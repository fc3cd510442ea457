#pragma once

#include <cstdint>
#include <string>

#include "support/VolumeDescription.hpp"

namespace support {

/// Where a volume and its wrapper lie in the image, in bytes and blocks.
struct VolumeGeometry {
  uint32_t blockSize = 0;
  uint32_t totalBlocks = 0;
  uint64_t volumeStart = 0;
  uint64_t volumeSize = 0;
  uint64_t imageSize = 0;
  /// Only with a wrapper: its block size, its first block's sector, and which blocks are the
  /// volume.
  uint32_t wrapperBlockSize = 0;
  uint16_t wrapperFirstSector = 0;
  uint16_t wrapperStart = 0;
  uint16_t wrapperCount = 0;

  /// A volume of `volumeSize` bytes; with a wrapper it is rounded down to wrapper blocks.
  static VolumeGeometry of(const VolumeDescription& description, uint64_t volumeSize);

  /// The wrapper's block size for a volume of that size; the volume has to be a multiple of it.
  static uint64_t wrapperUnit(uint32_t blockSize, uint64_t volumeSize);

  /// Blocks that cover the boot area and the header, and those at the end that hold the alternate
  /// header; both are always marked as used.
  uint32_t frontBlocks() const;
  uint32_t backBlocks() const;

  /// Bytes of the allocation file.
  uint64_t bitmapSize() const;

  /// Blocks of the metadata zone of a journaled volume of this size, 0 when it has none.
  uint32_t metadataZoneBlocks() const;
};

}  // namespace support
