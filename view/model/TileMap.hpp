#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "protocol/ReportLine.hpp"

namespace view {

/// What blocks can be to somebody who looks at a map.
enum class BlockKind : uint8_t {
  Free,
  Contiguous,  // of a file that lies in one piece
  Fragmented,  // of a file that does not
  System,      // in use, but no file's: metadata and what cannot be moved
};
constexpr size_t kBlockKinds = 4;

/// Blocks of each kind in a stretch of the volume.
struct BlockCounts {
  uint64_t contiguous = 0;
  uint64_t fragmented = 0;
  uint64_t system = 0;
  uint64_t free = 0;

  uint64_t used() const { return contiguous + fragmented + system; }
  uint64_t total() const { return used() + free; }
  uint64_t of(BlockKind kind) const;
  /// What most blocks are, free or not; among those in use, what most of them are.
  BlockKind dominant() const;
  BlockKind dominantUsed() const;
};

/// A volume's blocks in a bounded number of tiles of equal size, each with its counts.
///
/// It is filled from the bitmap (what is in use) and the files (what of it is whose), in any order,
/// and follows a rewriting run move by move.
class TileMap {
 public:
  /// Enough tiles that every character of a large terminal has many.
  static constexpr size_t kTilesMax = size_t{1} << 18;

  TileMap() = default;
  explicit TileMap(uint64_t blockCount, size_t tilesMax = kTilesMax);

  uint64_t blockCount() const { return _blockCount; }
  uint64_t blocksPerTile() const { return _blocksPerTile; }
  size_t tileCount() const { return _tiles.size(); }

  void addUsed(BlockRun run);
  void addFile(BlockRun run, bool isFragmented);

  /// Follows a copy: the blocks leave their place and arrive as part of a contiguous file, or as
  /// what they were.
  void move(const BlockMove& move, bool becomesContiguous);

  /// The counts of the blocks in cell `index` of `cells` that divide the volume evenly.
  BlockCounts cell(size_t index, size_t cells) const;

  /// The counts of one tile.
  BlockCounts tile(size_t index) const;

  BlockCounts total() const;

  /// The same volume in no more tiles than that.
  TileMap reduced(size_t tilesMax) const;

  /// Adds blocks that are known only by number. False when the tile has no room for them.
  bool addTile(size_t index, const BlockCounts& counts);

  /// The tile that holds a block.
  size_t tileOf(uint64_t block) const { return static_cast<size_t>(block / _blocksPerTile); }

 private:
  struct Tile {
    uint32_t used = 0;
    uint32_t contiguous = 0;
    uint32_t fragmented = 0;
  };

  /// Calls back with each tile that the run touches and the number of its blocks there.
  template <typename Visit>
  void visit(BlockRun run, Visit visit);

  uint64_t blocksOfTile(size_t index) const;

  uint64_t _blockCount = 0;
  uint64_t _blocksPerTile = 1;
  std::vector<Tile> _tiles;
};

}  // namespace view
