#include "HFSPlus/HFSPlusUnicode.hpp"

#include <algorithm>
#include <span>

#include "HFSPlus/HFSPlusUnicodeTables.hpp"

namespace {

// Hangul syllables are numbered so that their parts can be computed.
constexpr char16_t kFirstSyllable = 0xAC00;
constexpr char16_t kLastSyllable = 0xD7A3;
constexpr char16_t kFirstLeadingConsonant = 0x1100;
constexpr char16_t kFirstVowel = 0x1161;
constexpr char16_t kNoTrailingConsonant = 0x11A7;
constexpr unsigned kVowels = 21;
constexpr unsigned kTrailingConsonants = 28;  // counting none as one

void appendSyllable(std::u16string& text, char16_t syllable) {
  const unsigned index = syllable - kFirstSyllable;
  const unsigned trailing = index % kTrailingConsonants;
  const unsigned vowel = index / kTrailingConsonants % kVowels;
  const unsigned leading = index / kTrailingConsonants / kVowels;
  text += static_cast<char16_t>(kFirstLeadingConsonant + leading);
  text += static_cast<char16_t>(kFirstVowel + vowel);
  if (trailing != 0) {
    text += static_cast<char16_t>(kNoTrailingConsonant + trailing);
  }
}

void appendDecomposed(std::u16string& text, char16_t unit) {
  if (unit >= kFirstSyllable && unit <= kLastSyllable) {
    appendSyllable(text, unit);
    return;
  }
  const std::span table(kHFSPlusDecompositions, kHFSPlusDecompositionCount);
  const auto entry = std::ranges::lower_bound(table, unit, {}, &HFSPlusDecomposition::unit);
  if (entry != table.end() && entry->unit == unit) {
    text.append(kHFSPlusDecomposedUnits + entry->start, entry->length);
  } else {
    text += unit;
  }
}

/// Sorts every stretch of combining marks by class; marks of one class keep their order.
void orderMarks(std::u16string& text) {
  const auto keepsPlace = [](char16_t unit) { return HFSPlusCombiningClass(unit) == 0; };
  auto mark = std::ranges::find_if_not(text, keepsPlace);
  while (mark != text.end()) {
    const auto end = std::find_if(mark, text.end(), keepsPlace);
    std::stable_sort(mark, end, [](char16_t a, char16_t b) {
      return HFSPlusCombiningClass(a) < HFSPlusCombiningClass(b);
    });
    mark = std::find_if_not(end, text.end(), keepsPlace);
  }
}

}  // namespace

uint16_t HFSPlusFoldedUnit(uint16_t unit) {
  const size_t page = kHFSPlusFoldPages[unit >> 8];
  return page == 0 ? unit : kHFSPlusFoldedUnits[(page - 1) * 256 + (unit & 0xFF)];
}

uint8_t HFSPlusCombiningClass(uint16_t unit) {
  const std::span table(kHFSPlusCombiningRuns, kHFSPlusCombiningRunCount);
  const auto run = std::ranges::lower_bound(table, unit, {}, &HFSPlusCombiningRun::last);
  return run != table.end() && run->first <= unit ? run->combiningClass : uint8_t{0};
}

std::u16string HFSPlusDecomposedName(std::u16string_view text) {
  std::u16string decomposed;
  decomposed.reserve(text.size());
  for (const char16_t unit : text) {
    if (unit < 0x80) {
      decomposed += unit;
    } else {
      appendDecomposed(decomposed, unit);
    }
  }
  orderMarks(decomposed);
  return decomposed;
}
