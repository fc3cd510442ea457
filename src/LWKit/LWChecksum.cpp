#include "LWKit/LWChecksum.hpp"

#include <array>
#include <bit>
#include <cstring>

namespace {

constexpr uint64_t kPolynomial = 0xC96C5795D7870F42;  // reflected
constexpr size_t kSlices = 16;

using Tables = std::array<std::array<uint64_t, 256>, kSlices>;

/// Table k gives what a byte does to the state once k more bytes have followed it.
constexpr Tables makeTables() {
  Tables tables{};
  for (uint64_t byte = 0; byte < 256; ++byte) {
    uint64_t value = byte;
    for (int bit = 0; bit < 8; ++bit) {
      value = (value >> 1) ^ ((value & 1) ? kPolynomial : 0);
    }
    tables[0][byte] = value;
  }
  for (size_t slice = 1; slice < kSlices; ++slice) {
    for (size_t byte = 0; byte < 256; ++byte) {
      const uint64_t previous = tables[slice - 1][byte];
      tables[slice][byte] = (previous >> 8) ^ tables[0][previous & 0xFF];
    }
  }
  return tables;
}

constexpr Tables kTables = makeTables();

}  // namespace

void LWChecksum::add(std::span<const std::byte> bytes) {
  static_assert(std::endian::native == std::endian::little);
  uint64_t state = _state;
  while (bytes.size() >= kSlices) {
    std::array<uint64_t, kSlices / sizeof(uint64_t)> words;
    std::memcpy(words.data(), bytes.data(), sizeof words);
    words[0] ^= state;
    state = 0;
    for (size_t i = 0; i < kSlices; ++i) {
      state ^= kTables[kSlices - 1 - i][(words[i / 8] >> (8 * (i % 8))) & 0xFF];
    }
    bytes = bytes.subspan(kSlices);
  }
  for (const std::byte byte : bytes) {
    state = (state >> 8) ^ kTables[0][(state ^ static_cast<uint64_t>(byte)) & 0xFF];
  }
  _state = state;
}

uint64_t LWChecksum::of(std::span<const std::byte> bytes) {
  LWChecksum checksum;
  checksum.add(bytes);
  return checksum.value();
}
