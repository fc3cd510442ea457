#include "model/TileMap.hpp"

#include <algorithm>

namespace view {

uint64_t BlockCounts::of(BlockKind kind) const {
  switch (kind) {
    case BlockKind::Contiguous:
      return contiguous;
    case BlockKind::Fragmented:
      return fragmented;
    case BlockKind::System:
      return system;
    case BlockKind::Free:
      break;
  }
  return free;
}

BlockKind BlockCounts::dominantUsed() const {
  if (fragmented >= contiguous && fragmented >= system) {
    return BlockKind::Fragmented;
  }
  return contiguous >= system ? BlockKind::Contiguous : BlockKind::System;
}

BlockKind BlockCounts::dominant() const {
  return used() == 0 || used() < free ? BlockKind::Free : dominantUsed();
}

TileMap::TileMap(uint64_t blockCount, size_t tilesMax) : _blockCount(blockCount) {
  while ((blockCount + _blocksPerTile - 1) / _blocksPerTile > tilesMax) {
    _blocksPerTile *= 2;
  }
  _tiles.resize(static_cast<size_t>((blockCount + _blocksPerTile - 1) / _blocksPerTile));
}

template <typename Visit>
void TileMap::visit(BlockRun run, Visit visit) {
  if (run.start >= _blockCount) {
    return;
  }
  const uint64_t end = run.start + std::min(run.count, _blockCount - run.start);
  for (uint64_t block = run.start; block < end;) {
    const size_t tile = tileOf(block);
    const uint64_t stop = std::min(end, (tile + 1) * _blocksPerTile);
    visit(_tiles[tile], static_cast<uint32_t>(stop - block));
    block = stop;
  }
}

void TileMap::addUsed(BlockRun run) {
  visit(run, [](Tile& tile, uint32_t count) { tile.used += count; });
}

void TileMap::addFile(BlockRun run, bool isFragmented) {
  visit(run, [isFragmented](Tile& tile, uint32_t count) {
    (isFragmented ? tile.fragmented : tile.contiguous) += count;
  });
}

/// Which blocks of a tile leave is not known in all detail; fragmented ones are the likeliest to.
/// Copies that were made together come one after the other, so a tile may hold more for a moment
/// than it has.
void TileMap::move(const BlockMove& move, bool becomesContiguous) {
  uint64_t contiguous = 0;
  uint64_t fragmented = 0;
  visit({move.from, move.count}, [&](Tile& tile, uint32_t count) {
    const uint32_t ofFragmented = std::min(count, tile.fragmented);
    const uint32_t ofContiguous = std::min(count - ofFragmented, tile.contiguous);
    tile.used -= std::min(count, tile.used);
    tile.fragmented -= ofFragmented;
    tile.contiguous -= ofContiguous;
    fragmented += ofFragmented;
    contiguous += ofContiguous;
  });
  visit({move.to, move.count}, [&](Tile& tile, uint32_t count) {
    tile.used += count;
    const auto ofFragmented = static_cast<uint32_t>(std::min<uint64_t>(count, fragmented));
    fragmented -= ofFragmented;
    const auto ofContiguous =
        static_cast<uint32_t>(std::min<uint64_t>(count - ofFragmented, contiguous));
    contiguous -= ofContiguous;
    tile.contiguous += ofContiguous + (becomesContiguous ? ofFragmented : 0);
    tile.fragmented += becomesContiguous ? 0 : ofFragmented;
  });
}

uint64_t TileMap::blocksOfTile(size_t index) const {
  return std::min(_blocksPerTile, _blockCount - index * _blocksPerTile);
}

/// Files may claim more than the bitmap has in use; what is in use decides.
BlockCounts TileMap::tile(size_t index) const {
  const Tile& tile = _tiles[index];
  const uint64_t room = blocksOfTile(index);
  const uint64_t used = std::min<uint64_t>(tile.used, room);
  BlockCounts counts;
  counts.fragmented = std::min<uint64_t>(tile.fragmented, used);
  counts.contiguous = std::min<uint64_t>(tile.contiguous, used - counts.fragmented);
  counts.system = used - counts.fragmented - counts.contiguous;
  counts.free = room - used;
  return counts;
}

TileMap TileMap::reduced(size_t tilesMax) const {
  if (_tiles.size() <= tilesMax) {
    return *this;
  }
  TileMap smaller(_blockCount, tilesMax);
  for (size_t index = 0; index < _tiles.size(); ++index) {
    const BlockCounts counts = tile(index);
    smaller.addTile(smaller.tileOf(index * _blocksPerTile), counts);
  }
  return smaller;
}

bool TileMap::addTile(size_t index, const BlockCounts& counts) {
  if (index >= _tiles.size() || counts.used() > blocksOfTile(index) - _tiles[index].used) {
    return false;
  }
  Tile& tile = _tiles[index];
  tile.used += static_cast<uint32_t>(counts.used());
  tile.contiguous += static_cast<uint32_t>(counts.contiguous);
  tile.fragmented += static_cast<uint32_t>(counts.fragmented);
  return true;
}

BlockCounts TileMap::cell(size_t index, size_t cells) const {
  BlockCounts sum;
  if (cells == 0 || _tiles.empty()) {
    return sum;
  }
  const size_t first = index * _tiles.size() / cells;
  const size_t last = std::max(first + 1, (index + 1) * _tiles.size() / cells);
  for (size_t at = first; at < std::min(last, _tiles.size()); ++at) {
    const BlockCounts counts = tile(at);
    sum.contiguous += counts.contiguous;
    sum.fragmented += counts.fragmented;
    sum.system += counts.system;
    sum.free += counts.free;
  }
  return sum;
}

BlockCounts TileMap::total() const {
  return cell(0, 1);
}

}  // namespace view
