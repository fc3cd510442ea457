#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/FreeSpace.hpp"
#include "support/SeededRandom.hpp"
#include "support/VolumeDescription.hpp"

namespace support {

/// Where a fork belongs.
enum class ForkPlace : uint8_t { front, data };

/// A fork on its way to its blocks.
struct PlannedFork {
  uint32_t fileID = 0;
  uint8_t forkType = kDataFork;
  ForkPlace place = ForkPlace::data;
  uint32_t blocks = 0;
  uint32_t fragments = 1;
  /// Pieces are multiples of this many blocks (the last one may end with the fork).
  uint32_t unit = 1;
  /// No piece may be split further: at most `fragments` extents, or the volume cannot be built.
  bool strict = false;
  std::vector<BlockExtent> extents;  ///< given, or the result
};

/// Finds a place for every fork of a volume: first the given places, then the forks at the front,
/// then all others in the data area.
class ForkLayout {
 public:
  /// `frontLimit` is the first block that forks at the front avoid, `dataStart` the first that
  /// others may have.
  ForkLayout(FreeSpace space, LayoutDescription options, uint64_t seed, uint32_t frontLimit,
             uint32_t dataStart);

  /// Fills in the extents of all forks. Empty on success, otherwise the reason.
  [[nodiscard]] std::string place(std::vector<PlannedFork>& forks);

 private:
  struct Piece {
    size_t fork;
    uint32_t index;
    uint32_t blocks;
  };
  struct Placed {
    size_t fork;
    uint32_t index;
    BlockExtent run;
  };

  std::vector<uint32_t> cut(const PlannedFork& fork);
  [[nodiscard]] std::string placeOne(PlannedFork& fork);
  [[nodiscard]] std::string placeData(std::vector<PlannedFork>& forks);
  void collectPieces(const std::vector<PlannedFork>& forks);
  void drawGaps(uint64_t freeBlocks);
  void fillRun(BlockExtent run);
  bool chooseNext(uint32_t room, bool avoidNeighbour);
  uint64_t gapBeforeNext();
  void gather(std::vector<PlannedFork>& forks);

  FreeSpace _space;
  LayoutDescription _options;
  SeededRandom _random;
  uint32_t _frontLimit;
  uint32_t _dataStart;
  uint32_t _frontCursor = 0;

  std::vector<Piece> _pieces;
  size_t _next = 0;
  std::vector<Placed> _placed;
  uint64_t _gapBlocks = 0;    // what may still go into gaps
  uint64_t _spareBlocks = 0;  // what must not be used up before the last piece is laid
  uint64_t _gapAverage = 0;
  double _gapChance = 0;
};

}  // namespace support
