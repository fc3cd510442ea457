#pragma once

#include <cstddef>

#include "model/TileMap.hpp"
#include "session/Rewrite.hpp"
#include "terminal/Canvas.hpp"

namespace view {

/// A rectangle of a canvas.
struct Area {
  size_t row;
  size_t column;
  size_t rows;
  size_t columns;
};

/// What the terminal can show.
struct Drawing {
  bool unicode = true;
  bool colours = true;
};

/// Fills an area with the map in reading order: every character is a stretch of the volume. With
/// colours and Unicode it shows the two kinds that most of its blocks are, in proportion; otherwise
/// the sign of the one.
void paintMap(Canvas& canvas, Area area, const TileMap& map, const Rewrite* run, Drawing drawing);

/// One line that says what the colours or signs mean.
void paintLegend(Canvas& canvas, size_t row, size_t column, size_t width, bool running,
                 Drawing drawing);

}  // namespace view
