#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusVolume.hpp"

namespace fuzz {

/// What a volume holds as the program itself reads it, wherever it lies.
struct VolumeContents {
  /// Checksums of what can be read in full, by owner: the data and resource forks of every file
  /// record, and the extents of every attribute record. An owner of two contents, or one
  /// that cannot be read, has none.
  std::map<std::string, uint64_t> checksums;
  /// Checksums of the blocks that are marked as used and belong to nobody who is listed.
  std::map<uint32_t, uint64_t> ownerless;
};

/// Reads everything; the volume's reserved areas and what cannot be read are left out.
VolumeContents contentsOf(HFSPlusVolume& volume);

/// What was there before and is not, or not any more the same; empty if nothing. Things that one
/// run may change on purpose are named by `excepted`.
std::string lostContents(const VolumeContents& before, const VolumeContents& after,
                         const std::string& excepted);

/// The owner's name of a file's data fork in VolumeContents::checksums.
std::string ownerOfDataFork(uint32_t fileID);

}  // namespace fuzz
