#include "HFSPlus/HFSPlusBTreeBulkIterator.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "unit/HFSPlus/MemoryTree.hpp"
#include "unit/HFSPlus/SeededRandom.hpp"

namespace {

constexpr uint32_t kNodeSize = 4096;
constexpr uint32_t kChunkNodes = 256;  // a mebibyte
constexpr uint32_t kNodes = 3 * kChunkNodes + 3;

using Nodes = std::vector<uint32_t>;
using Reads = std::vector<MemoryTreeVolume::Read>;

class HFSPlusBTreeBulkIteratorTest : public testing::Test {
 protected:
  void open() {
    iterator.reset();
    tree = openPlainTree(volume);
    auto opened = HFSPlusBTreeBulkIterator::open(*tree);
    ASSERT_TRUE(opened) << messageOf(opened);
    iterator = *std::move(opened);
    volume.reads.clear();
  }
  /// The next node's number; none at the end.
  std::optional<uint32_t> next() {
    auto node = iterator->nextCachedNode();
    EXPECT_TRUE(node) << messageOf(node);
    return node && *node ? std::optional((*node)->index()) : std::nullopt;
  }
  Nodes rest() {
    Nodes nodes;
    while (const auto index = next()) {
      nodes.push_back(*index);
    }
    return nodes;
  }
  void use(uint32_t first, uint32_t count) {
    for (uint32_t index = first; index < first + count; ++index) {
      volume.setUsed(index, true);
    }
  }

  MemoryTreeVolume volume{kHFSCatalogFileID, kNodeSize, kNodes};
  std::unique_ptr<PlainTree> tree;
  std::unique_ptr<HFSPlusBTreeBulkIterator> iterator;
};

MemoryTreeVolume::Read read(uint64_t node, uint64_t nodes) {
  return {node * kNodeSize, nodes * kNodeSize};
}

}  // namespace

TEST_F(HFSPlusBTreeBulkIteratorTest, VisitsEveryNodeInUseInOrder) {
  use(3, 1);
  use(300, 2);
  use(kNodes - 1, 1);
  open();
  EXPECT_EQ(rest(), (Nodes{0, 3, 300, 301, kNodes - 1}));
}

TEST_F(HFSPlusBTreeBulkIteratorTest, EndStaysTheEnd) {
  open();
  EXPECT_EQ(rest(), Nodes{0});
  EXPECT_FALSE(next());
  EXPECT_FALSE(next());
}

TEST_F(HFSPlusBTreeBulkIteratorTest, ReadsAMebibyteAtATimeAndCutsTheLast) {
  use(0, kNodes);
  open();
  EXPECT_EQ(rest().size(), kNodes);
  EXPECT_EQ(volume.reads, (Reads{read(0, 256), read(256, 256), read(512, 256), read(768, 3)}));
}

TEST_F(HFSPlusBTreeBulkIteratorTest, UnusedStretchesAreNotRead) {
  use(kNodes - 10, 1);
  open();
  EXPECT_EQ(rest(), (Nodes{0, kNodes - 10}));
  EXPECT_EQ(volume.reads, (Reads{read(0, 256), read(kNodes - 10, 10)}));
}

TEST_F(HFSPlusBTreeBulkIteratorTest, ChunkWithOneNodeInUseTakesOneRead) {
  use(400, 1);
  open();
  EXPECT_EQ(next(), 0U);
  EXPECT_EQ(next(), 400U);
  EXPECT_EQ(volume.reads.size(), 2U);
}

TEST_F(HFSPlusBTreeBulkIteratorTest, WhatIsVisitedDoesNotPushOthersOutOfTheCache) {
  use(0, kNodes);
  open();
  tree->setNodeCacheSize(2 * kNodeSize);
  EXPECT_TRUE(tree->cachedNodeWithIndex(20));
  EXPECT_TRUE(tree->cachedNodeWithIndex(700));
  EXPECT_EQ(rest().size(), kNodes);
  EXPECT_TRUE(tree->nodeCache().contains(20));
  EXPECT_TRUE(tree->nodeCache().contains(700));
  EXPECT_EQ(tree->nodeCache().nodeCount(), 2U);
}

TEST_F(HFSPlusBTreeBulkIteratorTest, BitsBeyondTheLastNodeAreNotLookedAt) {
  // The map's last byte has clear bits for nodes that do not exist.
  static_assert(kNodes % 8 != 0);
  use(kNodes - 1, 1);
  volume.node(0)[248 + kNodes / 8] |= std::byte{0xFF} >> (kNodes % 8);
  open();
  EXPECT_EQ(rest(), (Nodes{0, kNodes - 1}));
}

TEST_F(HFSPlusBTreeBulkIteratorTest, CachedNodeWinsOverTheFile) {
  use(5, 1);
  open();
  (*tree->cachedNodeWithIndex(5))->setFLink(99);
  EXPECT_EQ(next(), 0U);
  const auto node = iterator->nextCachedNode();
  EXPECT_EQ((*node)->fLink(), 99U);
}

TEST_F(HFSPlusBTreeBulkIteratorTest, MapIsThatOfTheMapNodesAtCreation) {
  use(5, 1);
  tree = openPlainTree(volume);
  tree->markNodeAsUsed(6);
  iterator = *HFSPlusBTreeBulkIterator::open(*tree);
  EXPECT_EQ(rest(), (Nodes{0, 5}));
  iterator = *HFSPlusBTreeBulkIterator::open(*tree);
  tree->markNodeAsFree(5);
  ASSERT_TRUE(tree->flush());
  EXPECT_EQ(rest(), (Nodes{0, 5}));
  iterator = *HFSPlusBTreeBulkIterator::open(*tree);
  EXPECT_EQ(rest(), (Nodes{0, 6}));
}

