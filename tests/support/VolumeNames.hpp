#pragma once

#include <string>
#include <string_view>

namespace support {

/// A UTF-8 text as a volume stores it in a name: UTF-16, canonically decomposed. Nothing is
/// translated: a "/" in the text is a "/" in the stored name.
std::u16string storedName(std::string_view utf8);

/// UTF-16 units as UTF-8; unpaired surrogates become U+FFFD.
std::string utf8FromUnits(std::u16string_view units);

/// The order of names on HFS Plus volumes: case folding, ignorable units skipped. Negative, zero or
/// positive.
int compareNamesFolded(std::u16string_view a, std::u16string_view b);

/// The order of names on HFSX volumes with binary comparison.
int compareNamesBinary(std::u16string_view a, std::u16string_view b);

}  // namespace support
