#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <vector>

#include "support/VolumeCheckerSource.hpp"
#include "support/VolumeCheckerTruth.hpp"

// In which order a run with placement profiles has to lay down forks, found out from the volume as
// it was before, in the simplest way there is. Shares nothing with the program it judges.
namespace volumecheck {

struct PlacedFork {
  std::uint32_t cnid = 0;
  ForkType type = ForkType::Data;
  auto operator<=>(const PlacedFork&) const = default;
};

// The forks of a reading by file and type, for readings of very many. The reading must outlive it.
class ForkIndex {
 public:
  explicit ForkIndex(const VolumeTruth& truth);
  // None when there is no such fork.
  const Fork* find(std::uint32_t cnid, ForkType type) const;

 private:
  std::map<PlacedFork, const Fork*> _forks;
};

// The forks that the boot playlist names, by batch and then by place; none when there is no
// playlist or when it is malformed. `source` is the file or buffer that the truth was read from.
std::vector<PlacedFork> bootOrder(VolumeCheckerSource& source, const VolumeTruth& truth,
                                  std::uint32_t firstDataBlock);

// The forks of everything under "/Applications": a folder's files before its sub-folders, and these
// one after the other.
std::vector<PlacedFork> applicationOrder(const VolumeTruth& truth);

// Both, each fork at its first place, without those that never move.
std::vector<PlacedFork> bootAndApplicationOrder(VolumeCheckerSource& source,
                                                const VolumeTruth& truth,
                                                std::uint32_t firstDataBlock);

// Block by block, whether a run must leave it where it is: it is neither free nor owned by a fork
// that can be moved. The extents file may be made to stay, where it cannot be moved.
std::vector<bool> immovableBlocks(const VolumeTruth& truth, bool extentsFileMoves = true);

// Whether a run may move a fork.
bool isMovable(const Fork& fork, bool extentsFileMoves = true);

}  // namespace volumecheck
