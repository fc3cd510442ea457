#include "HFSPlus/HFSPlusNameText.hpp"

#include <cstdint>
#include <cstring>

#include "HFSPlus/HFSPlusByteOrder.hpp"

namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char kEscapedNUL[] = "\\xC0\\x80";
constexpr size_t kEscapedNULBytes = sizeof kEscapedNUL - 1;  // no other unit takes as many
constexpr size_t kUTF8BytesPerUnit = 3;

/// Writes the two to four bytes of a character beyond ASCII; answers where they end.
char* putUTF8(char* out, char32_t character) {
  const auto tail = [character](unsigned shift) {
    return static_cast<char>(0x80 | (character >> shift & 0x3F));
  };
  if (character < 0x800) {
    *out++ = static_cast<char>(0xC0 | character >> 6);
  } else {
    if (character < 0x10000) {
      *out++ = static_cast<char>(0xE0 | character >> 12);
    } else {
      *out++ = static_cast<char>(0xF0 | character >> 18);
      *out++ = tail(12);
    }
    *out++ = tail(6);
  }
  *out++ = tail(0);
  return out;
}

/// The character at a unit beyond ASCII; moves `unit` past all it takes.
char32_t takeCharacter(const std::byte*& unit, const std::byte* end) {
  const auto first = readBigEndian<uint16_t>(unit);
  unit += 2;
  if (first < 0xD800 || first > 0xDFFF) {
    return first;
  }
  if (first > 0xDBFF || unit == end) {
    return kReplacement;
  }
  const auto second = readBigEndian<uint16_t>(unit);
  if (second < 0xDC00 || second > 0xDFFF) {
    return kReplacement;
  }
  unit += 2;
  return 0x10000 + ((char32_t{first} & 0x3FF) << 10) + (second & 0x3FF);
}

/// Writes one ASCII character as report lines want it; answers where it ends.
char* putOutputSafe(char* out, char character) {
  if (character == '\0') {
    std::memcpy(out, kEscapedNUL, kEscapedNULBytes);
    return out + kEscapedNULBytes;
  }
  if (character == ',' || character == '\\') {
    *out++ = '\\';
  }
  *out++ = character;
  return out;
}

constexpr ptrdiff_t kUnitsAtOnceBytes = 8;

/// Whether one of four units, each below 0x80, is `character`. A unit that it is turns into zero,
/// and below.
uint64_t marksUnitsThatAre(uint64_t fourUnits, char character) {
  constexpr uint64_t kEachUnit = 0x0001000100010001;
  return (fourUnits ^ kEachUnit * static_cast<unsigned char>(character)) - kEachUnit;
}

/// Whether four units (the first one highest) are characters of ASCII that stand for themselves.
bool arePlain(uint64_t fourUnits) {
  constexpr uint64_t kHighestBits = 0x8000800080008000;
  constexpr uint64_t kBeyondASCII = 0xFF80FF80FF80FF80;
  const uint64_t marks = marksUnitsThatAre(fourUnits, '\0') | marksUnitsThatAre(fourUnits, ',') |
                         marksUnitsThatAre(fourUnits, '/') | marksUnitsThatAre(fourUnits, '\\');
  return ((fourUnits & kBeyondASCII) | (marks & kHighestBits)) == 0;
}

/// Writes four units as a character each.
char* putPlain(char* out, uint64_t fourUnits) {
  const uint64_t pairs = (fourUnits | fourUnits >> 8) & 0x0000FFFF0000FFFF;
  writeBigEndian(reinterpret_cast<std::byte*>(out), static_cast<uint32_t>(pairs | pairs >> 16));
  return out + 4;
}

template <bool outputSafe>
char* putName(char* out, std::span<const std::byte> units) {
  const std::byte* unit = units.data();
  const std::byte* const end = unit + units.size() / 2 * 2;
  while (unit != end) {
    if (end - unit >= kUnitsAtOnceBytes) {
      const auto four = readBigEndian<uint64_t>(unit);
      if (arePlain(four)) {
        out = putPlain(out, four);
        unit += kUnitsAtOnceBytes;
        continue;
      }
    }
    const auto value = readBigEndian<uint16_t>(unit);
    if (value >= 0x80) {
      out = putUTF8(out, takeCharacter(unit, end));
      continue;
    }
    unit += 2;
    const char character = value == '/' ? ':' : static_cast<char>(value);
    if constexpr (outputSafe) {
      out = putOutputSafe(out, character);
    } else {
      *out++ = character;
    }
  }
  return out;
}

}  // namespace

std::string HFSPlusNameString(std::span<const std::byte> units) {
  std::string text;
  text.resize_and_overwrite(units.size() / 2 * kUTF8BytesPerUnit, [units](char* out, size_t) {
    return static_cast<size_t>(putName<false>(out, units) - out);
  });
  return text;
}

size_t HFSPlusOutputSafeNameMaxBytes(std::span<const std::byte> units) {
  return units.size() / 2 * kEscapedNULBytes;
}

char* HFSPlusPutOutputSafeName(char* out, std::span<const std::byte> units) {
  return putName<true>(out, units);
}
