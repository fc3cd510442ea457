#include "report/HtmlMap.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

#include "report/Html.hpp"

namespace view {

namespace {

// A square's side and its distance to the next, in units of the drawing; heights are whole units.
constexpr size_t kSide = 16;
constexpr size_t kPitch = 18;

struct Layer {
  BlockKind kind;
  const char* cssClass;
};
// From the bottom of a square up.
constexpr std::array<Layer, 3> kLayers = {{{BlockKind::System, "system"},
                                           {BlockKind::Contiguous, "contiguous"},
                                           {BlockKind::Fragmented, "fragmented"}}};

/// Whole units for each layer. What is there at all gets at least one.
std::array<size_t, kLayers.size()> heightsOf(const BlockCounts& counts) {
  std::array<size_t, kLayers.size()> heights = {};
  size_t sum = 0;
  for (size_t layer = 0; layer < kLayers.size(); ++layer) {
    const uint64_t blocks = counts.of(kLayers[layer].kind);
    if (blocks > 0) {
      const double share = static_cast<double>(blocks) / static_cast<double>(counts.total());
      heights[layer] = std::max<size_t>(1, static_cast<size_t>(std::lround(share * kSide)));
    }
    sum += heights[layer];
  }
  while (sum > kSide) {
    --*std::ranges::max_element(heights);
    --sum;
  }
  return heights;
}

std::string square(size_t x, size_t y, size_t height) {
  const std::string side = std::to_string(kSide);
  return "M" + std::to_string(x) + " " + std::to_string(y) + "h" + side + "v" +
         std::to_string(height) + "h-" + side + "z";
}

}  // namespace

std::string htmlMap(const TileMap& map, size_t columns, size_t cellsMax, const std::string& title) {
  const size_t cells = std::min(cellsMax, map.tileCount());
  columns = std::max<size_t>(1, std::min(columns, cells));
  const size_t rows = (cells + columns - 1) / columns;
  std::string ground;
  std::array<std::string, kLayers.size()> paths;
  for (size_t cell = 0; cell < cells; ++cell) {
    const size_t x = cell % columns * kPitch;
    const size_t top = cell / columns * kPitch;
    ground += square(x, top, kSide);
    const auto heights = heightsOf(map.cell(cell, cells));
    size_t bottom = top + kSide;
    for (size_t layer = 0; layer < kLayers.size(); ++layer) {
      if (heights[layer] > 0) {
        bottom -= heights[layer];
        paths[layer] += square(x, bottom, heights[layer]);
      }
    }
  }
  std::string svg = "<svg class=\"map\" role=\"img\" aria-label=\"" + html(title) +
                    "\" viewBox=\"0 0 " + std::to_string(columns * kPitch) + " " +
                    std::to_string(rows * kPitch) + "\"><path class=\"free\" d=\"" + ground +
                    "\"/>";
  for (size_t layer = 0; layer < kLayers.size(); ++layer) {
    svg +=
        std::string("<path class=\"") + kLayers[layer].cssClass + "\" d=\"" + paths[layer] + "\"/>";
  }
  return svg + "</svg>\n";
}

}  // namespace view
