#include "base/Text.hpp"

#include <wchar.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace view {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

bool isContinuation(std::string_view text, size_t index) {
  return index < text.size() && (static_cast<unsigned char>(text[index]) & 0xC0) == 0x80;
}

/// Length of the sequence that a lead byte announces; 0 for a byte that is none.
size_t announcedLength(unsigned char lead) {
  if (lead < 0x80) {
    return 1;
  }
  if (lead < 0xC2 || lead > 0xF4) {
    return 0;
  }
  return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

bool isScalar(char32_t code, size_t bytes) {
  constexpr std::array<char32_t, 5> kLeast = {0, 0, 0x80, 0x800, 0x10000};
  return code >= kLeast[bytes] && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
}

/// Characters without a shape of their own, or with power over their neighbours' order.
bool isTreacherous(char32_t code) {
  return code == 0xAD || code == 0x61C || code == 0x180E || (code >= 0x200B && code <= 0x200F) ||
         (code >= 0x2028 && code <= 0x202E) || (code >= 0x2060 && code <= 0x206F) ||
         code == 0xFEFF || (code >= 0xFFF0 && code <= 0xFFFB) || (code & 0xFFFE) == 0xFFFE ||
         (code >= 0xFDD0 && code <= 0xFDEF) || (code >= 0xE0000 && code <= 0xE0FFF);
}

/// Columns of one character; one for what the C library knows nothing of.
size_t columnsOf(char32_t code) {
  const int columns = ::wcwidth(static_cast<wchar_t>(code));
  return columns < 0 ? 1 : static_cast<size_t>(columns);
}

/// The longest beginning of `text` that takes at most `columns`.
std::string_view beginning(std::string_view text, size_t columns) {
  size_t end = 0;
  size_t used = 0;
  while (end < text.size()) {
    const Character next = firstCharacter(text.substr(end));
    used += columnsOf(next.code);
    if (used > columns) {
      break;
    }
    end += next.bytes;
  }
  return text.substr(0, end);
}

/// The longest ending of `text` that takes at most `columns`.
std::string_view ending(std::string_view text, size_t columns) {
  size_t start = 0;
  size_t left = displayWidth(text);
  while (left > columns) {
    const Character next = firstCharacter(text.substr(start));
    left -= columnsOf(next.code);
    start += next.bytes;
  }
  return text.substr(start);
}

char lowered(char byte) {
  return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte;
}

template <typename... Values>
std::string printed(const char* format, Values... values) {
  std::array<char, 64> buffer = {};
  std::snprintf(buffer.data(), buffer.size(), format, values...);
  return buffer.data();
}

template <typename Number>
bool parseWhole(std::string_view text, Number& number) {
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end && !text.empty();
}

}  // namespace

Character firstCharacter(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text.front());
  const size_t length = announcedLength(lead);
  if (length == 1) {
    return {lead, 1};
  }
  if (length == 0) {
    return {kReplacement, 1};
  }
  char32_t code = lead & (0x7FU >> length);
  for (size_t index = 1; index < length; ++index) {
    if (!isContinuation(text, index)) {
      return {kReplacement, 1};
    }
    code = code << 6 | (static_cast<unsigned char>(text[index]) & 0x3FU);
  }
  return isScalar(code, length) ? Character{code, length} : Character{kReplacement, 1};
}

void appendCharacter(std::string& text, char32_t code) {
  const auto put = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
  if (code < 0x80) {
    put(code);
  } else if (code < 0x800) {
    put(0xC0 | code >> 6);
    put(0x80 | (code & 0x3F));
  } else if (code < 0x10000) {
    put(0xE0 | code >> 12);
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  } else {
    put(0xF0 | code >> 18);
    put(0x80 | (code >> 12 & 0x3F));
    put(0x80 | (code >> 6 & 0x3F));
    put(0x80 | (code & 0x3F));
  }
}

std::string visibleText(std::string_view text) {
  std::string shown;
  shown.reserve(text.size());
  while (!text.empty()) {
    const Character next = firstCharacter(text);
    text.remove_prefix(next.bytes);
    if (next.code < 0x20) {
      appendCharacter(shown, 0x2400 + next.code);
    } else if (next.code == 0x7F) {
      appendCharacter(shown, 0x2421);
    } else if (next.code < 0xA0 && next.code >= 0x80) {
      shown += printed("⟨%02X⟩", static_cast<unsigned>(next.code));
    } else if (isTreacherous(next.code)) {
      shown += printed("⟨%04X⟩", static_cast<unsigned>(next.code));
    } else {
      appendCharacter(shown, next.code);
    }
  }
  return shown;
}

