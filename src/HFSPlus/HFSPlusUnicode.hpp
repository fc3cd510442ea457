#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// What the format asks of Unicode. It works on single UTF-16 units and on the tables of one fixed
// version of Unicode, so that a name keeps its bytes and its place in the catalog for ever; a
// library that follows newer versions would look for some names in the wrong place.

/// The unit that stands for `unit` when names are compared without regard to case; 0 for a unit
/// that such comparisons ignore.
[[nodiscard]] uint16_t HFSPlusFoldedUnit(uint16_t unit);

/// The class by which a combining mark takes its place among its neighbours; 0 for a unit that
/// keeps its place.
[[nodiscard]] uint8_t HFSPlusCombiningClass(uint16_t unit);

/// Text in the canonically decomposed form in which the format stores names: letters and Hangul
/// syllables taken apart, combining marks in the order of their classes.
[[nodiscard]] std::u16string HFSPlusDecomposedName(std::u16string_view text);
