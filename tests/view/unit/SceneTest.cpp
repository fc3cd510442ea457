#include "terminal/Scene.hpp"

#include <gtest/gtest.h>

#include "terminal/Canvas.hpp"

using namespace view;

namespace {

constexpr Drawing kLetters = {.unicode = false, .colours = false};

Picture sample() {
  Picture picture;
  picture.blockBytes = 4096;
  picture.files = 3;
  picture.fragmentedFiles = 2;
  picture.pieces = 12;
  picture.fileBlocks = 600;
  picture.fragmentedBlocks = 300;
  picture.freeRuns = 1;
  picture.largestFreeRun = 400;
  picture.map = TileMap(1024);
  picture.map.addUsed({0, 624});
  picture.map.addFile({24, 300}, true);
  picture.map.addFile({324, 300}, false);
  picture.mostFragmented = {{1, "/b\033[2J", 7, 100, true, 0}, {2, "/a", 3, 200, true, 0}};
  picture.largest = {{3, "/whole", 1, 300, false, 0}};
  return picture;
}

struct Shown {
  Canvas canvas;
  bool holds(std::string_view text) const {
    for (size_t row = 0; row < canvas.rows(); ++row) {
      if (canvas.rowText(row).find(text) != std::string::npos) {
        return true;
      }
    }
    return false;
  }
};

Shown show(size_t rows, size_t columns, Drawing drawing = {}, Scene::Page page = Scene::Page::Map,
           const Dialog* dialog = nullptr) {
  const Picture picture = sample();
  FileList files;
  files.setPicture(&picture);
  Scene scene = {
      .device = "/dev/sdb2", .picture = &picture, .files = &files, .page = page, .dialog = dialog};
  Shown shown = {Canvas(rows, columns)};
  paintScene(shown.canvas, scene, drawing);
  return shown;
}

}  // namespace

TEST(ViewCanvasTest, TextIsCutAtTheEdgeAndWideCharactersTakeTwoColumns) {
  Canvas canvas(2, 6);
  EXPECT_EQ(canvas.put(0, 1, "日本"), 5U);
  EXPECT_EQ(canvas.rowText(0), " 日本");
  EXPECT_EQ(canvas.cell(0, 2).text, "");
  canvas.put(1, 3, "abcdef");
  EXPECT_EQ(canvas.rowText(1), "   ab…");
  EXPECT_EQ(canvas.put(7, 0, "beyond"), 0U);
  canvas.putRight(0, 6, "x");
  EXPECT_EQ(canvas.cell(0, 5).text, "x");
}

TEST(ViewSceneTest, AWindowThatIsTooSmallIsToldSo) {
  EXPECT_TRUE(show(10, 50).holds("This window is a little small."));
  EXPECT_TRUE(show(15, 200).holds("Make it at least 60 by 16."));
  EXPECT_FALSE(show(16, 60).holds("little small"));
  for (size_t rows = 0; rows < 4; ++rows) {
    for (size_t columns = 0; columns < 4; ++columns) {
      EXPECT_EQ(show(rows, columns).canvas.rows(), rows);
    }
  }
}

TEST(ViewSceneTest, EverySizeIsPaintedWithoutLeavingTheCanvas) {
  const Dialog help = helpDialog();
  for (size_t rows = 16; rows <= 80; rows += 7) {
    for (size_t columns = 60; columns <= 300; columns += 13) {
      for (const Scene::Page page : {Scene::Page::Map, Scene::Page::Files}) {
        EXPECT_TRUE(show(rows, columns, {}, page, &help).holds("any key goes on"));
      }
    }
  }
}

TEST(ViewSceneTest, TheMapFillsTheWindowAndSignsDoWithoutColour) {
  const Shown shown = show(24, 80, kLetters);
  const std::string first = shown.canvas.rowText(5);
  EXPECT_EQ(first, " " + std::string(30, 'm') + std::string(48, '#'));
  EXPECT_EQ(shown.canvas.rowText(20), " " + std::string(78, '.'));
}

TEST(ViewSceneTest, AMixedCellShowsItsTwoKindsInProportion) {
  Picture picture = sample();
  picture.map = TileMap(8, 1);
  picture.map.addUsed({0, 6});
  picture.map.addFile({0, 4}, true);
  Canvas canvas(1, 1);
  paintMap(canvas, {0, 0, 1, 1}, picture.map, nullptr, {});
  EXPECT_EQ(canvas.cell(0, 0).style.ink, Ink::Fragmented);
  EXPECT_EQ(canvas.cell(0, 0).style.ground, Ink::System);
  EXPECT_EQ(canvas.cell(0, 0).text, "▅");
}

TEST(ViewSceneTest, AWideWindowShowsMapAndListTogether) {
  const Shown wide = show(80, 300);
  EXPECT_TRUE(wide.holds("Most fragmented files"));
  EXPECT_TRUE(wide.holds("files in one piece"));
  EXPECT_FALSE(show(24, 80).holds("Most fragmented files"));
  EXPECT_TRUE(show(24, 80, {}, Scene::Page::Files).holds("Most fragmented files"));
}

TEST(ViewSceneTest, NamesCannotSteerTheTerminal) {
  const Shown shown = show(24, 80, {}, Scene::Page::Files);
  EXPECT_TRUE(shown.holds("/b␛[2J"));
  EXPECT_FALSE(shown.holds("\033"));
}

TEST(ViewSceneTest, ADialogStandsInFrontOfEverything) {
  const Dialog question = {"Defragment this volume?", {"/dev/sdb2"}, [] {}};
  const Shown shown = show(24, 80, {}, Scene::Page::Map, &question);
  EXPECT_TRUE(shown.holds("Defragment this volume?"));
  EXPECT_TRUE(shown.holds("y: yes   any other key: no"));
}

TEST(ViewFileListTest, OrderFilterAndSelectionGoTogether) {
  const Picture picture = sample();
  FileList files;
  files.setPicture(&picture);
  ASSERT_EQ(files.count(), 2U);
  EXPECT_EQ(files.file(0).id, 1U);
  files.nextOrder();  // by size
  EXPECT_EQ(files.file(0).id, 2U);
  files.nextOrder();  // by path
  EXPECT_EQ(files.file(0).path, "/a");
  files.reverse();
  EXPECT_EQ(files.file(0).id, 1U);
  files.moveBy(5);
  EXPECT_EQ(files.selected(), 1U);
  files.setFilter("A");
  EXPECT_EQ(files.count(), 1U);
  EXPECT_EQ(files.selected(), 0U);
  files.setFilter("none such");
  EXPECT_EQ(files.count(), 0U);
  files.moveToEnd(true);
  files.setFilter("");
  files.nextSource();
  EXPECT_EQ(files.file(0).path, "/whole");
  EXPECT_EQ(files.title(), "Largest files, by size");
}
