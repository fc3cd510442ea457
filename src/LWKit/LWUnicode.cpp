#include "LWKit/LWUnicode.hpp"

#include <cstdint>

namespace {

constexpr char32_t kReplacementCharacter = 0xFFFD;

bool isHighSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xD800;
}
bool isLowSurrogate(char16_t unit) {
  return (unit & 0xFC00) == 0xDC00;
}

uint8_t byteAt(std::string_view text, size_t index) {
  return static_cast<uint8_t>(text[index]);
}

/// The character of a well-formed sequence.
char32_t decode(std::string_view sequence) {
  const uint8_t lead = byteAt(sequence, 0);
  if (sequence.size() == 1) {
    return lead;
  }
  char32_t character = lead & (0x7FU >> sequence.size());
  for (size_t index = 1; index < sequence.size(); ++index) {
    character = (character << 6) | (byteAt(sequence, index) & 0x3FU);
  }
  return character;
}

void appendUTF8(std::string& text, char32_t character) {
  const auto tail = [&](unsigned shift) {
    text += static_cast<char>(0x80U | ((character >> shift) & 0x3FU));
  };
  if (character < 0x80) {
    text += static_cast<char>(character);
  } else if (character < 0x800) {
    text += static_cast<char>(0xC0U | (character >> 6));
    tail(0);
  } else if (character < 0x10000) {
    text += static_cast<char>(0xE0U | (character >> 12));
    tail(6);
    tail(0);
  } else {
    text += static_cast<char>(0xF0U | (character >> 18));
    tail(12);
    tail(6);
    tail(0);
  }
}

}  // namespace

size_t LWUTF8SequenceLength(std::string_view text) {
  if (text.empty()) {
    return 0;
  }
  const uint8_t lead = byteAt(text, 0);
  if (lead < 0x80) {
    return 1;
  }
  if (lead < 0xC2 || lead > 0xF4) {
    return 0;
  }
  const size_t length = lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  if (text.size() < length) {
    return 0;
  }
  // The second byte excludes overlong forms, surrogates and values beyond U+10FFFF.
  const uint8_t least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const uint8_t most = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (byteAt(text, 1) < least || byteAt(text, 1) > most) {
    return 0;
  }
  for (size_t index = 2; index < length; ++index) {
    if ((byteAt(text, index) & 0xC0) != 0x80) {
      return 0;
    }
  }
  return length;
}

bool LWIsUTF8(std::string_view text) {
  while (!text.empty()) {
    const size_t length = LWUTF8SequenceLength(text);
    if (length == 0) {
      return false;
    }
    text.remove_prefix(length);
  }
  return true;
}

std::optional<std::u16string> LWUTF16FromUTF8(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  while (!text.empty()) {
    const size_t length = LWUTF8SequenceLength(text);
    if (length == 0) {
      return std::nullopt;
    }
    const char32_t character = decode(text.substr(0, length));
    if (character < 0x10000) {
      units += static_cast<char16_t>(character);
    } else {
      units += static_cast<char16_t>(0xD800 + ((character - 0x10000) >> 10));
      units += static_cast<char16_t>(0xDC00 + ((character - 0x10000) & 0x3FF));
    }
    text.remove_prefix(length);
  }
  return units;
}

std::string LWUTF8FromUTF16(std::u16string_view units) {
  std::string text;
  text.reserve(units.size());
  for (size_t index = 0; index < units.size(); ++index) {
    const char16_t unit = units[index];
    if (isHighSurrogate(unit) && index + 1 < units.size() && isLowSurrogate(units[index + 1])) {
      ++index;
      appendUTF8(text, 0x10000 + ((unit & 0x3FFU) << 10) + (units[index] & 0x3FFU));
    } else {
      const bool isLone = isHighSurrogate(unit) || isLowSurrogate(unit);
      appendUTF8(text, isLone ? kReplacementCharacter : char32_t(unit));
    }
  }
  return text;
}
