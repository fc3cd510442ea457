#pragma once

#include <string>
#include <string_view>

namespace view {

/// Any bytes at all as text of a page, also within an attribute in double quotes: made visible
/// (visibleText) and with every character that means something to HTML as an entity.
std::string html(std::string_view text);

}  // namespace view
