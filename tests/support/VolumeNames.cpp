#include "support/VolumeNames.hpp"

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "support/VolumeNameTables.hpp"

namespace support {

namespace {

constexpr size_t kUnitCount = 0x10000;

struct NameTables {
  std::array<char16_t, kUnitCount> folded;
  std::array<uint8_t, kUnitCount> combiningClass;
  // Position of the unit's entry in the decomposition list, plus one; 0 for units that stay.
  std::array<uint16_t, kUnitCount> decomposition;
};

std::unique_ptr<NameTables> expandedTables() {
  auto tables = std::make_unique<NameTables>();
  for (size_t unit = 0; unit < kUnitCount; ++unit)
    tables->folded[unit] = static_cast<char16_t>(unit);
  for (const FoldingRun& run : foldingRuns()) {
    for (uint32_t unit = run.first; unit <= run.last; unit += run.step) {
      const auto to = static_cast<char16_t>(run.folded + (unit - run.first));
      tables->folded[unit] = run.folded == 0 ? u'\0' : to;
    }
  }
  tables->combiningClass.fill(0);
  for (const CombiningRun& run : combiningRuns()) {
    for (uint32_t unit = run.first; unit <= run.last; ++unit)
      tables->combiningClass[unit] = run.combiningClass;
  }
  tables->decomposition.fill(0);
  const auto entries = decompositionEntries();
  for (size_t at = 0; at < entries.size(); at += 2 + static_cast<size_t>(entries[at + 1]))
    tables->decomposition[entries[at]] = static_cast<uint16_t>(at + 1);
  return tables;
}

const NameTables& tables() {
  static const std::unique_ptr<NameTables> shared = expandedTables();
  return *shared;
}

void appendCodePoint(std::u16string& units, uint32_t codePoint) {
  if (codePoint >= 0x10000) {
    units.push_back(static_cast<char16_t>(0xD800 + ((codePoint - 0x10000) >> 10)));
    units.push_back(static_cast<char16_t>(0xDC00 + ((codePoint - 0x10000) & 0x3FF)));
  } else {
    units.push_back(static_cast<char16_t>(codePoint));
  }
}

// Malformed input only comes from a mistake in a test; it becomes U+FFFD and shows up there.
std::u16string unitsFromUtf8(std::string_view utf8) {
  std::u16string units;
  for (size_t at = 0; at < utf8.size();) {
    const auto lead = static_cast<uint8_t>(utf8[at++]);
    const int tail = lead < 0x80 ? 0 : lead < 0xC0 ? -1 : lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : 3;
    uint32_t codePoint = tail == 0 ? lead : lead & (0x3Fu >> std::max(tail, 0));
    for (int i = 0; i < tail && at < utf8.size(); ++i)
      codePoint = codePoint << 6 | (static_cast<uint8_t>(utf8[at++]) & 0x3F);
    appendCodePoint(units, tail < 0 ? 0xFFFD : codePoint);
  }
  return units;
}

void appendHangul(std::u16string& units, char16_t syllable) {
  const uint32_t index = syllable - 0xAC00u;
  units.push_back(static_cast<char16_t>(0x1100 + index / (21 * 28)));
  units.push_back(static_cast<char16_t>(0x1161 + index % (21 * 28) / 28));
  if (index % 28 != 0)
    units.push_back(static_cast<char16_t>(0x11A7 + index % 28));
}

// Brings the marks after every base unit into the order of their classes.
void orderMarks(std::u16string& units) {
  const auto classOf = [](char16_t unit) { return tables().combiningClass[unit]; };
  for (size_t first = 0; first < units.size();) {
    size_t last = first;
    while (last < units.size() && classOf(units[last]) != 0)
      ++last;
    std::stable_sort(units.begin() + static_cast<std::ptrdiff_t>(first),
                     units.begin() + static_cast<std::ptrdiff_t>(last),
                     [&](char16_t a, char16_t b) { return classOf(a) < classOf(b); });
    first = last + 1;
  }
}

}  // namespace

std::u16string storedName(std::string_view utf8) {
  std::u16string stored;
  for (const char16_t unit : unitsFromUtf8(utf8)) {
    const uint16_t entry = tables().decomposition[unit];
    if (unit >= 0xAC00 && unit <= 0xD7A3) {
      appendHangul(stored, unit);
    } else if (entry != 0) {
      const auto entries = decompositionEntries().subspan(entry - 1u);
      stored.append(entries.data() + 2, entries[1]);
    } else {
      stored.push_back(unit);
    }
  }
  orderMarks(stored);
  return stored;
}

std::string utf8FromUnits(std::u16string_view units) {
  std::string utf8;
  for (size_t at = 0; at < units.size(); ++at) {
    uint32_t codePoint = units[at];
    const bool high = (codePoint & 0xFC00) == 0xD800;
    if (high && at + 1 < units.size() && (units[at + 1] & 0xFC00) == 0xDC00)
      codePoint = 0x10000 + ((codePoint & 0x3FF) << 10) + (units[++at] & 0x3FFu);
    else if ((codePoint & 0xF800) == 0xD800)
      codePoint = 0xFFFD;
    const int tail = codePoint < 0x80 ? 0 : codePoint < 0x800 ? 1 : codePoint < 0x10000 ? 2 : 3;
    const uint32_t mark = tail == 0 ? 0 : 0xFF00u >> (tail + 1) & 0xFF;
    utf8.push_back(static_cast<char>(mark | codePoint >> (6 * tail)));
    for (int i = tail - 1; i >= 0; --i)
      utf8.push_back(static_cast<char>(0x80 | (codePoint >> (6 * i) & 0x3F)));
  }
  return utf8;
}

int compareNamesFolded(std::u16string_view a, std::u16string_view b) {
  const auto& folded = tables().folded;
  for (size_t i = 0, j = 0;;) {
    char16_t left = 0;
    char16_t right = 0;
    while (left == 0 && i < a.size())
      left = folded[a[i++]];
    while (right == 0 && j < b.size())
      right = folded[b[j++]];
    if (left != right)
      return left < right ? -1 : 1;
    if (left == 0)
      return 0;
  }
}

int compareNamesBinary(std::u16string_view a, std::u16string_view b) {
  return a.compare(b);
}

}  // namespace support
