#include "HFSPlus/HFSPlusRandom.hpp"

#include <chrono>

namespace {

/// The minimal standard generator of Park and Miller.
class MinimalStandard {
 public:
  explicit MinimalStandard(uint32_t seed) : _state(seed % kModulus == 0 ? 1 : seed) {}

  uint32_t next() {
    if (_state <= kQuotient) {
      _state = _state * kMultiplier % kModulus;
    } else {
      int64_t test = kMultiplier * (_state % kQuotient) - kRemainder * (_state / kQuotient);
      _state = test > 0 ? test : test + kModulus;
    }
    return static_cast<uint32_t>(_state);
  }

 private:
  static constexpr int64_t kMultiplier = 16807;
  static constexpr int64_t kModulus = 2147483647;
  static constexpr int64_t kQuotient = kModulus / kMultiplier;
  static constexpr int64_t kRemainder = kModulus % kMultiplier;

  int64_t _state;  // 0 would stay 0
};

}  // namespace

HFSPlusRandom::HFSPlusRandom(uint32_t seed) {
  MinimalStandard source(seed);
  for (uint32_t& word : _words) {
    word = source.next();
  }
  for (uint32_t& word : _words) {
    if (source.next() > 0x40000000) {
      word |= 0x80000000;
    }
  }
  // 32 words that are linearly independent in their bits give the register its full period.
  uint32_t mask = 0xFFFFFFFF;
  uint32_t bit = 0x80000000;
  for (size_t k = 0; k < 32; ++k) {
    uint32_t& word = _words[3 + 7 * k];
    word = (word & mask) | bit;
    mask >>= 1;
    bit >>= 1;
  }
}

HFSPlusRandom& HFSPlusRandom::sharedRandom() {
  static HFSPlusRandom random(clockSeed());
  return random;
}

uint32_t HFSPlusRandom::clockSeed() {
  auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint32_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(now).count());
}
