#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/VolumeChecker.hpp"

/// DEFRAG and COMPACT as plainly as they can be written: where every block goes, worked out on
/// paper. It moves nothing, has no caches, no log and no care for speed, and shares no code with
/// the program, whose moves are held against it one by one.
///
/// It knows volumes whose map comes in one stretch, which have so much free space that every copy
/// zone can be had in full size, and whose extents file stays whole enough; on others it stops.
class ReferenceEngine {
 public:
  using ForkID = std::pair<uint32_t, uint8_t>;  // file ID, fork type
  struct Settings {
    bool compact = false;
    uint32_t bufferBlocks = 0;
    uint32_t firstDataBlock = 0;
    std::vector<ForkID> immovable{};
    std::vector<ForkID> profile{};  // in order; empty without one
  };
  struct Move {
    uint32_t percent, from, to, count;
    friend bool operator==(const Move&, const Move&) = default;
  };

  ReferenceEngine(const volumecheck::VolumeTruth& truth, Settings settings);

  /// Works the run out; false if that is not possible.
  bool run();

  /// The moves in the order in which they are told, evictions among them.
  const std::vector<Move>& moves() const { return _moves; }
  /// Whether a fork is among those that may be moved.
  bool knows(ForkID fork) const { return _forks.contains(fork); }
  /// Where such a fork ends up, in fork order.
  const std::vector<volumecheck::Extent>& extentsOf(ForkID fork) const { return _forks.at(fork); }
  /// Zones that had to be made free first.
  size_t evictions() const { return _evictions; }

 private:
  using Extents = std::vector<volumecheck::Extent>;
  enum class Kind { Immovable, Free, Data };
  struct Run {
    uint32_t start;
    uint32_t count;
    Kind kind;
    ForkID fork;
  };
  struct Piece {
    ForkID fork;
    uint32_t from, to, count;
  };

  void buildMap();
  std::vector<Run>::iterator runBehind(uint32_t block);
  void mark(uint32_t start, uint32_t count, Kind kind, ForkID fork);
  void release(uint32_t start, uint32_t count);
  void removeFront();
  uint32_t blocksOf(Kind kind) const;
  Extents extentsFrom(ForkID fork, uint32_t block) const;

  void skipWhatIsInPlace();
  bool isInPlace(const Run& run);
  uint32_t freeBlocksOfZone(uint32_t zone) const;
  bool evict(uint32_t zone);
  bool fill(uint32_t zone);
  std::optional<Piece> nextSource();
  std::optional<Piece> nextForCompact();
  std::optional<Piece> nextForDefrag();
  void took(uint32_t count);
  bool carryOut(bool counted);

  const volumecheck::VolumeTruth& _truth;
  Settings _settings;
  std::map<ForkID, Extents> _forks;  // those that may be moved
  std::vector<Run> _map;
  std::vector<Piece> _plan;
  std::vector<Move> _moves;
  uint64_t _expected = 0;
  uint64_t _skipped = 0;
  uint64_t _done = 0;
  size_t _evictions = 0;

  std::optional<Piece> _pending;  // what is left of the source at hand
  uint32_t _cursor = 0;           // compacting: where the next source is sought
  std::optional<ForkID> _fork;    // defragmenting: the fork being laid down
  Extents _extents;               // what is left of it to be laid down
  bool _extentsLoaded = false;
};