std::string visibleLines(std::string_view text) {
  std::string shown;
  for (size_t newline = text.find('\n'); newline != std::string_view::npos;
       newline = text.find('\n')) {
    shown += visibleText(text.substr(0, newline)) + "\n";
    text.remove_prefix(newline + 1);
  }
  return shown + visibleText(text);
}

size_t displayWidth(std::string_view text) {
  size_t columns = 0;
  while (!text.empty()) {
    const Character next = firstCharacter(text);
    columns += columnsOf(next.code);
    text.remove_prefix(next.bytes);
  }
  return columns;
}

std::string fitEnd(std::string_view text, size_t columns) {
  if (displayWidth(text) <= columns) {
    return std::string(text);
  }
  return columns == 0 ? std::string() : std::string(beginning(text, columns - 1)) + "…";
}

std::string fitMiddle(std::string_view text, size_t columns) {
  if (displayWidth(text) <= columns) {
    return std::string(text);
  }
  if (columns < 8) {
    return fitEnd(text, columns);
  }
  const size_t front = (columns - 1) / 3;
  std::string fitted(beginning(text, front));
  fitted += "…";
  fitted += ending(text, columns - 1 - front);
  return fitted;
}

std::string asciiText(std::string_view text) {
  std::string plain;
  plain.reserve(text.size());
  while (!text.empty()) {
    const Character next = firstCharacter(text);
    text.remove_prefix(next.bytes);
    if (next.code < 0x80) {
      plain.push_back(static_cast<char>(next.code));
    } else if (next.code >= 0x2400 && next.code < 0x2420) {
      plain += {'^', static_cast<char>('@' + (next.code - 0x2400))};
    } else {
      switch (next.code) {
        case U'…':
          plain += "...";
          break;
        case U'·':
          plain += '-';
          break;
        case U'→':
          plain += "->";
          break;
        case U'–':
        case U'—':
          plain += '-';
          break;
        case U'⟨':
          plain += '<';
          break;
        case U'⟩':
          plain += '>';
          break;
        default:
          plain += '?';
          break;
      }
    }
  }
  return plain;
}

bool containsIgnoringCase(std::string_view text, std::string_view part) {
  if (part.size() > text.size()) {
    return false;
  }
  for (size_t start = 0; start + part.size() <= text.size(); ++start) {
    size_t same = 0;
    while (same < part.size() && lowered(text[start + same]) == lowered(part[same])) {
      ++same;
    }
    if (same == part.size()) {
      return true;
    }
  }
  return false;
}

std::string prettyCount(uint64_t count) {
  std::string digits = std::to_string(count);
  for (size_t place = digits.size(); place > 3;) {
    place -= 3;
    digits.insert(place, 1, ',');
  }
  return digits;
}

std::string prettyBytes(uint64_t bytes) {
  constexpr std::array kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) {
    return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
  }
  double amount = static_cast<double>(bytes) / 1024;
  size_t unit = 0;
  while (amount >= 1023.5 && unit + 1 < kUnits.size()) {
    amount /= 1024;
    ++unit;
  }
  return printed(amount < 9.95 ? "%.1f %s" : "%.0f %s", amount, kUnits[unit]);
}

std::string prettyShare(uint64_t part, uint64_t whole) {
  const double share =
      whole == 0 ? 0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
  if (part < whole) {
    return printed("%.1f %%", std::min(share, 99.9));
  }
  return printed("%.1f %%", share);
}

std::string prettyDuration(double seconds) {
  constexpr double kTenthsBelow = 9.95;
  if (seconds < kTenthsBelow) {
    return printed("%.1f s", std::max(0.0, seconds));
  }
  const auto whole = static_cast<unsigned long long>(std::llround(std::max(0.0, seconds)));
  if (whole < 60) {
    return printed("%llu s", whole);
  }
  if (whole < 3600) {
    return printed("%llu min %02llu s", whole / 60, whole % 60);
  }
  return printed("%llu h %02llu min", whole / 3600, whole / 60 % 60);
}

bool parseNumber(std::string_view text, uint64_t& number) {
  return parseWhole(text, number);
}

bool parseNumber(std::string_view text, int64_t& number) {
  return parseWhole(text, number);
}

}  // namespace view
