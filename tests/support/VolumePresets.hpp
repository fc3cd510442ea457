#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "support/VolumeDescription.hpp"

namespace support {

/// What a plain volume of many like files is made from.
struct PlainVolume {
  uint64_t seed = 1;
  uint32_t blockSize = 4096;
  /// Bytes; 0 for as many as `fillPercent` asks.
  uint64_t size = 0;
  uint32_t fillPercent = 50;
  uint32_t files = 200;
  /// The most pieces a fork comes in.
  uint32_t fragments = 6;
  /// Average bytes of a data fork; 0 for what fills `size`, or 64 KiB.
  uint64_t fileSize = 0;
  /// Leaves what the forks hold unwritten.
  bool unwritten = false;
};
VolumeDescription plainVolume(const PlainVolume& options);

/// A volume of about 64 MiB to show: a few hundred files in folders, most of them in pieces, with
/// resource forks, some forks with overflow records and free space all over.
VolumeDescription demoVolume(uint64_t seed);

/// A million files in a thousand folders, contents unwritten.
VolumeDescription millionVolume(uint64_t seed);

/// More than 300,000 runs of blocks in few forks.
VolumeDescription manyRunsVolume(uint64_t seed);

/// A sparse, journaled volume with a metadata zone: special files, journal and hot files in it,
/// some hundred fragmented files behind it.
VolumeDescription zonedVolume(uint64_t seed, uint64_t size);

/// All names that readers may stumble over, in nested folders; links of all kinds.
VolumeDescription namesVolume(uint64_t seed);

/// Every special file in pieces, the catalog and the attributes file in more than eight.
VolumeDescription piecesVolume(uint64_t seed);

/// A volume that a word on a command line stands for.
struct VolumePreset {
  std::string_view name;
  std::string_view summary;
  VolumeDescription (*make)(uint64_t seed);
};
std::span<const VolumePreset> volumePresets();

}  // namespace support
