#pragma once

#include <cstdint>

#include "support/VolumeFormat.hpp"

namespace support {

/// A fork that the hot files tree names, with its heat.
struct HotFile {
  uint32_t fileID = 0;
  uint8_t forkType = kDataFork;
  uint32_t temperature = 1;
};

/// One entry of the boot playlist: a run of bytes of the volume, or the place of one of a fork's
/// extents when `fileID` is not 0.
struct PlaylistEntry {
  uint32_t fileID = 0;
  uint8_t forkType = kDataFork;
  uint32_t extentIndex = 0;
  uint64_t offset = 0;
  uint64_t length = 0;
  uint32_t batch = 0;
};

}  // namespace support
