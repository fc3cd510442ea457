#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/Outcome.hpp"

namespace view {

/// Writes one JSON document piece by piece; commas and quotes come by themselves.
///
/// Strings come out in ASCII: whatever lies beyond, and '<', '>' and '&', is written as an escape,
/// so the document can stand in a page or a terminal. Bytes that are no UTF-8 become U+FFFD.
class JsonWriter {
 public:
  /// Objects and arrays: begin, members or elements, end.
  JsonWriter& beginObject();
  JsonWriter& endObject();
  JsonWriter& beginArray();
  JsonWriter& endArray();

  /// The name of the member that follows.
  JsonWriter& name(std::string_view text);

  JsonWriter& value(std::string_view text);
  JsonWriter& value(const char* text) { return value(std::string_view(text)); }
  JsonWriter& value(uint64_t number);
  JsonWriter& value(int64_t number);
  JsonWriter& value(uint32_t number) { return value(uint64_t{number}); }
  JsonWriter& value(bool truth);
  JsonWriter& null();

  /// A line break where it helps a reader; it means nothing.
  JsonWriter& lineBreak();

  /// The document so far.
  const std::string& text() const { return _text; }

 private:
  void separate();
  void quote(std::string_view text);

  std::string _text;
  bool _commaNeeded = false;
};

/// A JSON document that has been read. Numbers are whole; that is all our documents have.
class JsonValue {
 public:
  using Array = std::vector<JsonValue>;
  using Object = std::map<std::string, JsonValue, std::less<>>;

  JsonValue() = default;

  /// Reads a document; fails with a sentence that names the place.
  static Outcome<JsonValue> parse(std::string_view text);

  /// The member of an object; nullptr when this is no object or has no such member.
  const JsonValue* find(std::string_view name) const;

  /// Each answers nothing (or nullptr) when the value is of another kind.
  std::optional<int64_t> number() const;
  const std::string* string() const { return std::get_if<std::string>(&_value); }
  const Array* array() const { return std::get_if<Array>(&_value); }
  const Object* object() const { return std::get_if<Object>(&_value); }
  std::optional<bool> boolean() const;

  /// A number of at least 0 that is a member of this object.
  std::optional<uint64_t> count(std::string_view name) const;

 private:
  friend class JsonReader;
  using Value = std::variant<std::monostate, bool, int64_t, std::string, Array, Object>;
  explicit JsonValue(Value value) : _value(std::move(value)) {}

  Value _value;  // none: null
};

}  // namespace view
