#include "LWKit/LWFormat.hpp"

#include <algorithm>
#include <cstdio>
#include <optional>

namespace {

// Wide enough for any number we print, narrow enough that no format can make us allocate at will.
constexpr size_t kWidthLimit = 256;

// A format that repeats its arguments over and over stops printing them beyond this many bytes.
constexpr size_t kResultLimit = size_t{1} << 20;

struct Specifier {
  std::optional<size_t> position;  // zero-based, when the specifier names its argument
  bool leftAligned = false;
  bool zeroPadded = false;
  bool plusSign = false;
  size_t width = 0;
  std::optional<size_t> precision;
  char conversion = 0;
};

/// Reads one format from left to right, handing out arguments as specifiers ask for them.
class Formatter {
 public:
  Formatter(std::string_view format, std::span<const LWFormatArgument> arguments)
      : _format(format), _arguments(arguments) {}

  std::string run() {
    while (_at < _format.size()) {
      const size_t percent = std::min(_format.find('%', _at), _format.size());
      _result.append(_format, _at, percent - _at);
      _at = percent;
      if (_at < _format.size()) {
        printSpecifier();
      }
    }
    return std::move(_result);
  }

 private:
  void printSpecifier() {
    const size_t start = _at++;
    if (peek() == '%') {
      _result += '%';
      ++_at;
      return;
    }
    const std::optional<Specifier> specifier = parseSpecifier();
    if (!specifier) {
      _result.append(_format, start, _at - start);
      return;
    }
    const size_t index = specifier->position ? *specifier->position : _nextArgument++;
    if (index < _arguments.size() && _result.size() <= kResultLimit) {
      append(*specifier, _arguments[index]);
    }
  }

  std::optional<Specifier> parseSpecifier() {
    Specifier specifier;
    const size_t afterPercent = _at;
    if (const size_t number = parseNumber(); number > 0 && peek() == '$') {
      specifier.position = number - 1;
      ++_at;
    } else {
      _at = afterPercent;
    }
    parseFlags(specifier);
    const int64_t width = parseSize();
    specifier.leftAligned |= width < 0;
    specifier.width = static_cast<size_t>(width < 0 ? -width : width);
    if (peek() == '.') {
      ++_at;
      // A negative precision is none.
      if (const int64_t precision = parseSize(); precision >= 0) {
        specifier.precision = static_cast<size_t>(precision);
      }
    }
    while (peek() != 0 && std::string_view("hlqjzt").contains(peek())) {
      ++_at;
    }
    if (peek() == 0 || !std::string_view("diuxXocsS@pfFeEgG").contains(peek())) {
      return std::nullopt;
    }
    specifier.conversion = _format[_at++];
    return specifier;
  }

  void parseFlags(Specifier& specifier) {
    for (;; ++_at) {
      switch (peek()) {
        case '-':
          specifier.leftAligned = true;
          break;
        case '0':
          specifier.zeroPadded = true;
          break;
        case '+':
          specifier.plusSign = true;
          break;
        case ' ':
        case '#':
        case '\'':
          break;
        default:
          return;
      }
    }
  }

  /// A width or precision: digits, or "*" for the next argument, which may be negative.
  int64_t parseSize() {
    constexpr auto kLimit = static_cast<int64_t>(kWidthLimit);
    if (peek() != '*') {
      return std::min(static_cast<int64_t>(parseNumber()), kLimit);
    }
    ++_at;
    if (_nextArgument >= _arguments.size()) {
      return 0;
    }
    const LWFormatArgument& argument = _arguments[_nextArgument++];
    switch (argument.kind()) {
      case LWFormatArgument::Kind::Signed:
        return std::clamp(argument.signedValue(), -kLimit, kLimit);
      case LWFormatArgument::Kind::Unsigned:
        return static_cast<int64_t>(std::min<uint64_t>(argument.unsignedValue(), kWidthLimit));
      default:
        return 0;
    }
  }

  size_t parseNumber() {
    size_t number = 0;
    for (; peek() >= '0' && peek() <= '9'; ++_at) {
      number = std::min<size_t>(number * 10 + static_cast<size_t>(peek() - '0'), 1'000'000);
    }
    return number;
  }

  char peek() const { return _at < _format.size() ? _format[_at] : char(0); }

