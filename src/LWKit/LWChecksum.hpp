#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/// The CRC-64 of ECMA-182 in the reflected form that XZ uses, over bytes given in any number of
/// pieces: tells whether what was read is what was written.
class LWChecksum {
 public:
  void add(std::span<const std::byte> bytes);
  uint64_t value() const { return ~_state; }

  /// The checksum of one piece.
  static uint64_t of(std::span<const std::byte> bytes);

 private:
  uint64_t _state = ~uint64_t{0};
};
