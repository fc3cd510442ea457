#include "terminal/MapPainter.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "base/Text.hpp"

namespace view {

namespace {

/// How long a stretch that was read or written stays marked.
constexpr double kGlowSeconds = 0.5;
constexpr std::array<std::string_view, 9> kEighths = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};

Ink inkOf(BlockKind kind) {
  switch (kind) {
    case BlockKind::Contiguous:
      return Ink::Contiguous;
    case BlockKind::Fragmented:
      return Ink::Fragmented;
    case BlockKind::System:
      return Ink::System;
    case BlockKind::Free:
      break;
  }
  return Ink::Free;
}

/// Signs that can be told apart without any colour.
std::string_view signOf(Ink ink, bool unicode) {
  switch (ink) {
    case Ink::Contiguous:
      return unicode ? "░" : "o";
    case Ink::Fragmented:
      return unicode ? "█" : "#";
    case Ink::System:
      return unicode ? "▒" : "m";
    case Ink::Moving:
      return unicode ? "◆" : "@";
    default:
      return unicode ? "·" : ".";
  }
}

bool glows(const Rewrite& run, double now, size_t cell, size_t cells, size_t tiles) {
  const size_t first = cell * tiles / cells;
  const size_t last = std::min(tiles, std::max(first + 1, (cell + 1) * tiles / cells));
  for (size_t tile = first; tile < last; ++tile) {
    if (now - run.lastTouched(tile) < kGlowSeconds) {
      return true;
    }
  }
  return false;
}

/// The two kinds of which there is the most, the one that stands lower first, and the share of that
/// one in eighths. Free blocks are always on top.
struct Mixture {
  BlockKind lower;
  BlockKind upper;
  size_t eighths;
};

Mixture mixtureOf(const BlockCounts& counts) {
  std::array<BlockKind, kBlockKinds> kinds = {BlockKind::Fragmented, BlockKind::Contiguous,
                                              BlockKind::System, BlockKind::Free};
  std::ranges::stable_sort(
      kinds, [&](BlockKind left, BlockKind right) { return counts.of(left) > counts.of(right); });
  BlockKind lower = kinds[0];
  BlockKind upper = counts.of(kinds[1]) == 0 ? kinds[0] : kinds[1];
  if (lower == BlockKind::Free) {
    std::swap(lower, upper);
  }
  if (lower == upper) {
    return {lower, upper, 8};
  }
  const uint64_t both = counts.of(lower) + counts.of(upper);
  const uint64_t share = (counts.of(lower) * 8 + both / 2) / both;
  return {lower, upper, std::clamp<size_t>(static_cast<size_t>(share), 1, 7)};
}

void paintMixed(Canvas& canvas, size_t row, size_t column, const BlockCounts& counts) {
  const Mixture mixture = mixtureOf(counts);
  if (mixture.lower == mixture.upper) {
    canvas.put(row, column, " ", {.ground = inkOf(mixture.lower)});
  } else {
    canvas.put(row, column, kEighths[mixture.eighths],
               {.ink = inkOf(mixture.lower), .ground = inkOf(mixture.upper)});
  }
}

}  // namespace

void paintMap(Canvas& canvas, Area area, const TileMap& map, const Rewrite* run, Drawing drawing) {
  const size_t cells = map.tileCount() == 0 ? 0 : area.rows * area.columns;
  const double now = run == nullptr ? 0 : run->now();
  for (size_t cell = 0; cell < cells; ++cell) {
    const size_t row = area.row + cell / area.columns;
    const size_t column = area.column + cell % area.columns;
    const BlockCounts counts = map.cell(cell, cells);
    const bool moving =
        run != nullptr && !run->isOver() && glows(*run, now, cell, cells, map.tileCount());
    if (drawing.colours && drawing.unicode) {
      if (moving) {
        canvas.put(row, column, " ", {.ground = Ink::Moving});
      } else {
        paintMixed(canvas, row, column, counts);
      }
      continue;
    }
    const Ink ink = moving ? Ink::Moving : inkOf(counts.dominant());
    canvas.put(row, column, signOf(ink, drawing.unicode), {.ink = ink, .bold = ink == Ink::Moving});
  }
}

void paintLegend(Canvas& canvas, size_t row, size_t column, size_t width, bool running,
                 Drawing drawing) {
  struct Entry {
    Ink ink;
    std::string_view text;
    std::string_view shortText;
  };
  constexpr std::array<Entry, 5> kEntries = {{
      {Ink::Contiguous, "files in one piece", "one piece"},
      {Ink::Fragmented, "files in several pieces", "several pieces"},
      {Ink::System, "metadata and immovable", "metadata"},
      {Ink::Free, "free", "free"},
      {Ink::Moving, "being moved", "moving"},
  }};
  size_t longWidth = 0;
  for (const Entry& entry : kEntries) {
    longWidth += entry.text.size() + 5;
  }
  const size_t end = column + width;
  for (const Entry& entry : kEntries) {
    if (entry.ink == Ink::Moving && !running) {
      continue;
    }
    const std::string_view text = longWidth <= width ? entry.text : entry.shortText;
    if (column + text.size() + 3 > end) {
      return;
    }
    if (drawing.colours && drawing.unicode) {
      column = canvas.put(row, column, "  ", {.ground = entry.ink});
    } else {
      column = canvas.put(row, column, signOf(entry.ink, drawing.unicode), {.ink = entry.ink});
    }
    column = canvas.put(row, column + 1, text, {.dim = true}) + 2;
  }
}

}  // namespace view
