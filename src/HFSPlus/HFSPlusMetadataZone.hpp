#pragma once

#include <cstdint>

#include "HFSPlus/HFSPlusFormat.hpp"

/// The allocation blocks at a volume's start that its native system keeps for metadata and for hot
/// files. A start of 0 means that the volume has no such zone.
struct HFSPlusMetadataZone {
  uint32_t startBlock = 0;
  uint32_t endBlock = 0;  // the zone's last block
};

/// Size of the metadata zone, in allocation blocks, that the native system sets up on a volume with
/// this header (host order, with a block size other than 0); 0 when it sets up none. May exceed the
/// volume's size where large blocks meet a small volume.
[[nodiscard]] uint32_t HFSPlusMetadataBlockCount(const HFSPlusVolumeHeader& header);

/// The zone that goes with the count.
[[nodiscard]] HFSPlusMetadataZone HFSPlusMetadataZoneOf(const HFSPlusVolumeHeader& header);
