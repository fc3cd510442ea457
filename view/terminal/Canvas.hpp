#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace view {

/// What a colour means; a terminal decides how it looks, or does without.
enum class Ink : uint8_t {
  Plain,
  Free,
  Contiguous,
  Fragmented,
  System,
  Moving,
  Accent,
  Alert,
};

/// How a piece of text looks.
struct Style {
  Ink ink = Ink::Plain;
  Ink ground = Ink::Plain;
  bool bold = false;
  bool dim = false;
  bool reverse = false;
  friend bool operator==(const Style&, const Style&) = default;
};

/// A screenful of characters. Everything is painted here first, so that it can be looked at without
/// a terminal; what lies outside is cut off.
class Canvas {
 public:
  struct Cell {
    std::string text = " ";  // one character; empty behind one that takes two columns
    Style style;
  };

  Canvas(size_t rows, size_t columns);

  size_t rows() const { return _rows; }
  size_t columns() const { return _columns; }
  const Cell& cell(size_t row, size_t column) const { return _cells[row * _columns + column]; }

  /// Puts a visible text at a place, in at most `width` columns; a longer one ends in "…". Returns
  /// the column behind it.
  size_t put(size_t row, size_t column, std::string_view text, Style style = {},
             size_t width = SIZE_MAX);

  /// Puts a text so that it ends before a column.
  void putRight(size_t row, size_t end, std::string_view text, Style style = {});

  /// Fills a rectangle with blanks.
  void fill(size_t row, size_t column, size_t rows, size_t columns, Style style = {});

  /// A row's characters, without the blanks at its end.
  std::string rowText(size_t row) const;

 private:
  size_t _rows;
  size_t _columns;
  std::vector<Cell> _cells;
};

}  // namespace view
