#include "model/SavedPicture.hpp"

#include <gtest/gtest.h>

#include "plain/SummaryText.hpp"

using namespace view;

namespace {

Picture sample() {
  Picture picture;
  picture.device = "/dev/sd\"b\n1";
  picture.takenAt = 1700000000;
  picture.blockBytes = 4096;
  picture.files = 3;
  picture.fragmentedFiles = 1;
  picture.pieces = 9;
  picture.fileBlocks = 700;
  picture.fragmentedBlocks = 300;
  picture.freeRuns = 2;
  picture.largestFreeRun = 90000;
  picture.piecesPerFile.add(7);
  picture.blocksPerFreeRun.add(90000);
  picture.map = TileMap(100001);
  picture.map.addUsed({0, 1000});
  picture.map.addFile({100, 300}, true);
  picture.map.addFile({400, 400}, false);
  picture.mostFragmented = {{7, "/<b>\u202E\xFF", 7, 300, true, -5}};
  picture.largest = {{9, "/plain", 1, 400, false, 12}};
  return picture;
}

/// The document with one piece of text in place of another.
std::string altered(const std::string& what, const std::string& by) {
  std::string text = pictureAsJson(sample());
  const size_t place = text.find(what);
  EXPECT_NE(place, std::string::npos) << what;
  return text.replace(place, what.size(), by);
}

}  // namespace

TEST(ViewSavedPictureTest, APictureComesBackAsItWasSaved) {
  const Picture picture = sample();
  const auto read = pictureFromJson(pictureAsJson(picture));
  ASSERT_TRUE(read) << read.error().message;
  EXPECT_EQ(read->device, picture.device);
  EXPECT_EQ(read->blockBytes, picture.blockBytes);
  EXPECT_EQ(read->blocks(), picture.blocks());
  EXPECT_EQ(read->map.total().fragmented, 300U);
  EXPECT_EQ(read->map.total().contiguous, 400U);
  EXPECT_EQ(read->map.total().system, 300U);
  EXPECT_EQ(read->piecesPerFile, picture.piecesPerFile);
  EXPECT_EQ(read->largest, picture.largest);
  ASSERT_EQ(read->mostFragmented.size(), 1U);
  EXPECT_EQ(read->mostFragmented[0].path, "/<b>\u202E\uFFFD");
  EXPECT_EQ(read->mostFragmented[0].modified, -5);
  EXPECT_EQ(summaryText(*read).substr(20), summaryText(picture).substr(20));
}

TEST(ViewSavedPictureTest, WhatDoesNotHoldTogetherIsRefused) {
  const std::pair<const char*, const char*> changes[] = {
      {"xrdefrag-view picture", "another"},
      {"\"version\": 1", "\"version\": 2"},
      {"\"blocks\": 100001", "\"blocks\": 100000000000"},
      {"\"blocks\": 100001", "\"blocks\": 5"},
      {"\"blockBytes\": 4096", "\"blockBytes\": 0"},
      {"\"contiguous\": [0", "\"contiguous\": [-1"},
      {"\"contiguous\": [0", "\"contiguous\": [4000000000"},
      {"\"contiguous\": [", "\"contiguous\": [1,"},
      {"\"files\": 3", "\"files\": \"3\""},
      {"\"piecesPerFile\": [", "\"piecesPerFile\": [[],"},
      {"\"pieces\": 7", "\"pieces\": -7"},
      {"\"path\"", "\"pith\""},
      {"{", "["},
  };
  for (const auto& [what, by] : changes) {
    EXPECT_FALSE(pictureFromJson(altered(what, by))) << what << " -> " << by;
  }
}

TEST(ViewSavedPictureTest, ItsSizeDoesNotFollowTheNumberOfFiles) {
  Picture picture = sample();
  picture.mostFragmented.assign(50000, {1, std::string(100, 'x'), 5, 5, true, 0});
  picture.map = TileMap(4'000'000'000);
  const auto read = pictureFromJson(pictureAsJson(picture));
  ASSERT_TRUE(read);
  EXPECT_EQ(read->mostFragmented.size(), kSavedFilesMax);
  EXPECT_LE(read->map.tileCount(), kSavedTilesMax);
}
