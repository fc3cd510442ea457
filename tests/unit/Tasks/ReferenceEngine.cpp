#include "unit/Tasks/ReferenceEngine.hpp"

#include <algorithm>
#include <stdexcept>

using volumecheck::Extent;
using volumecheck::ForkType;

namespace {

uint32_t endOf(const Extent& extent) {
  return extent.startBlock + extent.blockCount;
}

void expect(bool holds, const char* what) {
  if (!holds) {
    throw std::logic_error(what);
  }
}

}  // namespace

ReferenceEngine::ReferenceEngine(const volumecheck::VolumeTruth& truth, Settings settings)
    : _truth(truth), _settings(std::move(settings)) {
  for (const volumecheck::Fork& fork : truth.forks) {
    const ForkID id(fork.cnid, static_cast<uint8_t>(fork.type));
    if (fork.type != ForkType::Attribute && fork.cnid != volumecheck::kBadBlockFileID &&
        fork.cnid != volumecheck::kStartupFileID &&
        std::ranges::find(_settings.immovable, id) == _settings.immovable.end()) {
      _forks[id] = fork.extents;
    }
  }
}

bool ReferenceEngine::run() {
  buildMap();
  skipWhatIsInPlace();
  const uint64_t data = _expected;
  _expected = data > _skipped ? data - _skipped : 0;
  bool goesOn = true;
  while (goesOn && !_map.empty()) {
    const uint32_t movable = blocksOf(Kind::Free) + blocksOf(Kind::Data);
    if (movable == 0) {
      return true;
    }
    const uint32_t zone = std::min(movable, _settings.bufferBlocks);
    if (freeBlocksOfZone(zone) < zone && !evict(zone)) {
      return false;
    }
    expect(freeBlocksOfZone(zone) >= zone, "the zone is free");
    goesOn = fill(zone);
    if (!carryOut(true)) {
      return false;
    }
    // Whatever was pending is looked up again after each batch.
    if (_settings.compact && _pending) {
      _cursor = _pending->from;
    }
    _pending.reset();
    _extents.clear();
    _extentsLoaded = false;
  }
  return true;
}

// The map

void ReferenceEngine::buildMap() {
  std::vector<Kind> kinds(_truth.header.totalBlocks, Kind::Immovable);
  const auto paint = [&](const Extent& extent, Kind kind) {
    std::fill_n(kinds.begin() + extent.startBlock, extent.blockCount, kind);
  };
  for (const Extent& run : _truth.freeRuns) {
    paint(run, Kind::Free);
  }
  // Whatever has an owner is in use, also where the bitmap does not say so.
  for (const volumecheck::Fork& fork : _truth.forks) {
    for (const Extent& extent : fork.extents) {
      paint(extent, Kind::Immovable);
    }
  }
  for (const auto& [fork, extents] : _forks) {
    for (const Extent& extent : extents) {
      paint(extent, Kind::Data);
      _map.push_back({extent.startBlock, extent.blockCount, Kind::Data, fork});
      _expected += extent.blockCount;
    }
  }
  for (uint32_t block = 0, start = 0; block < kinds.size(); start = block) {
    while (block < kinds.size() && kinds[block] == kinds[start]) {
      ++block;
    }
    if (kinds[start] != Kind::Data) {
      _map.push_back({start, block - start, kinds[start], {}});
    }
  }
  std::ranges::sort(_map, {}, &Run::start);
}

/// The first run of the map that ends behind a block.
auto ReferenceEngine::runBehind(uint32_t block) -> std::vector<Run>::iterator {
  return std::ranges::partition_point(
      _map, [&](const Run& run) { return run.start + run.count <= block; });
}

/// Gives free blocks of the map to somebody; what lies below the map is left out.
void ReferenceEngine::mark(uint32_t start, uint32_t count, Kind kind, ForkID fork) {
  const uint32_t end = start + count;
  if (_map.empty() || end <= _map.front().start) {
    return;
  }
  start = std::max(start, _map.front().start);
  const auto run = runBehind(start);
  expect(run != _map.end() && run->kind == Kind::Free && end <= run->start + run->count,
         "the blocks are free");
  const Run whole = *run;
  std::vector<Run> pieces = {{start, end - start, kind, fork}};
  if (whole.start < start) {
    pieces.insert(pieces.begin(), {whole.start, start - whole.start, Kind::Free, {}});
  }
  if (end < whole.start + whole.count) {
    pieces.push_back({end, whole.start + whole.count - end, Kind::Free, {}});
  }
  _map.insert(_map.erase(run), pieces.begin(), pieces.end());
}

