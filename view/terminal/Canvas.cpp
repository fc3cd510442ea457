#include "terminal/Canvas.hpp"

#include <algorithm>

#include "base/Text.hpp"

namespace view {

Canvas::Canvas(size_t rows, size_t columns)
    : _rows(rows), _columns(columns), _cells(rows * columns) {}

size_t Canvas::put(size_t row, size_t column, std::string_view text, Style style, size_t width) {
  if (row >= _rows || column >= _columns) {
    return column;
  }
  const std::string fitted = fitEnd(text, std::min(width, _columns - column));
  for (std::string_view rest = fitted; !rest.empty();) {
    const size_t bytes = firstCharacter(rest).bytes;
    const std::string_view character = rest.substr(0, bytes);
    rest.remove_prefix(bytes);
    const size_t columns = displayWidth(character);
    if (columns == 0) {
      // A mark that goes over its neighbour.
      if (column > 0) {
        _cells[row * _columns + column - 1].text += character;
      }
      continue;
    }
    for (size_t place = 0; place < columns; ++place) {
      _cells[row * _columns + column + place] = {place == 0 ? std::string(character) : "", style};
    }
    column += columns;
  }
  return column;
}

void Canvas::putRight(size_t row, size_t end, std::string_view text, Style style) {
  const size_t width = displayWidth(text);
  put(row, end > width ? end - width : 0, text, style, end);
}

void Canvas::fill(size_t row, size_t column, size_t rows, size_t columns, Style style) {
  for (size_t at = row; at < std::min(row + rows, _rows); ++at) {
    for (size_t place = column; place < std::min(column + columns, _columns); ++place) {
      _cells[at * _columns + place] = {" ", style};
    }
  }
}

std::string Canvas::rowText(size_t row) const {
  std::string text;
  for (size_t column = 0; column < _columns; ++column) {
    text += cell(row, column).text;
  }
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

}  // namespace view
