#include <algorithm>
#include <tuple>

#include "support/VolumeCheckerState.hpp"

namespace volumecheck {

namespace {

struct BlockRange {
  std::uint64_t first = 0, end = 0;
};

// Sorts what is owned, reports overlaps, and melts it into rising, separate ranges.
std::vector<BlockRange> mergeOwned(VolumeCheckerState& state) {
  auto& owned = state.owned;
  std::sort(owned.begin(), owned.end(), [](const OwnedRun& a, const OwnedRun& b) {
    return std::tuple(a.startBlock, a.cnid, a.blockCount) <
           std::tuple(b.startBlock, b.cnid, b.blockCount);
  });
  std::vector<BlockRange> ranges;
  const OwnedRun* reaching = nullptr;  // the owner of the block before `ranges.back().end`
  for (const OwnedRun& run : owned) {
    const std::uint64_t end = std::uint64_t{run.startBlock} + run.blockCount;
    if (!ranges.empty() && run.startBlock < ranges.back().end) {
      const std::uint64_t overlapEnd = std::min(end, ranges.back().end);
      state.log.add(FindingKind::BlockOwnedTwice,
                    "Blocks %u to %llu are owned by the %s and by the %s.", run.startBlock,
                    static_cast<unsigned long long>(overlapEnd - 1),
                    describeFork(reaching->cnid, reaching->type).c_str(),
                    describeFork(run.cnid, run.type).c_str());
    }
    if (!ranges.empty() && run.startBlock <= ranges.back().end) {
      if (end > ranges.back().end) {
        ranges.back().end = end;
        reaching = &run;
      }
    } else {
      ranges.push_back({run.startBlock, end});
      reaching = &run;
    }
  }
  return ranges;
}

// Takes the runs of set bits in rising order and holds them against what is owned.
class BitmapComparison {
 public:
  BitmapComparison(VolumeCheckerState& state, std::vector<BlockRange> owned)
      : _state(state), _owned(std::move(owned)) {}

  void addSetRun(std::uint64_t first, std::uint64_t end) {
    _clearUpTo(first);
    std::uint64_t at = first;
    while (_next < _owned.size() && _owned[_next].first < end) {
      _reportUnowned(at, _owned[_next].first);
      at = std::max(at, std::min(_owned[_next].end, end));
      if (_owned[_next].end > end) {
        break;
      }
      ++_next;
    }
    _reportUnowned(at, end);
    _at = end;
  }
  void finish() { _clearUpTo(_state.totalBlocks()); }

 private:
  void _clearUpTo(std::uint64_t end) {
    if (end <= _at) {
      return;
    }
    _state.truth.clearBits += end - _at;
    if (_state.options.keepFreeRuns) {
      _state.truth.freeRuns.push_back(
          {static_cast<std::uint32_t>(_at), static_cast<std::uint32_t>(end - _at)});
    }
    while (_next < _owned.size() && _owned[_next].first < end) {
      const std::uint64_t first = std::max(_at, _owned[_next].first);
      const std::uint64_t last = std::min(end, _owned[_next].end);
      if (first < last) {
        _state.log.add(FindingKind::BlockOwnedButClear,
                       "Blocks %llu to %llu (%llu) are owned, but free in the bitmap.",
                       static_cast<unsigned long long>(first),
                       static_cast<unsigned long long>(last - 1),
                       static_cast<unsigned long long>(last - first));
      }
      if (_owned[_next].end > end) {
        break;
      }
      ++_next;
    }
    _at = end;
  }

  void _reportUnowned(std::uint64_t first, std::uint64_t end) {
    if (first < end) {
      _state.log.add(FindingKind::BlockSetButUnowned,
                     "Blocks %llu to %llu (%llu) are set in the bitmap, but nobody owns them.",
                     static_cast<unsigned long long>(first),
                     static_cast<unsigned long long>(end - 1),
                     static_cast<unsigned long long>(end - first));
    }
  }