TEST_F(HFSPlusBTreeBulkIteratorTest, NodesOfTheChunkAreAtHandForOthers) {
  use(1, kNodes - 1);
  volume.node(9)[3] = std::byte{99};  // of its link forward
  open();
  EXPECT_EQ(next(), 0U);
  volume.reads.clear();
  EXPECT_EQ((*tree->cachedNodeWithIndex(9))->fLink(), 99U);
  EXPECT_EQ(volume.reads, Reads{});
  EXPECT_TRUE(tree->cachedNodeWithIndex(kChunkNodes));
  EXPECT_EQ(volume.reads, Reads{read(kChunkNodes, 1)});
  iterator.reset();
  EXPECT_TRUE(tree->cachedNodeWithIndex(10));
  EXPECT_EQ(volume.reads.back(), read(10, 1));
}

TEST_F(HFSPlusBTreeBulkIteratorTest, NodeWrittenSinceTheChunkWasReadIsNotTakenFromIt) {
  use(1, 20);
  open();
  tree->setNodeCacheSize(kNodeSize);
  EXPECT_EQ(next(), 0U);
  (*tree->cachedNodeWithIndex(9))->setFLink(99);
  EXPECT_TRUE(tree->cachedNodeWithIndex(8));  // pushes node 9 out of the cache
  EXPECT_FALSE(tree->nodeCache().contains(9));
  for (uint32_t index = 1; index < 9; ++index) {
    EXPECT_EQ(next(), index);
  }
  EXPECT_EQ((*iterator->nextCachedNode())->fLink(), 99U);
}

TEST_F(HFSPlusBTreeBulkIteratorTest, DirtyNodesThatAChunkPushesOutAreNotBroughtBackAsTheyWere) {
  SeededRandom random;
  SCOPED_TRACE(random.seedText());
  use(1, kNodes - 1);
  for (const uint32_t limit : {1U, 2U, 10U, 300U, kNodes}) {
    open();
    tree->setNodeCacheSize(limit * kNodeSize);
    std::vector<uint32_t> links(kNodes);
    for (uint32_t expected = 1; expected < kNodes; ++expected) {
      const auto node = iterator->nextCachedNode();
      ASSERT_TRUE(node && *node);
      ASSERT_EQ((*node)->fLink(), links[(*node)->index()]);
      if (random.oneIn(4)) {
        const uint32_t changed = 1 + random.below(kNodes - 1);
        (*tree->cachedNodeWithIndex(changed))->setFLink(++links[changed]);
      }
    }
    iterator.reset();
    tree.reset();
    volume.heldWrites().clear();
  }
}

TEST_F(HFSPlusBTreeBulkIteratorTest, IterationGoesOnBehindAChunkThatCannotBeRead) {
  use(0, 300);
  open();
  EXPECT_EQ(next(), 0U);
  volume.unreadableNodes = {256};
  for (uint32_t index = 1; index < 256; ++index) {
    EXPECT_EQ(next(), index);
  }
  EXPECT_EQ(messageOf(iterator->nextCachedNode()), "Read failure.");
  EXPECT_EQ(next(), 257U);
}

TEST_F(HFSPlusBTreeBulkIteratorTest, IterationGoesOnBehindABrokenNode) {
  use(0, 3);
  volume.node(1)[10] = std::byte{0xFF};
  open();
  EXPECT_EQ(next(), 0U);
  EXPECT_EQ(messageOf(iterator->nextCachedNode()), "Plain tree is inconsistent.");
  EXPECT_EQ(next(), 2U);
  EXPECT_FALSE(next());
}

TEST(HFSPlusBTreeBulkIteratorMap, IsJoinedFromAllMapNodes) {
  constexpr uint32_t kManyNodes = 2048 + 3936 + 3936 + 5;
  MemoryTreeVolume volume(kHFSCatalogFileID, 512, kManyNodes);
  for (const uint32_t index : {2047U, 2048U, 6000U, kManyNodes - 1}) {
    volume.setUsed(index, true);
  }
  const auto tree = openPlainTree(volume);
  const auto iterator = *HFSPlusBTreeBulkIterator::open(*tree);
  Nodes nodes;
  for (auto node = iterator->nextCachedNode(); *node; node = iterator->nextCachedNode()) {
    nodes.push_back((*node)->index());
  }
  EXPECT_EQ(nodes, (Nodes{0, 1, 2, 3, 2047, 2048, 6000, kManyNodes - 1}));
}

TEST(HFSPlusBTreeBulkIteratorMap, ErrorsOfItsNodesAreThoseOfTheCreation) {
  MemoryTreeVolume volume(kHFSCatalogFileID, 512, 5000);
  const auto tree = openPlainTree(volume);
  ASSERT_TRUE(tree->discardChanges());
  tree->setNodeCacheSize(512);
  EXPECT_TRUE(tree->cachedNodeWithIndex(100));
  volume.unreadableNodes = {1};
  EXPECT_EQ(messageOf(HFSPlusBTreeBulkIterator::open(*tree)), "Read failure.");
}
