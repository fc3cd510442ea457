#pragma once

#include <cstdint>
#include <random>
#include <string>

#include "support/doubles/TestRandom.hpp"

/// Random numbers for tests: another seed in every run, or the one in XRDEFRAG_TEST_SEED. A test
/// says SCOPED_TRACE(random.seedText()), so that a failure tells how to get it again.
class SeededRandom {
 public:
  SeededRandom() : _seed(testSeed()), _engine(_seed) {}

  std::string seedText() const { return ::seedText(_seed); }
  /// Below `limit`, which is not 0.
  uint32_t below(uint32_t limit) { return static_cast<uint32_t>(_engine() % limit); }
  /// Once in `n` times.
  bool oneIn(uint32_t n) { return below(n) == 0; }
  std::mt19937& engine() { return _engine; }

 private:
  uint32_t _seed;
  std::mt19937 _engine;
};
