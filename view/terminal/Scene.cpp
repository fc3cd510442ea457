#include "terminal/Scene.hpp"

#include <algorithm>
#include <array>
#include <utility>

#include "base/Text.hpp"

namespace view {

namespace {

constexpr size_t kMargin = 1;
constexpr size_t kListColumnsMin = 60;
constexpr size_t kListColumnsMax = 110;
constexpr size_t kGap = 3;

void paintTooSmall(Canvas& canvas) {
  const std::array<std::string, 2> lines = {"This window is a little small.",
                                            "Make it at least " + std::to_string(kSceneColumnsMin) +
                                                " by " + std::to_string(kSceneRowsMin) + "."};
  size_t row = canvas.rows() > lines.size() ? (canvas.rows() - lines.size()) / 2 : 0;
  for (const std::string& line : lines) {
    const size_t width = displayWidth(line);
    canvas.put(row++, canvas.columns() > width ? (canvas.columns() - width) / 2 : 0, line);
  }
}

void paintTitle(Canvas& canvas, const Scene& scene, Drawing drawing) {
  const Style style = drawing.colours
                          ? Style{.ink = Ink::Plain, .ground = Ink::Accent, .bold = true}
                          : Style{.reverse = true};
  canvas.fill(0, 0, 1, canvas.columns(), style);
  std::string size;
  if (scene.picture != nullptr && scene.picture->blocks() > 0) {
    size = prettyBlocks(*scene.picture, scene.picture->blocks());
  }
  const size_t room = canvas.columns() - displayWidth(size) - 4 * kMargin;
  canvas.put(0, kMargin, fitMiddle(visibleText(scene.device), room), style);
  canvas.putRight(0, canvas.columns() - kMargin, size, style);
}

/// "Reading … ████████░░░░░░  45 %" over the whole width.
void paintBar(Canvas& canvas, size_t row, const std::string& label, int percent, Drawing drawing) {
  const size_t column = canvas.put(row, kMargin, label, {.bold = true}) + 2;
  const size_t end = canvas.columns() - kMargin - 7;
  canvas.putRight(row, canvas.columns() - kMargin, std::to_string(percent) + " %", {.bold = true});
  if (column + 10 > end) {
    return;
  }
  const size_t full = (end - column) * static_cast<size_t>(percent) / 100;
  for (size_t place = column; place < end; ++place) {
    const bool isDone = place - column < full;
    if (drawing.colours) {
      canvas.put(row, place, " ", {.ground = isDone ? Ink::Contiguous : Ink::Free});
    } else {
      canvas.put(row, place, isDone ? "#" : drawing.unicode ? "·" : ".", {.bold = isDone});
    }
  }
}

std::string runFigures(const Picture& picture, const Rewrite& run) {
  const RunMeter& meter = run.meter();
  const double now = run.now();
  std::string text = prettyBlocks(picture, meter.blocksMoved()) + " moved";
  text += " · " + prettyBlocks(picture, static_cast<uint64_t>(meter.rate(now))) + "/s";
  text += " · " + prettyDuration(meter.elapsed(now)) + " elapsed";
  if (const auto left = meter.remaining(now); left && !run.isCancelled()) {
    text += " · about " + prettyDuration(*left) + " left";
  }
  return text;
}

void paintSummary(Canvas& canvas, const Scene& scene, Drawing drawing) {
  constexpr size_t kRow = 2;
  const size_t width = canvas.columns() - 2 * kMargin;
  if (scene.run != nullptr) {
    const std::string label = scene.run->isCancelled()     ? "Stopping at the next safe point"
                              : scene.run->order().compact ? "Compacting"
                                                           : "Defragmenting";
    paintBar(canvas, kRow, label, scene.run->meter().percent(), drawing);
    canvas.put(kRow + 1, kMargin, runFigures(*scene.picture, *scene.run), {}, width);
    return;
  }
  if (scene.examination != nullptr) {
    paintBar(canvas, kRow, scene.examination->activity(), scene.examination->percent(), drawing);
    if (scene.examination->filesSeen() > 0) {
      canvas.put(kRow + 1, kMargin, prettyCount(scene.examination->filesSeen()) + " files so far",
                 {.dim = true}, width);
    }
    return;
  }
  if (scene.picture == nullptr) {
    return;
  }
  const Picture& picture = *scene.picture;
  const BlockCounts total = picture.map.total();
  canvas.put(kRow, kMargin,
             prettyCount(picture.files) + " files in " + prettyCount(picture.pieces) +
                 " pieces · " + prettyCount(picture.fragmentedFiles) + " fragmented (" +
                 prettyShare(picture.fragmentedFiles, picture.files) + "), " +
                 prettyShare(picture.fragmentedBlocks, picture.fileBlocks) + " of the data",
             {}, width);
  canvas.put(kRow + 1, kMargin,
             prettyBlocks(picture, total.used()) + " in use (" +
                 prettyShare(total.used(), picture.blocks()) + ") · " +
                 prettyBlocks(picture, total.free) + " free in " + prettyCount(picture.freeRuns) +
                 " runs, the largest " + prettyBlocks(picture, picture.largestFreeRun),
             {}, width);
}

void paintBody(Canvas& canvas, Scene& scene, Drawing drawing) {
  constexpr size_t kTop = 5;
  Area area = {kTop, kMargin, canvas.rows() - kTop - 3, canvas.columns() - 2 * kMargin};
  const bool both = canvas.columns() >= kSceneColumnsOfBoth;
  if (both) {
    const size_t list = std::clamp(area.columns * 2 / 5, kListColumnsMin, kListColumnsMax);
    Area right = {area.row, area.column + area.columns - list, area.rows, list};
    area.columns -= list + kGap;
    scene.files->paint(canvas, right, scene.typingFilter, drawing);
  } else if (scene.page == Scene::Page::Files) {
    scene.files->paint(canvas, area, scene.typingFilter, drawing);
    return;
  }
  if (scene.picture != nullptr) {
    paintMap(canvas, area, scene.picture->map, scene.run, drawing);
    paintLegend(canvas, canvas.rows() - 2, kMargin, canvas.columns() - 2 * kMargin,
                scene.run != nullptr, drawing);
  }
}

void paintKeys(Canvas& canvas, const Scene& scene) {
  using Keys = std::vector<std::pair<const char*, const char*>>;
  const bool both = canvas.columns() >= kSceneColumnsOfBoth;
  const bool filesShown = both || scene.page == Scene::Page::Files;
  Keys keys;
  if (scene.typingFilter) {
    keys = {{"Enter", "keep"}, {"Esc", "no filter"}};
  } else if (scene.run != nullptr) {
    keys = {{"x", "stop"}};
  } else if (scene.examination == nullptr) {
    keys = {{"d", "defragment"}, {"c", "compact"}};
  }
  if (!scene.typingFilter) {
    if (!both) {
      keys.emplace_back("Tab", filesShown ? "map" : "files");
    }
    if (filesShown) {
      keys.insert(keys.end(), {{"/", "filter"}, {"s", "sort"}, {"l", "list"}});
    }
    if (scene.run == nullptr && scene.examination == nullptr) {
      keys.emplace_back("r", "look again");
    }
    keys.insert(keys.end(), {{"h", "help"}, {"q", "quit"}});
  }
  size_t column = kMargin;
  const size_t row = canvas.rows() - 1;
  for (const auto& [key, meaning] : keys) {
    if (column + displayWidth(key) + displayWidth(meaning) + 1 > canvas.columns()) {
      return;
    }
    column = canvas.put(row, column, key, {.ink = Ink::Accent, .bold = true});
    column = canvas.put(row, column + 1, meaning) + 2;
  }
}

void paintDialog(Canvas& canvas, const Dialog& dialog, Drawing drawing) {
  size_t width = displayWidth(dialog.title);
  for (const std::string& line : dialog.lines) {
    width = std::max(width, displayWidth(line));
  }
  const std::string prompt = dialog.onYes ? "y: yes   any other key: no" : "any key goes on";
  width = std::min(std::max(width, displayWidth(prompt)) + 4, canvas.columns() - 4);
  const size_t rows = std::min(dialog.lines.size() + 6, canvas.rows());
  const size_t top = (canvas.rows() - rows) / 2;
  const size_t left = (canvas.columns() - width) / 2;
  const size_t right = left + width - 1;
  const size_t bottom = top + rows - 1;
  const Style edge = {.ink = dialog.alarming ? Ink::Alert : Ink::Accent};
  canvas.fill(top, left, rows, width);
  for (size_t column = left; column <= right; ++column) {
    canvas.put(top, column, drawing.unicode ? "─" : "-", edge);
    canvas.put(bottom, column, drawing.unicode ? "─" : "-", edge);
  }
  for (size_t row = top; row <= bottom; ++row) {
    const bool isTop = row == top;
    const bool isCorner = isTop || row == bottom;
    const char* leftSign = !drawing.unicode ? (isCorner ? "+" : "|")
                           : isTop          ? "╭"
                           : isCorner       ? "╰"
                                            : "│";
    const char* rightSign = !drawing.unicode ? (isCorner ? "+" : "|")
                            : isTop          ? "╮"
                            : isCorner       ? "╯"
                                             : "│";
    canvas.put(row, left, leftSign, edge);
    canvas.put(row, right, rightSign, edge);
  }
  size_t row = top + 1;
  canvas.put(row++, left + 2, dialog.title,
             {.ink = dialog.alarming ? Ink::Alert : Ink::Plain, .bold = true}, width - 4);
  ++row;
  for (const std::string& line : dialog.lines) {
    if (row + 2 < bottom) {
      canvas.put(row++, left + 2, line, {}, width - 4);
    }
  }
  canvas.put(bottom - 1, left + 2, prompt, {.dim = true}, width - 4);
}

}  // namespace

void paintScene(Canvas& canvas, Scene& scene, Drawing drawing) {
  if (canvas.rows() < kSceneRowsMin || canvas.columns() < kSceneColumnsMin) {
    paintTooSmall(canvas);
    return;
  }
  paintTitle(canvas, scene, drawing);
  paintSummary(canvas, scene, drawing);
  canvas.put(4, kMargin, scene.message, {.ink = Ink::Accent}, canvas.columns() - 2 * kMargin);
  paintBody(canvas, scene, drawing);
  paintKeys(canvas, scene);
  if (scene.dialog != nullptr) {
    paintDialog(canvas, *scene.dialog, drawing);
  }
}

Dialog helpDialog() {
  return {.title = "Keys",
          .lines = {
              "d        defragment: every file in one piece",
              "c        compact: all data to the front",
              "x, Esc   stop a run at its next safe point",
              "r        look at the volume again",
              "Tab      map or files (both, in a wide window)",
              "l        most fragmented or largest files",
              "s, R     sort by pieces, size, path; reverse",
              "/        show only files whose path holds a text",
              "q, ^C    quit      ^Z  suspend      ^L  redraw",
          }};
}

}  // namespace view
