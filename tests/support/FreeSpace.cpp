#include "support/FreeSpace.hpp"

#include <algorithm>

namespace support {

namespace {

// How many runs are tried near a wanted place before the best fit is taken.
constexpr int kNearTries = 16;

}  // namespace

FreeSpace::FreeSpace(BlockExtent all) {
  add(all);
}

bool FreeSpace::take(BlockExtent run) {
  if (run.count == 0)
    return true;
  auto found = _byStart.upper_bound(run.start);
  if (found == _byStart.begin())
    return false;
  --found;
  const BlockExtent whole{found->first, found->second};
  const uint64_t wholeEnd = uint64_t{whole.start} + whole.count;
  const uint64_t end = uint64_t{run.start} + run.count;
  if (end > wholeEnd)
    return false;
  remove(found);
  add({whole.start, run.start - whole.start});
  add({static_cast<uint32_t>(end), static_cast<uint32_t>(wholeEnd - end)});
  return true;
}

std::optional<BlockExtent> FreeSpace::takePiece(uint32_t count, uint32_t near, uint32_t limit) {
  auto at = _byStart.upper_bound(near);
  if (at != _byStart.begin())
    --at;
  for (int i = 0; i < kNearTries && at != _byStart.end(); ++i, ++at) {
    const uint32_t start = std::max(at->first, near);
    const uint64_t end = uint64_t{at->first} + at->second;
    if (uint64_t{start} + count > end || uint64_t{start} + count > limit)
      continue;
    const BlockExtent piece{start, count};
    return take(piece) ? std::optional(piece) : std::nullopt;
  }
  const auto best = _bySize.lower_bound({count, 0});
  if (best == _bySize.end())
    return std::nullopt;
  const BlockExtent piece{best->second, count};
  return take(piece) ? std::optional(piece) : std::nullopt;
}

void FreeSpace::giveBack(BlockExtent run) {
  auto next = _byStart.lower_bound(run.start);
  if (next != _byStart.end() && run.start + run.count == next->first) {
    run.count += next->second;
    const auto joined = next++;
    remove(joined);
  }
  if (next != _byStart.begin()) {
    const auto before = std::prev(next);
    if (before->first + before->second == run.start) {
      run = {before->first, before->second + run.count};
      remove(before);
    }
  }
  add(run);
}

std::vector<BlockExtent> FreeSpace::runsFrom(uint32_t block) const {
  std::vector<BlockExtent> runs;
  for (const auto& [start, count] : _byStart) {
    const uint64_t end = uint64_t{start} + count;
    if (end <= block)
      continue;
    const uint32_t first = std::max(start, block);
    runs.push_back({first, static_cast<uint32_t>(end - first)});
  }
  return runs;
}

void FreeSpace::add(BlockExtent run) {
  if (run.count == 0)
    return;
  _byStart.emplace(run.start, run.count);
  _bySize.emplace(run.count, run.start);
  _freeBlocks += run.count;
}

void FreeSpace::remove(std::map<uint32_t, uint32_t>::iterator run) {
  _bySize.erase({run->second, run->first});
  _freeBlocks -= run->second;
  _byStart.erase(run);
}

}  // namespace support
