#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace support {

/// One step of splitmix64: spreads any 64-bit value over all bits. Used directly where a value must
/// follow from a few numbers without any state.
constexpr uint64_t mixBits(uint64_t value) {
  value += 0x9E3779B97F4A7C15u;
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9u;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EBu;
  return value ^ (value >> 31);
}

/// A random generator whose sequence is the same with every library and machine, so that a seed
/// that a test prints makes the same volume everywhere.
class SeededRandom {
 public:
  explicit SeededRandom(uint64_t seed) : _state(mixBits(seed)) {}

  /// The next 64 random bits.
  uint64_t next() {
    _state += 0x9E3779B97F4A7C15u;
    return mixBits(_state);
  }

  /// A number from 0 to `limit` - 1; 0 when `limit` is 0.
  uint64_t below(uint64_t limit) { return limit == 0 ? 0 : next() % limit; }

  /// A number from `low` to `high`, both included.
  uint64_t between(uint64_t low, uint64_t high) { return low + below(high - low + 1); }

  /// True `percent` times in a hundred.
  bool chance(uint32_t percent) { return below(100) < percent; }

  /// A number from 0 up to, not including, 1.
  double fraction() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }

  template <typename T>
  void shuffle(std::vector<T>& items) {
    for (size_t i = items.size(); i > 1; --i)
      std::swap(items[i - 1], items[static_cast<size_t>(below(i))]);
  }

  template <typename T>
  const T& pick(const std::vector<T>& items) {
    return items[static_cast<size_t>(below(items.size()))];
  }

 private:
  uint64_t _state;
};

}  // namespace support
