#pragma once

#include <string_view>

/// Keeps from the property-list library what would make it recurse or expand without bounds (a few
/// hundred bytes of either format can ask for gigabytes), and NUL characters where it stops the
/// process for them. Judges nothing else; the library finds out whether what is let through is a
/// property list.
namespace XRDefragPropertyListGuard {

/// Whether the bytes are a binary property list of little depth and size once expanded.
[[nodiscard]] bool isModestBinary(std::string_view bytes);

/// Whether the bytes look like XML with few elements that can hold others.
[[nodiscard]] bool isModestXML(std::string_view bytes);

}  // namespace XRDefragPropertyListGuard
