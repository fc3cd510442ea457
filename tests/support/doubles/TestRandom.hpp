#pragma once

#include <cstdint>
#include <random>

/// 32 random bits a call, the same everywhere for the same seed.
class TestRandom {
 public:
  explicit TestRandom(uint32_t seed) : _engine(seed) {}
  uint32_t operator()() { return static_cast<uint32_t>(_engine()); }

 private:
  std::mt19937 _engine;
};
