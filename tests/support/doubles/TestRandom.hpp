#pragma once

#include <cstdint>
#include <cstdlib>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <vector>

/// 32 random bits a call, the same everywhere for the same seed.
class TestRandom {
 public:
  explicit TestRandom(uint32_t seed) : _engine(seed) {}
  uint32_t operator()() { return static_cast<uint32_t>(_engine()); }

 private:
  std::mt19937 _engine;
};

/// The number in an environment variable by which a test can be asked for more.
inline uint64_t numberFromEnvironment(const char* name, uint64_t otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

/// The seed that XRDEFRAG_TEST_SEED asks for, so that what failed can be drawn again.
inline std::optional<uint32_t> givenTestSeed() {
  const char* given = std::getenv("XRDEFRAG_TEST_SEED");
  return given != nullptr ? std::optional(static_cast<uint32_t>(std::strtoul(given, nullptr, 10)))
                          : std::nullopt;
}

/// The seed of a test that draws anew in every run, or the one asked for.
inline uint32_t testSeed() {
  const auto given = givenTestSeed();
  return given ? *given : std::random_device{}();
}

/// The seeds from 1 to `count`, or the one asked for.
inline std::vector<uint32_t> testSeeds(uint32_t count) {
  if (const auto given = givenTestSeed()) {
    return {*given};
  }
  std::vector<uint32_t> seeds(count);
  std::iota(seeds.begin(), seeds.end(), 1);
  return seeds;
}

/// What a failure's trace says of a seed.
inline std::string seedText(uint32_t seed) {
  return "XRDEFRAG_TEST_SEED=" + std::to_string(seed);
}
