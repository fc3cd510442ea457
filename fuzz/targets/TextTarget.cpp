// Formats, numbers, words, sizes and fields of text.

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "FuzzTargets.hpp"
#include "LWKit/LWFormat.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "LWKit/LWUnicode.hpp"
#include "XRDefragReport.hpp"

namespace fuzz {

namespace {

/// What a reader of report lines makes of a field.
std::string fromOutputSafe(std::string_view field) {
  constexpr std::string_view kNul = "\\xC0\\x80";
  std::string text;
  while (!field.empty()) {
    if (field.starts_with(kNul)) {
      text += '\0';
      field.remove_prefix(kNul.size());
      continue;
    }
    if (field.front() == '\\') {
      FUZZ_CHECK(field.size() > 1 && (field[1] == '\\' || field[1] == ','), "an unknown escape");
      field.remove_prefix(1);
    } else {
      FUZZ_CHECK(field.front() != ',' && field.front() != '\0', "a field ends early");
    }
    text += field.front();
    field.remove_prefix(1);
  }
  return text;
}

void checkFormat(std::string_view format) {
  constexpr size_t kMost = size_t{1} << 20;
  const std::string text = LWFormat(format, "a, text", 42U, int64_t{-7}, 1.5, uint64_t{1} << 63);
  FUZZ_CHECK(text.size() < kMost, "a format without end");
  FUZZ_CHECK(LWFormat(format).size() < kMost, "a format without end");
  if (!format.contains('%')) {
    FUZZ_CHECK(text == format, "a plain text is not itself");
  }
}

void checkNumbers(const std::string& text) {
  const char* const start = text.c_str();
  char* end = nullptr;
  errno = 0;
  const long long expected = std::strtoll(start, &end, 10);
  const auto integer = LWScanInteger(start);
  FUZZ_CHECK(integer ? *integer == expected : end == start, "an integer reads wrong");

  const std::string_view plain(start);
  // What the C library also takes, and this program does not.
  if (plain.find_first_of("xXnNiIpP") == std::string_view::npos) {
    const double number = std::strtod(start, &end);
    const auto real = LWScanDouble(start);
    const double bounded =
        std::isinf(number) ? std::copysign(std::numeric_limits<double>::max(), number) : number;
    const bool tiny = std::fabs(bounded) < std::numeric_limits<double>::min();
    FUZZ_CHECK(real ? *real == bounded || (tiny && *real == 0) : end == start,
               "a number reads wrong");
  }
}

void checkWords(std::string_view text) {
  const auto words = LWTrimmedComponents(text);
  FUZZ_CHECK(LWFirstComponent(text) == (words.empty() ? std::string() : words.front()),
             "the first word is not the first");
  for (const std::string& word : words) {
    FUZZ_CHECK(!word.empty() && word.find_first_of(" \t") == std::string::npos, "a bad word");
  }
}

void checkUnicode(std::string_view text) {
  const auto units = LWUTF16FromUTF8(text);
  FUZZ_CHECK(units.has_value() == LWIsUTF8(text), "two opinions on UTF-8");
  FUZZ_CHECK(!units || LWUTF8FromUTF16(*units) == text, "text and units do not go round");
}

}  // namespace

void runText(Input input) {
  const std::string text(reinterpret_cast<const char*>(input.data()), input.size());
  FUZZ_CHECK(fromOutputSafe(outputSafeString(text)) == text, "a field does not go round");
  checkFormat(text);
  checkNumbers(text);
  checkWords(text);
  checkUnicode(text);
  uint64_t size = 0;
  for (const uint8_t byte : input.first(std::min<size_t>(input.size(), 8))) {
    size = size << 8 | byte;
  }
  FUZZ_CHECK(LWIsUTF8(LWPrettySize(size)) && !LWPrettySize(size).empty(), "a size without text");
}

}  // namespace fuzz
