#include <clocale>

namespace {

// How wide a character is depends on the locale, and the program takes its user's.
[[maybe_unused]] const char* const kLocale = std::setlocale(LC_CTYPE, "C.UTF-8");

}  // namespace
