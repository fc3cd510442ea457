#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <vector>

// Bytes with their zeros left out, for what consists of them by half and has to be written twice.
//
// Packed, every eight bytes are a mask, whose bit i tells that byte i is not zero, and then those
// bytes in their order. Less than eight bytes at the end count as filled up with zeros.

/// The most that the packed form of so many bytes takes. Bytes.
constexpr size_t LWPackedZerosMaxBytes(size_t bytes) {
  return (bytes + 7) / 8 * 9;
}

/// Appends the packed form of `bytes`.
void LWPackZeros(std::span<const std::byte> bytes, std::vector<std::byte>& packed);

/// Fills `bytes` from the front of `packed` and returns what is left of that; nothing when it is no
/// packed form of so many bytes.
[[nodiscard]] std::optional<std::span<const std::byte>> LWUnpackZeros(
    std::span<const std::byte> packed, std::span<std::byte> bytes);
