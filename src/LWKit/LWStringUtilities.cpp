#include "LWKit/LWStringUtilities.hpp"

#include <algorithm>
#include <charconv>
#include <limits>

#include "LWKit/LWFormat.hpp"

namespace {

constexpr std::string_view kWordSeparators = " \t";
constexpr std::string_view kNumberSpace = " \t\n\v\f\r";
constexpr std::string_view kDigits = "0123456789";

struct Number {
  bool negative = false;
  std::string_view text;  // without its sign
};

Number splitSign(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kNumberSpace), text.size()));
  Number number{.text = text};
  if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
    number.negative = text.front() == '-';
    number.text.remove_prefix(1);
  }
  return number;
}

size_t countDigits(std::string_view text) {
  return std::min(text.find_first_not_of(kDigits), text.size());
}

/// Characters of "12", "1.5", ".5", "1e9" at the start of a text; 0 when no number stands there.
size_t decimalLength(std::string_view text) {
  const size_t whole = countDigits(text);
  size_t length = whole;
  if (length < text.size() && text[length] == '.') {
    const size_t fraction = countDigits(text.substr(length + 1));
    if (whole == 0 && fraction == 0) {
      return 0;
    }
    length += 1 + fraction;
  }
  if (length == 0 || length == text.size() || (text[length] | 0x20) != 'e') {
    return length;
  }
  size_t exponent = length + 1;
  if (exponent < text.size() && (text[exponent] == '-' || text[exponent] == '+')) {
    ++exponent;
  }
  const size_t digits = countDigits(text.substr(exponent));
  return digits == 0 ? length : exponent + digits;
}

/// Whether a decimal number that no double holds is too large, rather than too small: whether its
/// first digit stands before the point, once the exponent has moved that.
bool isHuge(std::string_view decimal) {
  constexpr int64_t kFarthest = int64_t{1} << 62;
  const size_t mark = std::min(decimal.find_first_of("eE"), decimal.size());
  const std::string_view digits = decimal.substr(0, mark);
  const size_t first = digits.find_first_not_of("0.");
  if (first == std::string_view::npos) {
    return false;
  }
  const auto point = static_cast<int64_t>(std::min(digits.find('.'), digits.size()));
  const std::string_view exponent = decimal.substr(std::min(mark + 1, decimal.size()));
  const int64_t moved = std::clamp(LWScanInteger(exponent).value_or(0), -kFarthest, kFarthest);
  return point - static_cast<int64_t>(first) + moved > 0;
}

}  // namespace

std::string_view LWFirstComponent(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(kWordSeparators), text.size()));
  return text.substr(0, text.find_first_of(kWordSeparators));
}

std::vector<std::string> LWTrimmedComponents(std::string_view text) {
  std::vector<std::string> words;
  for (;;) {
    text.remove_prefix(std::min(text.find_first_not_of(kWordSeparators), text.size()));
    if (text.empty()) {
      return words;
    }
    const size_t length = std::min(text.find_first_of(kWordSeparators), text.size());
    words.emplace_back(text.substr(0, length));
    text.remove_prefix(length);
  }
}

std::string LWPrettySize(uint64_t bytes) {
  constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB"};
  unsigned unit = 0;
  while (unit < 3 && bytes >> (10 * (unit + 1)) != 0) {
    ++unit;
  }
  const unsigned shift = 10 * unit;
  const uint64_t whole = bytes >> shift;
  const uint64_t remainder = bytes - (whole << shift);
  uint64_t fraction = (remainder * 1000) >> shift;
  if (fraction == 0) {
    return LWFormat("%2$llu%1$s", kUnits[unit], whole);
  }
  while (fraction % 10 == 0) {
    fraction /= 10;
  }
  return LWFormat("%2$llu.%3$llu%1$s", kUnits[unit], whole, fraction);
}

std::optional<int64_t> LWScanInteger(std::string_view text) {
  using Limits = std::numeric_limits<int64_t>;
  const auto [negative, digits] = splitSign(text);
  if (countDigits(digits) == 0) {
    return std::nullopt;
  }
  uint64_t magnitude = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), magnitude, 10);
  if (error != std::errc() || magnitude > static_cast<uint64_t>(Limits::max())) {
    return negative ? Limits::min() : Limits::max();
  }
  const auto value = static_cast<int64_t>(magnitude);
  return negative ? -value : value;
}

std::optional<double> LWScanDouble(std::string_view text) {
  const auto [negative, unsignedText] = splitSign(text);
  const std::string_view decimal = unsignedText.substr(0, decimalLength(unsignedText));
  if (decimal.empty()) {
    return std::nullopt;
  }
  double value = 0;
  const auto [end, error] = std::from_chars(decimal.data(), decimal.data() + decimal.size(), value);
  if (error != std::errc()) {
    value = isHuge(decimal) ? std::numeric_limits<double>::max() : 0;
  }
  return negative ? -value : value;
}

std::string LWUppercaseASCII(std::string_view text) {
  std::string result(text);
  for (char& character : result) {
    if (character >= 'a' && character <= 'z') {
      character = static_cast<char>(character - 'a' + 'A');
    }
  }
  return result;
}
