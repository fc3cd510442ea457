#pragma once

#include <cstddef>
#include <string>

#include "model/TileMap.hpp"

namespace view {

/// The map as inline SVG: squares in reading order, each filled from the bottom with its blocks in
/// use, kind by kind and in proportion. At most `cellsMax` squares, `columns` in a row.
std::string htmlMap(const TileMap& map, size_t columns, size_t cellsMax, const std::string& title);

}  // namespace view
