#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Orders of names as they lie on disk: spans of big-endian UTF-16 units, two bytes a unit. Each
// answers negative, zero or positive as `a` comes before, with or after `b`.

/// Compares two names in disk order.
using HFSPlusNameComparison = int32_t (*)(std::span<const std::byte> a,
                                          std::span<const std::byte> b);

/// Compares without regard to case, and without the units that the format ignores (joiners and
/// direction marks); a name that is the beginning of the other one comes first.
[[nodiscard]] int32_t HFSPlusCompareNamesFolded(std::span<const std::byte> a,
                                                std::span<const std::byte> b);

/// Compares unit by unit; a name that is the beginning of the other one comes first.
[[nodiscard]] int32_t HFSPlusCompareNamesBinary(std::span<const std::byte> a,
                                                std::span<const std::byte> b);