  VolumeCheckerState& _state;
  std::vector<BlockRange> _owned;
  std::size_t _next = 0;  // the first range that is not wholly before `_at`
  std::uint64_t _at = 0;  // everything before this block is done
};

// Cuts the bitmap, given piece by piece, into runs of set bits.
class RunCutter {
 public:
  RunCutter(BitmapComparison& comparison, std::uint64_t totalBlocks)
      : _comparison(comparison), _totalBlocks(totalBlocks) {}

  void addBytes(Bytes bytes) {
    for (const std::uint8_t byte : bytes) {
      const bool uniform = byte == (_inRun ? 0xFF : 0x00) && _block + 8 <= _totalBlocks;
      if (uniform) {
        _block += 8;
      } else {
        _addByte(byte);
      }
    }
  }
  void addZeroBytes(std::uint64_t count) {
    _setRunState(false);
    _block += 8 * count;
  }
  // True when a bit past the last block was set.
  bool finish() {
    _setRunState(false);
    _comparison.finish();
    return _tailSet;
  }

 private:
  void _addByte(std::uint8_t byte) {
    for (unsigned mask = 0x80; mask != 0; mask >>= 1, ++_block) {
      const bool set = (byte & mask) != 0;
      if (_block >= _totalBlocks) {
        _setRunState(false);
        _tailSet = _tailSet || set;
      } else {
        _setRunState(set);
      }
    }
  }
  void _setRunState(bool set) {
    if (set && !_inRun) {
      _runFirst = _block;
    } else if (!set && _inRun) {
      _comparison.addSetRun(_runFirst, std::min(_block, _totalBlocks));
    }
    _inRun = set;
  }

  BitmapComparison& _comparison;
  std::uint64_t _totalBlocks;
  std::uint64_t _block = 0;
  std::uint64_t _runFirst = 0;
  bool _inRun = false;
  bool _tailSet = false;
};

bool readBitmap(VolumeCheckerState& state, const Fork& fork, RunCutter& cutter) {
  static constexpr std::uint64_t kChunkSize = 256 * 1024;
  const VolumeCheckerForkReader reader = state.readerOf(fork);
  // Bits past the last block must be clear in the whole of the file.
  const std::uint64_t size = std::min(fork.logicalSize, reader.mappedSize());
  std::vector<std::uint8_t> chunk;
  for (std::uint64_t at = 0; at < size; at += kChunkSize) {
    const std::uint64_t part = std::min(kChunkSize, size - at);
    if (reader.isHole(at, part)) {
      cutter.addZeroBytes(part);
      continue;
    }
    chunk.resize(part);
    if (!reader.read(at, chunk)) {
      state.log.add(FindingKind::ReadFailed, "The bitmap cannot be read from byte %llu on.",
                    static_cast<unsigned long long>(at));
      return false;
    }
    cutter.addBytes(chunk);
  }
  return true;
}

}  // namespace

void checkSpace(VolumeCheckerState& state) {
  BitmapComparison comparison(state, mergeOwned(state));
  const Fork* fork = state.truth.findFork(kAllocationFileID, ForkType::Data);
  if (fork == nullptr || !fork->sound) {
    state.log.add(FindingKind::BitmapTooSmall, "The bitmap cannot be read through its extents.");
    return;
  }
  if (fork->logicalSize * 8 < state.totalBlocks()) {
    state.log.add(FindingKind::BitmapTooSmall, "The bitmap has %llu bytes for %u blocks.",
                  static_cast<unsigned long long>(fork->logicalSize), state.totalBlocks());
    return;
  }
  RunCutter cutter(comparison, state.totalBlocks());
  if (!readBitmap(state, *fork, cutter)) {
    return;
  }
  if (cutter.finish()) {
    state.log.add(FindingKind::BitmapTail, "The bitmap has set bits past block %u.",
                  state.totalBlocks() - 1);
  }
  const HeaderTruth& header = state.truth.header;
  if (header.freeBlocks != state.truth.clearBits) {
    state.log.add(FindingKind::FreeBlocks, "The header counts %u free blocks, the bitmap %llu.",
                  header.freeBlocks, static_cast<unsigned long long>(state.truth.clearBits));
  }
}

}  // namespace volumecheck
