#include <array>
#include <cstdio>

#include "base/Json.hpp"
#include "base/Text.hpp"

namespace view {

namespace {

void appendEscape(std::string& text, unsigned unit) {
  std::array<char, 8> escape = {};
  std::snprintf(escape.data(), escape.size(), "\\u%04x", unit & 0xFFFFU);
  text += escape.data();
}

}  // namespace

void JsonWriter::separate() {
  if (_commaNeeded) {
    _text += ',';
  }
  _commaNeeded = true;
}

void JsonWriter::quote(std::string_view text) {
  _text += '"';
  while (!text.empty()) {
    const Character next = firstCharacter(text);
    text.remove_prefix(next.bytes);
    const auto code = static_cast<unsigned>(next.code);
    if (code == '"' || code == '\\') {
      _text += {'\\', static_cast<char>(code)};
    } else if (code >= 0x10000) {
      appendEscape(_text, 0xD800 + ((code - 0x10000) >> 10));
      appendEscape(_text, 0xDC00 + ((code - 0x10000) & 0x3FF));
    } else if (code < 0x20 || code >= 0x7F || code == '<' || code == '>' || code == '&') {
      appendEscape(_text, code);
    } else {
      _text += static_cast<char>(code);
    }
  }
  _text += '"';
}

JsonWriter& JsonWriter::beginObject() {
  separate();
  _text += '{';
  _commaNeeded = false;
  return *this;
}

JsonWriter& JsonWriter::endObject() {
  _text += '}';
  _commaNeeded = true;
  return *this;
}

JsonWriter& JsonWriter::beginArray() {
  separate();
  _text += '[';
  _commaNeeded = false;
  return *this;
}

JsonWriter& JsonWriter::endArray() {
  _text += ']';
  _commaNeeded = true;
  return *this;
}

JsonWriter& JsonWriter::name(std::string_view text) {
  separate();
  quote(text);
  _text += ": ";
  _commaNeeded = false;
  return *this;
}

JsonWriter& JsonWriter::value(std::string_view text) {
  separate();
  quote(text);
  return *this;
}

JsonWriter& JsonWriter::value(uint64_t number) {
  separate();
  _text += std::to_string(number);
  return *this;
}

JsonWriter& JsonWriter::value(int64_t number) {
  separate();
  _text += std::to_string(number);
  return *this;
}

JsonWriter& JsonWriter::value(bool truth) {
  separate();
  _text += truth ? "true" : "false";
  return *this;
}

JsonWriter& JsonWriter::null() {
  separate();
  _text += "null";
  return *this;
}

JsonWriter& JsonWriter::lineBreak() {
  if (_commaNeeded) {
    _text += ',';
    _commaNeeded = false;
  }
  _text += '\n';
  return *this;
}

}  // namespace view
