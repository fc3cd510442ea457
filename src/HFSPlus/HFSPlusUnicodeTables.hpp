#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// The format's Unicode tables, as tools/unicode/generate_unicode_tables.py packs them. Only
// HFSPlusUnicode and HFSPlusNameCompare look inside; ask them.

/// For each high byte the page, counted from 1, of kHFSPlusFoldedUnits that holds the folded unit
/// for each low byte; 0 for a high byte whose units fold to themselves.
extern const std::array<uint8_t, 256> kHFSPlusFoldPages;
extern const uint16_t kHFSPlusFoldedUnits[];

/// Neighbouring units of one combining class, ascending.
struct HFSPlusCombiningRun {
  uint16_t first;
  uint16_t last;
  uint8_t combiningClass;
};
extern const HFSPlusCombiningRun kHFSPlusCombiningRuns[];
extern const size_t kHFSPlusCombiningRunCount;

/// A unit and where its decomposition lies in kHFSPlusDecomposedUnits; ascending by unit.
struct HFSPlusDecomposition {
  uint16_t unit;
  uint16_t start;
  uint8_t length;
};
extern const HFSPlusDecomposition kHFSPlusDecompositions[];
extern const size_t kHFSPlusDecompositionCount;
extern const char16_t kHFSPlusDecomposedUnits[];
