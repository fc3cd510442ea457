#include "support/ForkLayout.hpp"

#include <algorithm>

namespace support {

namespace {

// How far ahead a piece is sought that fits a rest or does not continue its neighbour.
constexpr size_t kLookAhead = 32;

// Several tries keep the pieces of a fork at the front apart; when all touch, they merge.
constexpr int kFrontTries = 8;

std::string forkName(const PlannedFork& fork) {
  return "fork " + std::to_string(fork.forkType) + " of " + std::to_string(fork.fileID);
}

void appendMerging(std::vector<BlockExtent>& extents, BlockExtent run) {
  if (!extents.empty() && extents.back().start + extents.back().count == run.start)
    extents.back().count += run.count;
  else
    extents.push_back(run);
}

}  // namespace

ForkLayout::ForkLayout(FreeSpace space, LayoutDescription options, uint64_t seed,
                       uint32_t frontLimit, uint32_t dataStart)
    : _space(std::move(space)),
      _options(options),
      _random(seed),
      _frontLimit(frontLimit),
      _dataStart(dataStart) {}

std::string ForkLayout::place(std::vector<PlannedFork>& forks) {
  for (const PlannedFork& fork : forks) {
    uint64_t given = 0;
    for (const BlockExtent& extent : fork.extents) {
      if (!_space.take(extent))
        return forkName(fork) + ": block " + std::to_string(extent.start) + " is taken";
      given += extent.count;
    }
    if (!fork.extents.empty() && given != fork.blocks)
      return forkName(fork) + ": its extents do not have its number of blocks";
  }
  // Forks that must not be split choose while the free space is still whole.
  const auto turnOf = [](const PlannedFork& fork) {
    if (fork.strict)
      return fork.fragments == 1 ? 0 : 1;
    return fork.place == ForkPlace::front ? 2 : 3;
  };
  for (int turn = 0; turn < 3; ++turn) {
    for (PlannedFork& fork : forks) {
      if (turnOf(fork) != turn || !fork.extents.empty() || fork.blocks == 0)
        continue;
      if (std::string failure = placeOne(fork); !failure.empty())
        return failure;
    }
  }
  return placeData(forks);
}

// Cuts a fork into its number of pieces of random sizes.
std::vector<uint32_t> ForkLayout::cut(const PlannedFork& fork) {
  uint64_t units = dividedUp(fork.blocks, fork.unit);
  uint64_t pieces = std::clamp<uint64_t>(fork.fragments, 1, units);
  std::vector<uint32_t> sizes;
  sizes.reserve(pieces);
  uint32_t left = fork.blocks;
  for (; pieces > 1; --pieces) {
    const uint64_t extra = std::min(units - pieces, 2 * (units - pieces) / pieces);
    const uint64_t size = 1 + _random.below(extra + 1);
    sizes.push_back(static_cast<uint32_t>(size * fork.unit));
    left -= sizes.back();
    units -= size;
  }
  sizes.push_back(left);
  return sizes;
}

// Places a fork that does not wait for the others: at the front, or one that must not be split.
std::string ForkLayout::placeOne(PlannedFork& fork) {
  const bool front = fork.place == ForkPlace::front;
  const uint32_t limit = front ? _frontLimit : UINT32_MAX;
  const std::vector<uint32_t> sizes = cut(fork);
  for (const uint32_t size : sizes) {
    std::optional<BlockExtent> piece;
    for (int i = 0; i < kFrontTries && !piece; ++i) {
      uint32_t near = front ? _frontCursor : _dataStart;
      if (front && sizes.size() > 1)
        near = static_cast<uint32_t>(_random.below(_frontLimit));
      piece = _space.takePiece(size, near, limit);
      const bool touches = piece && !fork.extents.empty() &&
                           fork.extents.back().start + fork.extents.back().count == piece->start;
      if (touches && i + 1 < kFrontTries) {
        _space.giveBack(*piece);
        piece.reset();
      }
    }
    if (!piece && (fork.strict || _space.freeBlocks() < size))
      return forkName(fork) + ": no room for it";
    if (piece) {
      appendMerging(fork.extents, *piece);
      continue;
    }
    for (uint32_t left = size; left > 0;) {
      const auto part = _space.takePiece(std::min(left, _space.longest()), 0, limit);
      if (!part)
        return forkName(fork) + ": no room for it";
      appendMerging(fork.extents, *part);
      left -= part->count;
    }
  }
  if (front && sizes.size() == 1)
    _frontCursor = fork.extents.back().start + fork.extents.back().count;
  return {};
}

std::string ForkLayout::placeData(std::vector<PlannedFork>& forks) {
  collectPieces(forks);
  uint64_t needed = 0;
  for (const Piece& piece : _pieces)
    needed += piece.blocks;
  const std::vector<BlockExtent> runs = _space.runsFrom(_dataStart);
  uint64_t available = 0;
  for (const BlockExtent& run : runs)
    available += run.count;
  if (needed > available) {
    return "the volume is too small: " + std::to_string(needed) + " blocks of data, " +
           std::to_string(available) + " free";
  }
  drawGaps(available - needed);
  for (const BlockExtent& run : runs)
    fillRun(run);
  gather(forks);
  return {};
}

void ForkLayout::collectPieces(const std::vector<PlannedFork>& forks) {
  for (size_t i = 0; i < forks.size(); ++i) {
    const PlannedFork& fork = forks[i];
    if (fork.place != ForkPlace::data || !fork.extents.empty() || fork.blocks == 0)
      continue;
    uint32_t index = 0;
    for (const uint32_t size : cut(fork))
      _pieces.push_back({i, index++, size});
  }
  if (_options.shuffled)
    _random.shuffle(_pieces);
}

void ForkLayout::drawGaps(uint64_t freeBlocks) {
  _spareBlocks = freeBlocks;
  _gapBlocks = static_cast<uint64_t>(static_cast<double>(freeBlocks) * _options.gapShare);
  const uint64_t pieces = std::max<uint64_t>(_pieces.size(), 1);
  const uint64_t gaps = std::clamp<uint64_t>(_options.gaps == 0 ? pieces / 4 + 1 : _options.gaps, 1,
                                             std::max<uint64_t>(_gapBlocks, 1));
  _gapAverage = _gapBlocks / gaps;
  _gapChance = static_cast<double>(gaps) / static_cast<double>(pieces);
}

uint64_t ForkLayout::gapBeforeNext() {
  if (_gapBlocks == 0 || _random.fraction() >= _gapChance)
    return 0;
  const uint64_t gap = std::min(_gapBlocks, 1 + _random.below(2 * _gapAverage));
  _gapBlocks -= gap;
  return gap;
}

// Brings a piece to the front of the queue that fits `room`, and, if asked, does not continue the
// piece laid last. False when none is near.
bool ForkLayout::chooseNext(uint32_t room, bool avoidNeighbour) {
  const size_t end = std::min(_pieces.size(), _next + kLookAhead);
  for (size_t i = _next; i < end; ++i) {
    const Piece& piece = _pieces[i];
    const bool continues = avoidNeighbour && !_placed.empty() &&
                           _placed.back().fork == piece.fork &&
                           _placed.back().index + 1 == piece.index;
    if (piece.blocks > room || continues)
      continue;
    std::rotate(_pieces.begin() + static_cast<std::ptrdiff_t>(_next),
                _pieces.begin() + static_cast<std::ptrdiff_t>(i),
                _pieces.begin() + static_cast<std::ptrdiff_t>(i) + 1);
    return true;
  }
  return false;
}

void ForkLayout::fillRun(BlockExtent run) {
  uint32_t at = run.start;
  uint32_t room = run.count;
  const auto skip = [&](uint64_t blocks) {
    const auto count = static_cast<uint32_t>(std::min<uint64_t>(blocks, room));
    at += count;
    room -= count;
    _spareBlocks -= count;
  };
  while (room > 0 && _next < _pieces.size()) {
    skip(std::min(gapBeforeNext(), _spareBlocks));
    const bool touches =
        !_placed.empty() && _placed.back().run.start + _placed.back().run.count == at;
    if (room > 0 && !chooseNext(room, touches)) {
      if (_pieces[_next].blocks <= room) {
        skip(_spareBlocks > 0 ? 1 : 0);
      } else if (_spareBlocks >= room) {
        skip(room);
      }
    }
    if (room == 0)
      break;
    Piece& piece = _pieces[_next];
    const uint32_t count = std::min(piece.blocks, room);
    _placed.push_back({piece.fork, piece.index, {at, count}});
    at += count;
    room -= count;
    piece.blocks -= count;
    if (piece.blocks == 0)
      ++_next;
  }
}

void ForkLayout::gather(std::vector<PlannedFork>& forks) {
  std::ranges::stable_sort(_placed, [](const Placed& a, const Placed& b) {
    return a.fork != b.fork ? a.fork < b.fork : a.index < b.index;
  });
  for (const Placed& placed : _placed)
    appendMerging(forks[placed.fork].extents, placed.run);
}

}  // namespace support
