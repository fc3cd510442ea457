#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "support/VolumeFormat.hpp"

namespace support {

/// The blocks that are still free while forks are being placed, as runs found by place and by size.
class FreeSpace {
 public:
  explicit FreeSpace(BlockExtent all);

  /// Takes exactly this run; false when a part of it is not free.
  [[nodiscard]] bool take(BlockExtent run);

  /// Takes `count` blocks in one piece at or soon behind `near` and below `limit`, else wherever
  /// they fit best; nothing when no run is that long.
  std::optional<BlockExtent> takePiece(uint32_t count, uint32_t near, uint32_t limit);

  /// Frees a run that was taken; it joins its free neighbours.
  void giveBack(BlockExtent run);

  /// The length of the longest run.
  uint32_t longest() const { return _bySize.empty() ? 0 : _bySize.rbegin()->first; }

  /// The free runs at or above a block, ascending; a run that crosses it is cut there.
  std::vector<BlockExtent> runsFrom(uint32_t block) const;

  uint64_t freeBlocks() const { return _freeBlocks; }

 private:
  void add(BlockExtent run);
  void remove(std::map<uint32_t, uint32_t>::iterator run);

  std::map<uint32_t, uint32_t> _byStart;
  std::set<std::pair<uint32_t, uint32_t>> _bySize;
  uint64_t _freeBlocks = 0;
};

}  // namespace support
