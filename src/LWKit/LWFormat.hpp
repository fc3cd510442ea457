#pragma once

#include <concepts>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

/// One argument of a message, with its own type. Text is not owned: it must outlive the call.
class LWFormatArgument {
 public:
  enum class Kind { Signed, Unsigned, Real, Text, Pointer };

  template <std::signed_integral T>
  constexpr LWFormatArgument(T value) : _kind(Kind::Signed), _bits(sizeof(T) * 8), _signed(value) {}
  template <std::unsigned_integral T>
  constexpr LWFormatArgument(T value)
      : _kind(Kind::Unsigned), _bits(sizeof(T) * 8), _unsigned(value) {}
  constexpr LWFormatArgument(double value) : _kind(Kind::Real), _real(value) {}
  constexpr LWFormatArgument(std::string_view text) : _kind(Kind::Text), _text(text) {}
  constexpr LWFormatArgument(const std::string& text) : _kind(Kind::Text), _text(text) {}
  constexpr LWFormatArgument(const char* text) : _kind(Kind::Text), _text(text) {}
  constexpr LWFormatArgument(const void* address) : _kind(Kind::Pointer), _pointer(address) {}

  Kind kind() const { return _kind; }
  /// Width of an integer argument in bits.
  unsigned bits() const { return _bits; }
  int64_t signedValue() const { return _signed; }
  uint64_t unsignedValue() const { return _unsigned; }
  double realValue() const { return _real; }
  std::string_view text() const { return _text; }
  const void* pointer() const { return _pointer; }

 private:
  Kind _kind;
  unsigned _bits = 64;
  union {
    int64_t _signed;
    uint64_t _unsigned;
    double _real;
    std::string_view _text;
    const void* _pointer;
  };
};

/// Fills in a printf-like format: "%d", "%2$u", "%08X", "%.3f", "%*s", "%1$@" and their like.
/// The arguments know their types, so a format (a translation, say) decides only how a value looks:
/// a specifier that does not fit its argument prints the argument by its true type, one without an
/// argument prints nothing, and an incomplete specifier prints itself.
[[nodiscard]] std::string LWFormatArguments(std::string_view format,
                                            std::span<const LWFormatArgument> arguments);

/// LWFormatArguments() for arguments given one by one.
template <typename... Arguments>
[[nodiscard]] std::string LWFormat(std::string_view format, const Arguments&... arguments) {
  if constexpr (sizeof...(arguments) == 0) {
    return LWFormatArguments(format, {});
  } else {
    const LWFormatArgument list[] = {LWFormatArgument(arguments)...};
    return LWFormatArguments(format, list);
  }
}
