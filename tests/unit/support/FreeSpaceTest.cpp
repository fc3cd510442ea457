#include "support/FreeSpace.hpp"

#include <gtest/gtest.h>

using namespace support;

TEST(FreeSpace, TakesOnlyWhatIsFree) {
  FreeSpace space({10, 90});
  EXPECT_TRUE(space.take({20, 10}));
  EXPECT_FALSE(space.take({29, 1}));
  EXPECT_FALSE(space.take({15, 10}));
  EXPECT_FALSE(space.take({99, 2}));
  EXPECT_FALSE(space.take({5, 6}));
  EXPECT_EQ(space.freeBlocks(), 80u);
  EXPECT_EQ(space.longest(), 70u);
}

TEST(FreeSpace, APieceGoesNearTheWantedPlaceOrWhereItFitsBest) {
  FreeSpace space({0, 100});
  ASSERT_TRUE(space.take({40, 10}));
  EXPECT_EQ(space.takePiece(5, 42, 100), (BlockExtent{50, 5}));
  EXPECT_EQ(space.takePiece(45, 60, 100), (BlockExtent{55, 45}));
  EXPECT_EQ(space.takePiece(41, 0, 100), std::nullopt);
}

TEST(FreeSpace, WhatIsGivenBackJoinsItsNeighbours) {
  FreeSpace space({0, 100});
  ASSERT_TRUE(space.take({40, 10}));
  ASSERT_TRUE(space.take({50, 10}));
  space.giveBack({40, 10});
  space.giveBack({50, 10});
  EXPECT_EQ(space.longest(), 100u);
  EXPECT_EQ(space.runsFrom(30), (std::vector<BlockExtent>{{30, 70}}));
}
