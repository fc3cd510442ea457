#pragma once

#include <string>

#include "model/Picture.hpp"

namespace view {

/// The most fragmented and the largest files in one table, which the page's script lets people
/// search and sort. With `before`, the pieces of both pictures stand side by side.
std::string htmlTable(const Picture* before, const Picture& picture);

}  // namespace view