/// Frees blocks of the map, whoever has them, and joins them with free neighbours.
void ReferenceEngine::release(uint32_t start, uint32_t count) {
  uint32_t end = start + count;
  if (_map.empty() || end <= _map.front().start) {
    return;
  }
  start = std::max(start, _map.front().start);
  auto first = runBehind(start);
  if (first != _map.begin() && first->start == start && (first - 1)->kind == Kind::Free) {
    --first;
  }
  auto last = runBehind(end - 1);
  if (last + 1 != _map.end() && last->start + last->count == end &&
      (last + 1)->kind == Kind::Free) {
    ++last;
  }
  const Run left = *first;
  const Run right = *last;
  const uint32_t rightEnd = right.start + right.count;
  start = left.kind == Kind::Free ? left.start : start;
  end = right.kind == Kind::Free ? rightEnd : end;
  std::vector<Run> pieces = {{start, end - start, Kind::Free, {}}};
  if (left.start < start) {
    pieces.insert(pieces.begin(), {left.start, start - left.start, left.kind, left.fork});
  }
  if (end < rightEnd) {
    pieces.push_back({end, rightEnd - end, right.kind, right.fork});
  }
  _map.insert(_map.erase(first, last + 1), pieces.begin(), pieces.end());
}

void ReferenceEngine::removeFront() {
  _map.erase(_map.begin());
}

uint32_t ReferenceEngine::blocksOf(Kind kind) const {
  uint32_t blocks = 0;
  for (const Run& run : _map) {
    blocks += run.kind == kind ? run.count : 0;
  }
  return blocks;
}

/// What a fork has at or above a block, in fork order.
ReferenceEngine::Extents ReferenceEngine::extentsFrom(ForkID fork, uint32_t block) const {
  Extents found;
  const auto extents = _forks.find(fork);
  if (extents == _forks.end()) {
    return found;  // immovable: nothing that could be laid down
  }
  for (const Extent& extent : extents->second) {
    if (endOf(extent) > block) {
      const uint32_t start = std::max(extent.startBlock, block);
      found.push_back({start, endOf(extent) - start});
    }
  }
  return found;
}

// What is in place

void ReferenceEngine::skipWhatIsInPlace() {
  const auto skipFront = [&] {
    _skipped += _map.front().kind == Kind::Data ? _map.front().count : 0;
    removeFront();
  };
  while (!_map.empty() && _map.front().start < _settings.firstDataBlock) {
    skipFront();
  }
  while (!_map.empty() && _map.front().kind != Kind::Free) {
    if (!_settings.compact && _map.front().kind == Kind::Data && !isInPlace(_map.front())) {
      _skipped += _map.front().count;
      return;
    }
    skipFront();
  }
}

bool ReferenceEngine::isInPlace(const Run& run) {
  const Extents extents = extentsFrom(run.fork, run.start);
  if (extents.size() != 1) {
    return false;
  }
  std::vector<ForkID>& profile = _settings.profile;
  while (!profile.empty()) {
    const Extents next = extentsFrom(profile.front(), run.start);
    if (!next.empty() && next != extents) {
      return false;
    }
    profile.erase(profile.begin());
    if (!next.empty()) {
      break;
    }
  }
  return true;
}

// The copy zone

uint32_t ReferenceEngine::freeBlocksOfZone(uint32_t zone) const {
  uint32_t blocks = 0;
  for (const Run& run : _map) {
    if (run.kind == Kind::Data || blocks >= zone) {
      break;
    }
    blocks += run.kind == Kind::Free ? run.count : 0;
  }
  return blocks;
}

bool ReferenceEngine::evict(uint32_t zone) {
  uint32_t end = _map.front().start;
  uint32_t movable = 0;
  for (const Run& run : _map) {
    if (movable == zone) {
      break;
    }
    const uint32_t inside =
        run.kind == Kind::Immovable ? run.count : std::min(run.count, zone - movable);
    movable += run.kind == Kind::Immovable ? 0 : inside;
    end = run.start + inside;
  }

  // Free runs beyond the zone, in the order of their blocks, up to one that holds the whole zone.
  Extents free;
  uint32_t freeBlocks = 0;
  for (const Run& run : _map) {
    if (run.kind == Kind::Free && run.start + run.count > end) {
      const uint32_t start = std::max(run.start, end);
      free.push_back({start, run.start + run.count - start});
      freeBlocks += free.back().blockCount;
      if (free.back().blockCount >= zone) {
        break;
      }
    }
  }
  if (freeBlocks < zone) {
    return false;
  }

  ++_evictions;
  uint32_t passed = 0;
  for (const Run& run : _map) {
    if (passed == zone) {
      break;
    }
    if (run.kind == Kind::Immovable) {
      continue;
    }
    const uint32_t inside = std::min(run.count, zone - passed);
    passed += inside;
    for (uint32_t placed = 0; run.kind == Kind::Data && placed < inside;) {
      const auto largest = std::ranges::max_element(
          free, [](const Extent& a, const Extent& b) { return a.blockCount < b.blockCount; });
      const uint32_t count = std::min(largest->blockCount, inside - placed);
      _plan.push_back({run.fork, run.start + placed, largest->startBlock, count});
      largest->startBlock += count;
      largest->blockCount -= count;
      placed += count;
    }
  }
  return carryOut(false);
}

