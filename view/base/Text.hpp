#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace view {

/// One character of a UTF-8 text.
struct Character {
  char32_t code;  // U+FFFD for a byte that begins no well-formed sequence
  size_t bytes;   // at least 1
};

/// The character at the start of a text that is not empty.
Character firstCharacter(std::string_view text);

/// Appends a character in UTF-8.
void appendCharacter(std::string& text, char32_t code);

/// The text as it may be shown anywhere: well-formed UTF-8 in which whatever would steer a terminal
/// or reorder its neighbours stands as a visible sign: control characters as their pictures ("␛"),
/// characters that have no shape or change the direction as their code ("⟨202E⟩").
std::string visibleText(std::string_view text);

/// The same for a text of several lines, whose newlines stay.
std::string visibleLines(std::string_view text);

/// Columns that a visible text takes on a terminal.
size_t displayWidth(std::string_view text);

/// A visible text cut to at most `columns`, with "…" in place of what is missing at the end.
std::string fitEnd(std::string_view text, size_t columns);

/// The same with the middle missing, which leaves a path its beginning and its name.
std::string fitMiddle(std::string_view text, size_t columns);

/// A text without anything beyond ASCII, for terminals that have nothing else. The signs that this
/// program uses itself have a likeness; any other character becomes '?'.
std::string asciiText(std::string_view text);

/// Whether `text` holds `part`, where A to Z are the same as a to z.
bool containsIgnoringCase(std::string_view text, std::string_view part);

/// 1234567 as "1,234,567".
std::string prettyCount(uint64_t count);

/// Bytes as people say them, in powers of 1024: "512 bytes", "1.5 MiB".
std::string prettyBytes(uint64_t bytes);

/// A share in percent with one decimal, "12.5 %"; "0.0 %" of nothing. Never rounded up to 100.
std::string prettyShare(uint64_t part, uint64_t whole);

/// A length of time: "42 s", "3 min 05 s", "2 h 07 min".
std::string prettyDuration(double seconds);

/// A decimal number without sign, as a whole text; nothing else is taken.
bool parseNumber(std::string_view text, uint64_t& number);
/// The same with an optional minus sign.
bool parseNumber(std::string_view text, int64_t& number);

}  // namespace view
