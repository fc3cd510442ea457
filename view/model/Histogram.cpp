#include "model/Histogram.hpp"

#include <algorithm>
#include <bit>
#include <numeric>

#include "base/Text.hpp"

namespace view {

void Histogram::add(uint64_t value) {
  if (value > 0) {
    ++_counts[std::min<size_t>(static_cast<size_t>(std::bit_width(value - 1)), kClasses - 1)];
  }
}

size_t Histogram::usedClasses() const {
  size_t used = kClasses;
  while (used > 0 && _counts[used - 1] == 0) {
    --used;
  }
  return used;
}

uint64_t Histogram::total() const {
  return std::accumulate(_counts.begin(), _counts.end(), uint64_t{0});
}

std::string Histogram::label(size_t magnitude) {
  if (magnitude == 0) {
    return "1";
  }
  const uint64_t most = uint64_t{1} << magnitude;
  const uint64_t least = most / 2 + 1;
  return least == most ? prettyCount(most) : prettyCount(least) + "–" + prettyCount(most);
}

}  // namespace view
