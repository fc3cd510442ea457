#pragma once

#include <cstdint>
#include <map>
#include <optional>

/// A set of allocation blocks, kept as ranges that neither touch nor overlap.
class HFSPlusBlockRanges {
 public:
  /// A half-open range of blocks.
  struct Range {
    uint64_t begin;
    uint64_t end;
  };

  /// Adds blocks, which may be in the set already.
  void add(uint64_t begin, uint64_t count);

  /// The lowest range of the set that has a block in [begin, begin + count).
  [[nodiscard]] std::optional<Range> firstOverlap(uint64_t begin, uint64_t count) const;

  /// Whether every block of [begin, begin + count) is in the set.
  [[nodiscard]] bool contains(uint64_t begin, uint64_t count) const;

  void clear() { _ranges.clear(); }
  bool empty() const { return _ranges.empty(); }

 private:
  std::map<uint64_t, uint64_t> _ranges;  // begin to end
};