/// Plans moves to the front; false when nothing is left to be moved.
bool ReferenceEngine::fill(uint32_t zone) {
  for (uint32_t placed = 0; placed < zone;) {
    auto source = nextSource();
    if (!source) {
      return false;
    }
    while (_map.front().kind == Kind::Immovable) {
      removeFront();
    }
    expect(_map.front().kind == Kind::Free, "the front is free");
    source->to = _map.front().start;
    source->count = std::min({zone - placed, _map.front().count, source->count});
    _plan.push_back(*source);
    took(source->count);
    _map.front().start += source->count;
    _map.front().count -= source->count;
    if (_map.front().count == 0) {
      removeFront();
    }
    release(source->from, source->count);
    placed += source->count;
  }
  return true;
}

/// Does what is planned: to the forks, the map and the report. False if that puts the extents file
/// into more pieces than a volume header has room for.
bool ReferenceEngine::carryOut(bool counted) {
  for (const Piece& piece : _plan) {
    _done += counted ? piece.count : 0;
    const uint64_t percent = _done >= _expected ? 100 : _done * 100 / _expected;
    _moves.push_back({static_cast<uint32_t>(percent), piece.from, piece.to, piece.count});
  }
  while (!_plan.empty()) {
    const ForkID fork = _plan.front().fork;
    Extents& extents = _forks.at(fork);
    for (const Extent& extent : extents) {
      release(extent.startBlock, extent.blockCount);
    }
    for (const Piece& piece : _plan) {
      if (piece.fork != fork) {
        continue;
      }
      const auto extent = std::ranges::find_if(extents, [&](const Extent& e) {
        return e.startBlock <= piece.from && piece.from + piece.count <= endOf(e);
      });
      expect(extent != extents.end(), "the fork has the blocks");
      const Extent whole = *extent;
      Extents pieces;
      if (whole.startBlock < piece.from) {
        pieces.push_back({whole.startBlock, piece.from - whole.startBlock});
      }
      pieces.push_back({piece.to, piece.count});
      if (piece.from + piece.count < endOf(whole)) {
        pieces.push_back({piece.from + piece.count, endOf(whole) - piece.from - piece.count});
      }
      extents.insert(extents.erase(extent), pieces.begin(), pieces.end());
    }
    Extents joined;
    for (const Extent& extent : extents) {
      if (!joined.empty() && endOf(joined.back()) == extent.startBlock) {
        joined.back().blockCount += extent.blockCount;
      } else {
        joined.push_back(extent);
      }
    }
    extents = joined;
    if (fork.first == volumecheck::kExtentsFileID && extents.size() > 8) {
      return false;
    }
    for (const Extent& extent : extents) {
      mark(extent.startBlock, extent.blockCount, Kind::Data, fork);
    }
    std::erase_if(_plan, [&](const Piece& piece) { return piece.fork == fork; });
  }
  return true;
}

// What is moved next

std::optional<ReferenceEngine::Piece> ReferenceEngine::nextSource() {
  if (!_pending) {
    _pending = _settings.compact ? nextForCompact() : nextForDefrag();
  }
  return _pending;
}

std::optional<ReferenceEngine::Piece> ReferenceEngine::nextForCompact() {
  for (const Run& run : _map) {
    if (run.kind == Kind::Data && run.start >= _cursor) {
      return Piece{run.fork, run.start, 0, run.count};
    }
  }
  return std::nullopt;
}

std::optional<ReferenceEngine::Piece> ReferenceEngine::nextForDefrag() {
  const uint32_t front = _map.empty() ? 0 : _map.front().start;
  if (_fork && !_extentsLoaded) {
    _extents = extentsFrom(*_fork, front);
  }
  std::vector<ForkID>& profile = _settings.profile;
  while (!_fork && !profile.empty() && !_map.empty()) {
    _fork = profile.front();
    _extents = extentsFrom(*_fork, front);
    if (_extents.empty()) {
      _fork.reset();
      profile.erase(profile.begin());
    }
  }
  if (!_fork) {
    const auto run = std::ranges::find_if(_map, [](const Run& r) { return r.kind == Kind::Data; });
    if (run == _map.end()) {
      return std::nullopt;
    }
    _fork = run->fork;
    _extents = extentsFrom(*_fork, front);
  }
  _extentsLoaded = true;
  expect(!_extents.empty(), "the fork has something to be moved");
  return Piece{*_fork, _extents.front().startBlock, 0, _extents.front().blockCount};
}

/// So many blocks of the pending source have found their place.
void ReferenceEngine::took(uint32_t count) {
  _pending->from += count;
  _pending->count -= count;
  if (_pending->count > 0) {
    return;
  }
  _cursor = _pending->from;
  _pending.reset();
  if (_settings.compact) {
    return;
  }
  _extents.erase(_extents.begin());
  if (_extents.empty()) {
    if (!_settings.profile.empty()) {
      _settings.profile.erase(_settings.profile.begin());
    }
    _fork.reset();
    _extentsLoaded = false;
  }
}