  void append(const Specifier& specifier, const LWFormatArgument& argument) {
    switch (argument.kind()) {
      case LWFormatArgument::Kind::Text:
        appendText(specifier, argument.text());
        break;
      case LWFormatArgument::Kind::Real:
        appendReal(specifier, argument.realValue());
        break;
      case LWFormatArgument::Kind::Pointer:
        appendInteger(specifier, reinterpret_cast<uintptr_t>(argument.pointer()), 16, "0x");
        break;
      case LWFormatArgument::Kind::Signed:
      case LWFormatArgument::Kind::Unsigned:
        appendIntegerArgument(specifier, argument);
        break;
    }
  }

  void appendText(const Specifier& specifier, std::string_view text) {
    if (specifier.precision && specifier.conversion == 's') {
      text = text.substr(0, *specifier.precision);
    }
    appendPadded(specifier, text);
  }

  void appendReal(const Specifier& specifier, double value) {
    char buffer[512];
    const bool fits = std::string_view("fFeEgG").contains(specifier.conversion);
    std::string pattern = specifier.plusSign ? "%+" : "%";
    // Zeros stand between the sign and the number, where only it can put them.
    const bool isZeroFilled = specifier.zeroPadded && !specifier.leftAligned;
    pattern += isZeroFilled ? "0*.*" : "*.*";
    pattern += fits ? specifier.conversion : 'g';
    const int width = isZeroFilled ? static_cast<int>(specifier.width) : 0;
    const int precision = static_cast<int>(std::min<size_t>(specifier.precision.value_or(6), 64));
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    const int length =
        std::snprintf(buffer, sizeof buffer, pattern.c_str(), width, precision, value);
#pragma GCC diagnostic pop
    const size_t kept = std::min(static_cast<size_t>(std::max(length, 0)), sizeof buffer - 1);
    appendPadded(specifier, std::string_view(buffer, kept));
  }

  void appendIntegerArgument(const Specifier& specifier, const LWFormatArgument& argument) {
    const bool isSigned = argument.kind() == LWFormatArgument::Kind::Signed;
    const int64_t value = isSigned ? argument.signedValue() : 0;
    // The argument's own width, so that a negative 32-bit number has eight hexadecimal digits.
    const uint64_t mask = argument.bits() >= 64 ? ~0ULL : (1ULL << argument.bits()) - 1;
    const uint64_t pattern =
        isSigned ? static_cast<uint64_t>(value) & mask : argument.unsignedValue();
    switch (specifier.conversion) {
      case 'x':
      case 'X':
        appendInteger(specifier, pattern, 16);
        break;
      case 'p':
        appendInteger(specifier, pattern, 16, "0x");
        break;
      case 'o':
        appendInteger(specifier, pattern, 8);
        break;
      case 'c':
        appendPadded(specifier, std::string(1, static_cast<char>(pattern)));
        break;
      case 'u':
        appendInteger(specifier, pattern, 10);
        break;
      default:
        appendInteger(specifier, value < 0 ? 0 - static_cast<uint64_t>(value) : pattern, 10,
                      value < 0 ? "-" : (specifier.plusSign ? "+" : ""));
        break;
    }
  }

  /// `prefix`, a sign say, stands before the zeros that fill up.
  void appendInteger(const Specifier& specifier, uint64_t magnitude, unsigned base,
                     std::string_view prefix = {}) {
    const char* digits = specifier.conversion == 'X' ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string text;
    if (magnitude == 0 && specifier.precision != 0U) {
      text = "0";
    }
    for (; magnitude != 0; magnitude /= base) {
      text += digits[magnitude % base];
    }
    size_t digitCount = specifier.precision.value_or(0);
    if (specifier.zeroPadded && !specifier.leftAligned && !specifier.precision) {
      digitCount = specifier.width > prefix.size() ? specifier.width - prefix.size() : 0;
    }
    if (text.size() < digitCount) {
      text.append(digitCount - text.size(), '0');
    }
    std::reverse(text.begin(), text.end());
    appendPadded(specifier, std::string(prefix).append(text));
  }

  void appendPadded(const Specifier& specifier, std::string_view text) {
    const size_t padding = specifier.width > text.size() ? specifier.width - text.size() : 0;
    if (!specifier.leftAligned) {
      _result.append(padding, ' ');
    }
    _result.append(text);
    if (specifier.leftAligned) {
      _result.append(padding, ' ');
    }
  }

  std::string_view _format;
  std::span<const LWFormatArgument> _arguments;
  size_t _at = 0;
  size_t _nextArgument = 0;
  std::string _result;
};

}  // namespace

std::string LWFormatArguments(std::string_view format,
                              std::span<const LWFormatArgument> arguments) {
  return Formatter(format, arguments).run();
}
