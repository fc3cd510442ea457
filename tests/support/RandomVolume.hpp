#pragma once

#include <optional>

#include "support/SeededRandom.hpp"
#include "support/VolumeDescription.hpp"

namespace support {

/// What a random volume may be. Everything left open is drawn.
struct RandomVolumeOptions {
  /// About the largest size of the volume.
  uint64_t mostBytes = 24 << 20;
  uint32_t mostFiles = 300;
  std::optional<uint32_t> blockSize;
  std::optional<uint32_t> fillPercent;
  std::optional<bool> journaled;
  std::optional<bool> wrapper;
  /// An HFSX volume, whose names fold or, as often, do not (not every program takes one).
  bool hfsx = false;
  /// Now and then blocks beyond a fork's last byte, which the format allows and some readers
  /// refuse.
  bool spareBlocks = false;
  /// Now and then overflow records beyond a fork's end, which real volumes hold.
  bool strayRecords = false;
  /// Also what a checker complains of: blocks set in the bitmap without an owner, blocks owned but
  /// clear in it, a bad-blocks file with a catalog record.
  bool anomalies = false;
  /// Always a boot playlist, applications, hot files and attributes, some of them with forks.
  bool placementHints = false;
};

/// A volume drawn over all shapes that the builder can make; consistent unless anomalies are asked
/// for. The same seed and options give the same volume.
VolumeDescription randomVolume(uint64_t seed, const RandomVolumeOptions& options = {});

/// A name with something in it that readers may stumble over: separators, escapes, control
/// characters, composed and decomposed letters, ignored units, great length. `number` makes it
/// unique in its folder.
std::u16string randomName(SeededRandom& random, uint32_t number);

}  // namespace support
