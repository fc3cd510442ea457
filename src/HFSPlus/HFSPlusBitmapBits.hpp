#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

// Ranges of bits in a bitmap whose first bit is the most significant one of its first byte, taken
// 64 at a time. Ranges must lie in the bitmap.

/// Sets (clears) bits; answers how many of them changed.
uint64_t HFSPlusSetBits(std::span<std::byte> bitmap, uint64_t first, uint64_t count);
uint64_t HFSPlusClearBits(std::span<std::byte> bitmap, uint64_t first, uint64_t count);

/// The number of set (clear) bits in a row from the first of the range on.
[[nodiscard]] uint64_t HFSPlusSetRun(std::span<const std::byte> bitmap, uint64_t first,
                                     uint64_t count);
[[nodiscard]] uint64_t HFSPlusClearRun(std::span<const std::byte> bitmap, uint64_t first,
                                       uint64_t count);

/// The number of set bits in the range.
[[nodiscard]] uint64_t HFSPlusCountSetBits(std::span<const std::byte> bitmap, uint64_t first,
                                           uint64_t count);

/// The last set bit below `count`.
[[nodiscard]] std::optional<uint64_t> HFSPlusLastSetBit(std::span<const std::byte> bitmap,
                                                        uint64_t count);

/// The number of set bits of a word, without the call that std::popcount() is where a processor may
/// lack an instruction for it.
[[nodiscard]] constexpr uint32_t HFSPlusCountBits(uint64_t word) {
  word -= word >> 1 & 0x5555555555555555;
  word = (word & 0x3333333333333333) + (word >> 2 & 0x3333333333333333);
  word = (word + (word >> 4)) & 0x0F0F0F0F0F0F0F0F;
  return static_cast<uint32_t>(word * 0x0101010101010101 >> 56);
}

/// Eight bytes of the bitmap from a multiple of eight on, the first bit on top; bytes that a bitmap
/// of odd length lacks count as zero.
[[nodiscard]] uint64_t HFSPlusBitmapWord(std::span<const std::byte> bitmap, uint64_t word);
