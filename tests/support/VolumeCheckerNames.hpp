#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "support/VolumeCheckerBytes.hpp"

namespace volumecheck {

// The name of `count` big-endian UTF-16 units.
std::u16string nameFrom(Bytes bytes, std::size_t offset, std::size_t count);

// The published case-insensitive name order: negative, zero or positive.
int compareFolded(std::u16string_view left, std::u16string_view right);
// The order of names as plain unsigned units.
int compareBinary(std::u16string_view left, std::u16string_view right);

// True when the name is stored as the format demands: no unit that decomposes further, combining
// marks in canonical order.
bool isDecomposed(std::u16string_view name);

// UTF-8, with unpaired surrogates as three bytes of their own and "/" shown as ":".
std::string displayName(std::u16string_view name);

}  // namespace volumecheck
