#include "HFSPlus/HFSPlusBlockRanges.hpp"

#include <algorithm>

void HFSPlusBlockRanges::add(uint64_t begin, uint64_t count) {
  if (count == 0) {
    return;
  }
  uint64_t end = begin + count;
  auto next = _ranges.upper_bound(begin);
  if (next != _ranges.begin() && std::prev(next)->second >= begin) {
    --next;
    begin = next->first;
  }
  while (next != _ranges.end() && next->first <= end) {
    end = std::max(end, next->second);
    next = _ranges.erase(next);
  }
  _ranges.emplace_hint(next, begin, end);
}

std::optional<HFSPlusBlockRanges::Range> HFSPlusBlockRanges::firstOverlap(uint64_t begin,
                                                                          uint64_t count) const {
  auto range = _ranges.upper_bound(begin);
  if (range != _ranges.begin() && std::prev(range)->second > begin) {
    --range;
  }
  if (count == 0 || range == _ranges.end() || range->first >= begin + count) {
    return std::nullopt;
  }
  return Range{range->first, range->second};
}

bool HFSPlusBlockRanges::contains(uint64_t begin, uint64_t count) const {
  const auto range = firstOverlap(begin, count);
  return count == 0 || (range && range->begin <= begin && range->end >= begin + count);
}
