#include "LWKit/LWZeroPacking.hpp"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

namespace {

constexpr size_t kGroupBytes = 8;

/// Puts every byte to where it goes when those before it that are zero are left out; the next one
/// that is not zero takes a zero's place. Zeros come in rows of groups, which are guessed well;
/// guessing which bytes of other groups are zero would cost more than putting them all.
std::byte* putGroup(std::byte* out, uint64_t group) {
  if (group == 0) {
    *out = std::byte{0};
    return out + 1;
  }
  constexpr uint64_t kOnes = 0x0101010101010101;
  // One in every byte that is not zero: adding 127 carries into the uppermost bit.
  const uint64_t counts = ((((group & 127 * kOnes) + 127 * kOnes) | group) >> 7) & kOnes;
  // Byte i moves its bit to bit 56 + i.
  *out++ = static_cast<std::byte>((counts * 0x0102040810204080) >> 56);
  const uint64_t countsUpTo = counts * kOnes;
  const uint64_t places = countsUpTo << 8;
  for (unsigned i = 0; i < kGroupBytes; ++i) {
    out[places >> (8 * i) & 0xFF] = static_cast<std::byte>(group >> (8 * i));
  }
  return out + (countsUpTo >> 56);
}

}  // namespace

void LWPackZeros(std::span<const std::byte> bytes, std::vector<std::byte>& packed) {
  static_assert(std::endian::native == std::endian::little);
  const size_t before = packed.size();
  packed.resize(before + LWPackedZerosMaxBytes(bytes.size()));
  std::byte* out = packed.data() + before;
  uint64_t group = 0;
  while (bytes.size() >= kGroupBytes) {
    std::memcpy(&group, bytes.data(), kGroupBytes);
    out = putGroup(out, group);
    bytes = bytes.subspan(kGroupBytes);
  }
  if (!bytes.empty()) {
    group = 0;
    std::memcpy(&group, bytes.data(), bytes.size());
    out = putGroup(out, group);
  }
  packed.resize(static_cast<size_t>(out - packed.data()));
}

std::optional<std::span<const std::byte>> LWUnpackZeros(std::span<const std::byte> packed,
                                                        std::span<std::byte> bytes) {
  while (!bytes.empty()) {
    const size_t size = std::min(kGroupBytes, bytes.size());
    if (packed.empty()) {
      return std::nullopt;
    }
    const auto mask = static_cast<uint8_t>(packed.front());
    packed = packed.subspan(1);
    if (static_cast<size_t>(std::bit_width(mask)) > size ||
        static_cast<size_t>(std::popcount(mask)) > packed.size()) {
      return std::nullopt;
    }
    for (size_t i = 0; i < size; ++i) {
      const bool stayed = (mask >> i & 1) != 0;
      bytes[i] = stayed ? packed.front() : std::byte{0};
      packed = packed.subspan(stayed ? 1 : 0);
    }
    bytes = bytes.subspan(size);
  }
  return packed;
}
