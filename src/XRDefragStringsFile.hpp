#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "LWKit/LWStringTable.hpp"

/// Translations in a file: a property list, XML or binary, whose root is a dictionary from English
/// message formats to formats in another language. Values that are not strings translate nothing.
/// XML is in UTF-8 or, behind a byte order mark, in UTF-16.
namespace XRDefragStringsFile {

/// A file larger than this is not taken for one of translations.
constexpr size_t kSizeLimit = size_t{1} << 20;

/// The translations in a file; none when it is unreadable, too large or not what it should be.
[[nodiscard]] std::optional<LWStringTable::Map> read(const std::string& path);

/// The translations in the bytes of a file; none when they are not what they should be.
[[nodiscard]] std::optional<LWStringTable::Map> parse(std::string_view bytes);

}  // namespace XRDefragStringsFile
