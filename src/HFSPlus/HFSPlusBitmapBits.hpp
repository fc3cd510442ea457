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

/// Eight bytes of the bitmap from a multiple of eight on, the first bit on top; bytes that a bitmap
/// of odd length lacks count as zero.
[[nodiscard]] uint64_t HFSPlusBitmapWord(std::span<const std::byte> bitmap, uint64_t word);
