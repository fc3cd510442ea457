#include "HFSPlus/HFSPlusCatalogPlaces.hpp"

#include <gtest/gtest.h>

namespace {

using Place = HFSPlusCatalogPlaces::Place;

constexpr uint64_t kKey = 0x123456789;
constexpr uint64_t kOtherKey = 0x12345678A;

/// The node of an ID's place; 0 when there is none.
uint32_t nodeOf(const HFSPlusCatalogPlaces& places, uint32_t cnid) {
  return places.find(cnid).value_or(Place{}).node;
}

}  // namespace

TEST(HFSPlusCatalogPlaces, NothingIsRememberedAtFirst) {
  const HFSPlusCatalogPlaces places;
  EXPECT_FALSE(places.find(0));
  EXPECT_FALSE(places.find(16));
  EXPECT_FALSE(places.isComplete());
}

TEST(HFSPlusCatalogPlaces, APlaceThatWasFoundCountsByItself) {
  HFSPlusCatalogPlaces places;
  places.add(16, {7, 3});
  ASSERT_TRUE(places.find(16));
  EXPECT_EQ(places.find(16)->node, 7U);
  EXPECT_EQ(places.find(16)->record, 3U);
  EXPECT_FALSE(places.find(17));
}

TEST(HFSPlusCatalogPlaces, TheLastOfThoseThatShareACellStays) {
  HFSPlusCatalogPlaces places;
  places.add(16, {7, 3});
  places.add(16 + 262144, {8, 4});
  EXPECT_FALSE(places.find(16));
  EXPECT_EQ(nodeOf(places, 16 + 262144), 8U);
}

TEST(HFSPlusCatalogPlaces, RecordAndThreadCountTogetherInEitherOrder) {
  HFSPlusCatalogPlaces places;
  places.addRecord(16, {7, 3}, kKey);
  EXPECT_FALSE(places.find(16));
  places.addThread(16, kKey);
  EXPECT_EQ(nodeOf(places, 16), 7U);
  places.addThread(17, kKey);
  EXPECT_FALSE(places.find(17));
  places.addRecord(17, {8, 4}, kKey);
  EXPECT_EQ(nodeOf(places, 17), 8U);
}

TEST(HFSPlusCatalogPlaces, AThreadThatLeadsElsewhereDoesNotCount) {
  HFSPlusCatalogPlaces places;
  places.addRecord(16, {7, 3}, kKey);
  places.addThread(16, kOtherKey);
  EXPECT_FALSE(places.find(16));
  places.addThread(17, kKey);
  places.addRecord(17, {8, 4}, kOtherKey);
  EXPECT_FALSE(places.find(17));
}

TEST(HFSPlusCatalogPlaces, ForgetsEverything) {
  HFSPlusCatalogPlaces places;
  places.add(16, {7, 3});
  places.setComplete();
  places.forgetAll();
  EXPECT_FALSE(places.find(16));
  EXPECT_FALSE(places.isComplete());
}
