#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// The R250 generator of Kirkpatrick and Stoll: a shift register of 250 words, cheap enough to be
/// asked once for every level of every skip-list node.
///
/// No lock: one generator belongs to one thread at a time.
class HFSPlusRandom {
 public:
  /// Fills the register from a minimal standard generator that starts at the seed.
  explicit HFSPlusRandom(uint32_t seed);

  /// The next 32 random bits.
  uint32_t next() {
    size_t other = _index + kDistance < kWords ? _index + kDistance : _index + kDistance - kWords;
    uint32_t word = _words[_index] ^= _words[other];
    _index = _index + 1 < kWords ? _index + 1 : 0;
    return word;
  }

  /// The process's generator, seeded from the clock on first use.
  static HFSPlusRandom& sharedRandom();

  /// The low bits of the monotonic clock, in nanoseconds.
  static uint32_t clockSeed();

 private:
  static constexpr size_t kWords = 250;
  static constexpr size_t kDistance = 103;

  std::array<uint32_t, kWords> _words;
  size_t _index = 0;
};
