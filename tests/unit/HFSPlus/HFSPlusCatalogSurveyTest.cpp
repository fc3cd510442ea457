#include "HFSPlus/HFSPlusCatalogSurvey.hpp"

#include <gtest/gtest.h>

#include "unit/HFSPlus/MemoryCatalog.hpp"

namespace {

/// smallTree() with several leaves below several index nodes.
MemoryCatalog deepTree() {
  MemoryCatalog tree = smallTree();
  tree.recordsPerLeaf = 2;
  tree.recordsPerIndexNode = 2;
  tree.build();
  return tree;
}

void addAllNodes(HFSPlusCatalog& catalog, HFSPlusCatalogSurvey& survey) {
  for (uint32_t index = 0; index < catalog.nodeCount(); index++) {
    survey.addNode(*catalog.cachedNodeWithIndex(index).value());
  }
}

std::unique_ptr<HFSPlusCatalog> surveyed(MemoryCatalog& tree) {
  auto catalog = tree.open();
  HFSPlusCatalogSurvey survey(*catalog);
  addAllNodes(*catalog, survey);
  survey.finish();
  return catalog;
}

/// Flips a bit of an index record at a distance from its beginning: 2 for the parent ID of its key.
void damageIndexRecord(MemoryCatalog& tree, uint32_t record, size_t offset) {
  tree.record({tree.rootNode(), record})[offset] ^= std::byte{1};
}

}  // namespace

TEST(HFSPlusCatalogSurvey, EveryFileIsFoundInOneNode) {
  MemoryCatalog tree = deepTree();
  const auto catalog = surveyed(tree);
  EXPECT_TRUE(catalog->places().isComplete());
  for (const uint32_t cnid : {22U, 23U, 24U}) {
    ASSERT_TRUE(catalog->discardChanges());
    tree.takeBytesRead();
    EXPECT_EQ(catalog->copyRecordForCNID(cnid)->itemID(), cnid);
    EXPECT_EQ(tree.takeBytesRead(), tree.nodeSize) << cnid;
  }
}

TEST(HFSPlusCatalogSurvey, ATreeOfOneLeafIsWhole) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = surveyed(tree);
  EXPECT_TRUE(catalog->places().isComplete());
  EXPECT_TRUE(catalog->places().find(22));
}

TEST(HFSPlusCatalogSurvey, AFileWhoseThreadLeadsElsewhereIsNotNoted) {
  MemoryCatalog tree = deepTree();
  // The last byte of the parent ID that it leads to.
  tree.recordData(22, u"")[7] ^= std::byte{1};
  const auto catalog = surveyed(tree);
  EXPECT_TRUE(catalog->places().isComplete());
  EXPECT_FALSE(catalog->places().find(22));
  EXPECT_TRUE(catalog->places().find(23));
}

TEST(HFSPlusCatalogSurvey, GivenUpItLeavesNothingNoted) {
  MemoryCatalog tree = deepTree();
  const auto catalog = tree.open();
  {
    HFSPlusCatalogSurvey survey(*catalog);
    addAllNodes(*catalog, survey);
    EXPECT_TRUE(catalog->places().find(22));
  }
  EXPECT_FALSE(catalog->places().find(22));
}

TEST(HFSPlusCatalogSurvey, NothingCountsWhenANodeIsMissing) {
  MemoryCatalog tree = deepTree();
  const auto catalog = tree.open();
  for (uint32_t missing = 1; missing < catalog->nodeCount(); missing++) {
    {
      HFSPlusCatalogSurvey survey(*catalog);
      for (uint32_t index = 1; index < catalog->nodeCount(); index++) {
        if (index != missing) {
          survey.addNode(*catalog->cachedNodeWithIndex(index).value());
        }
      }
      survey.finish();
    }
    EXPECT_FALSE(catalog->places().isComplete()) << missing;
    EXPECT_FALSE(catalog->places().find(22)) << missing;
  }
}

TEST(HFSPlusCatalogSurvey, NothingCountsWhenAnIndexRecordHasAnotherKeyThanItsChild) {
  MemoryCatalog tree = deepTree();
  damageIndexRecord(tree, 1, 5);
  EXPECT_FALSE(surveyed(tree)->places().find(22));
}

TEST(HFSPlusCatalogSurvey, NothingCountsWhenAnIndexRecordLeadsElsewhere) {
  MemoryCatalog tree = deepTree();
  const auto record = tree.record({tree.rootNode(), 0});
  damageIndexRecord(tree, 0, record.size() - 1);
  EXPECT_FALSE(surveyed(tree)->places().find(22));
}

TEST(HFSPlusCatalogSurvey, NothingCountsWhenRecordsAreOutOfOrder) {
  MemoryCatalog tree = smallTree();
  tree.build();
  // The third of the leaf's records, which nobody above has a key of.
  writeBigEndian(tree.record({tree.firstLeaf(), 2}).data() + 2, uint32_t{1});
  EXPECT_FALSE(surveyed(tree)->places().find(22));
}
