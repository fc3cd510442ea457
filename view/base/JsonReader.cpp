#include <charconv>
#include <utility>

#include "base/Json.hpp"
#include "base/Text.hpp"

namespace view {

/// Reads a document from front to back. Depth is bounded, so that no document can exhaust the
/// stack.
class JsonReader {
 public:
  explicit JsonReader(std::string_view text) : _text(text) {}

  Outcome<JsonValue> document() {
    Outcome<JsonValue> value = readValue(0);
    skipBlanks();
    if (value && _place != _text.size()) {
      return trouble("something follows the document");
    }
    return value;
  }

 private:
  static constexpr int kDepthMax = 32;

  std::unexpected<Failure> trouble(const char* what) const {
    return fail(ExitStatus::FileTrouble, std::string(what) + " at byte " + std::to_string(_place));
  }

  void skipBlanks() {
    while (_place < _text.size() && (_text[_place] == ' ' || _text[_place] == '\t' ||
                                     _text[_place] == '\n' || _text[_place] == '\r')) {
      ++_place;
    }
  }

  bool take(std::string_view expected) {
    if (!_text.substr(_place).starts_with(expected)) {
      return false;
    }
    _place += expected.size();
    return true;
  }

  bool takeMark(char mark) {
    skipBlanks();
    return take(std::string_view(&mark, 1));
  }

  Outcome<JsonValue> readValue(int depth) {
    skipBlanks();
    if (depth > kDepthMax) {
      return trouble("too many levels");
    }
    if (take("{")) {
      return readObject(depth);
    }
    if (take("[")) {
      return readArray(depth);
    }
    if (take("\"")) {
      Outcome<std::string> text = readString();
      if (!text) {
        return std::unexpected(text.error());
      }
      return JsonValue(std::move(*text));
    }
    if (take("true")) {
      return JsonValue(true);
    }
    if (take("false")) {
      return JsonValue(false);
    }
    return take("null") ? JsonValue() : readNumber();
  }

  Outcome<JsonValue> readNumber() {
    int64_t number = 0;
    const char* end = _text.data() + _text.size();
    const auto [stop, error] = std::from_chars(_text.data() + _place, end, number);
    if (error != std::errc()) {
      return trouble("no value that is understood");
    }
    _place = static_cast<size_t>(stop - _text.data());
    return JsonValue(number);
  }

  Outcome<JsonValue> readArray(int depth) {
    JsonValue::Array elements;
    if (!takeMark(']')) {
      do {
        Outcome<JsonValue> element = readValue(depth + 1);
        if (!element) {
          return element;
        }
        elements.push_back(std::move(*element));
      } while (takeMark(','));
      if (!takeMark(']')) {
        return trouble("a list is not closed");
      }
    }
    return JsonValue(std::move(elements));
  }

  Outcome<JsonValue> readObject(int depth) {
    JsonValue::Object members;
    if (!takeMark('}')) {
      do {
        if (!takeMark('"')) {
          return trouble("a name is missing");
        }
        Outcome<std::string> name = readString();
        if (!name) {
          return std::unexpected(name.error());
        }
        if (!takeMark(':')) {
          return trouble("a colon is missing");
        }
        Outcome<JsonValue> member = readValue(depth + 1);
        if (!member) {
          return member;
        }
        members.insert_or_assign(std::move(*name), std::move(*member));
      } while (takeMark(','));
      if (!takeMark('}')) {
        return trouble("an object is not closed");
      }
    }
    return JsonValue(std::move(members));
  }

  Outcome<std::string> readString() {
    std::string text;
    while (_place < _text.size()) {
      const char next = _text[_place++];
      if (next == '"') {
        return text;
      }
      if (next != '\\') {
        text += next;
      } else if (!readEscape(text)) {
        return trouble("an escape that is not understood");
      }
    }
    return trouble("a text is not closed");
  }

  bool readEscape(std::string& text) {
    if (_place == _text.size()) {
      return false;
    }
    switch (const char kind = _text[_place++]) {
      case '"':
      case '\\':
      case '/':
        text += kind;
        return true;
      case 'b':
        text += '\b';
        return true;
      case 'f':
        text += '\f';
        return true;
      case 'n':
        text += '\n';
        return true;
      case 'r':
        text += '\r';
        return true;
      case 't':
        text += '\t';
        return true;
      case 'u':
        return readUnits(text);
      default:
        return false;
    }
  }

  bool readUnit(char32_t& unit) {
    uint32_t number = 0;
    const std::string_view digits = _text.substr(_place, 4);
    const auto [stop, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), number, 16);
    if (digits.size() != 4 || error != std::errc() || stop != digits.data() + 4) {
      return false;
    }
    _place += 4;
    unit = number;
    return true;
  }

  // A surrogate without its other half stands for nothing and becomes U+FFFD.
  bool readUnits(std::string& text) {
    char32_t unit = 0;
    if (!readUnit(unit)) {
      return false;
    }
    if (unit >= 0xD800 && unit < 0xDC00 && take("\\u")) {
      char32_t low = 0;
      if (!readUnit(low)) {
        return false;
      }
      const bool isPair = low >= 0xDC00 && low < 0xE000;
      unit = isPair ? 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00) : 0xFFFD;
    }
    appendCharacter(text, unit >= 0xD800 && unit < 0xE000 ? 0xFFFD : unit);
    return true;
  }

  std::string_view _text;
  size_t _place = 0;
};

Outcome<JsonValue> JsonValue::parse(std::string_view text) {
  return JsonReader(text).document();
}

const JsonValue* JsonValue::find(std::string_view name) const {
  const Object* members = object();
  if (members == nullptr) {
    return nullptr;
  }
  const auto found = members->find(name);
  return found == members->end() ? nullptr : &found->second;
}

std::optional<int64_t> JsonValue::number() const {
  const auto* number = std::get_if<int64_t>(&_value);
  return number == nullptr ? std::nullopt : std::optional(*number);
}

std::optional<bool> JsonValue::boolean() const {
  const auto* truth = std::get_if<bool>(&_value);
  return truth == nullptr ? std::nullopt : std::optional(*truth);
}

std::optional<uint64_t> JsonValue::count(std::string_view name) const {
  const JsonValue* member = find(name);
  const std::optional<int64_t> number = member == nullptr ? std::nullopt : member->number();
  return number && *number >= 0 ? std::optional(static_cast<uint64_t>(*number)) : std::nullopt;
}

}  // namespace view
