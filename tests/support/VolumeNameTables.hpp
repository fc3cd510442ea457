#pragma once

#include <cstdint>
#include <span>

namespace support {

/// Units `first`, `first` + `step`, … `last` fold to `folded`, `folded` + `step`, …; a `folded` of
/// 0 means that all of them are ignored in comparisons.
struct FoldingRun {
  char16_t first;
  char16_t last;
  char16_t step;
  char16_t folded;
};

/// Units `first` to `last` are combining marks of one canonical class.
struct CombiningRun {
  char16_t first;
  char16_t last;
  uint8_t combiningClass;
};

/// The published HFS Plus case folding, ascending.
std::span<const FoldingRun> foldingRuns();

/// Canonical combining classes, ascending; units outside all runs have class 0.
std::span<const CombiningRun> combiningRuns();

/// Canonical decompositions as a flat list of entries (unit, length, that many units), ascending.
/// Hangul syllables are not in it: they decompose by arithmetic.
std::span<const char16_t> decompositionEntries();

}  // namespace support
