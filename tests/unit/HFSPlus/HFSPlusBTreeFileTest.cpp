#include "HFSPlus/HFSPlusBTreeFile.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <list>
#include <map>
#include <string>
#include <vector>

#include "unit/HFSPlus/MemoryTree.hpp"
#include "unit/HFSPlus/SeededRandom.hpp"

namespace {

constexpr uint32_t kNodeSize = 512;
constexpr uint32_t kNodes = 100;
constexpr std::string_view kHeaderError = "B-Tree header is inconsistent.";
constexpr std::string_view kMapError = "B-Tree file has inconsistent map node.";
constexpr std::string_view kInconsistent = "Plain tree is inconsistent.";

using Nodes = std::vector<uint32_t>;

class HFSPlusBTreeFileTest : public testing::Test {
 protected:
  std::string openMessage() { return messageOf(PlainTree::open(volume, kHFSCatalogFileID)); }

  /// Gets a node, changes it, and gives it back.
  void touch(PlainTree& tree, uint32_t index) {
    auto node = tree.cachedNodeWithIndex(index);
    ASSERT_TRUE(node) << messageOf(node);
    (*node)->setFLink((*node)->fLink() + 1);
  }
  void visit(PlainTree& tree, uint32_t index) {
    auto node = tree.cachedNodeWithIndex(index);
    ASSERT_TRUE(node) << messageOf(node);
  }

  MemoryTreeVolume volume{kHFSCatalogFileID, kNodeSize, kNodes};
};

/// A tree whose map takes several map nodes.
constexpr uint32_t kManyNodes = 2048 + 3936 + 3936 + 5;

}  // namespace

// Opening

TEST_F(HFSPlusBTreeFileTest, HeaderIsReadInHostOrder) {
  volume.editHeader([](BTHeaderRec& header) {
    header.treeDepth = 2;
    header.rootNode = 5;
    header.firstLeafNode = 6;
    header.lastLeafNode = kNodes;
  });
  const auto tree = openPlainTree(volume);
  EXPECT_EQ(uint32_t{tree->headerRecord().treeDepth}, 2U);
  EXPECT_EQ(tree->rootNode(), 5U);
  EXPECT_EQ(tree->firstLeafNode(), 6U);
  EXPECT_EQ(tree->lastLeafNode(), kNodes);
  EXPECT_EQ(tree->nodeCount(), kNodes);
  EXPECT_EQ(tree->freeNodes(), kNodes - 1);
  EXPECT_EQ(tree->nodeSize(), kNodeSize);
  EXPECT_EQ(tree->nodeCacheSize(), 0x800000U);
}

TEST_F(HFSPlusBTreeFileTest, InconsistentHeadersAreRefused) {
  const std::vector<std::function<void(BTHeaderRec&)>> damages{
      [](BTHeaderRec& header) { header.nodeSize = 0; },
      [](BTHeaderRec& header) { header.nodeSize = 256; },
      [](BTHeaderRec& header) { header.nodeSize = 768; },
      [](BTHeaderRec& header) { header.nodeSize = 32768; },
      [](BTHeaderRec& header) { header.freeNodes = header.totalNodes + 1; },
      [](BTHeaderRec& header) { header.firstLeafNode = header.totalNodes + 1; },
      [](BTHeaderRec& header) { header.lastLeafNode = header.totalNodes + 1; },
      [](BTHeaderRec& header) { header.attributes = 0; },
      [](BTHeaderRec& header) { header.totalNodes = kNodes + 1; },
      [](BTHeaderRec& header) { header.totalNodes = UINT32_MAX; },
      [](BTHeaderRec& header) { header.totalNodes = header.freeNodes = 0; },
  };
  for (size_t i = 0; i < damages.size(); ++i) {
    BTHeaderRec saved{};
    volume.editHeader([&](BTHeaderRec& header) {
      saved = header;
      damages[i](header);
    });
    EXPECT_EQ(openMessage(), kHeaderError) << "damage " << i;
    volume.editHeader([&](BTHeaderRec& header) { header = saved; });
  }
  EXPECT_EQ(openMessage(), "");
}

TEST_F(HFSPlusBTreeFileTest, NodeZeroMustBeAHeaderNode) {
  for (const size_t byte : {size_t{4}, size_t{7}, size_t{8}, size_t{9}}) {
    const std::byte saved = std::exchange(volume.node(0)[byte], std::byte{2});
    EXPECT_EQ(openMessage(), kHeaderError) << "byte " << byte;
    volume.node(0)[byte] = saved;
  }
  volume.node(0)[11] = std::byte{2};  // two records: no map
  EXPECT_EQ(openMessage(), kHeaderError);
  volume.node(0)[11] = std::byte{200};  // more records than fit
  EXPECT_EQ(openMessage(), kHeaderError);
}

TEST_F(HFSPlusBTreeFileTest, SizeMustBeWholeNodes) {
  volume.forkData().logicalSize += 256;
  EXPECT_EQ(openMessage(), kHeaderError);
}

TEST_F(HFSPlusBTreeFileTest, ReadErrorsAtTheStartAreThatOfTheOpen) {
  volume.unreadableNodes = {0};
  EXPECT_EQ(openMessage(), "Read failure.");
  volume.unreadableNodes.clear();
  volume.forkData().logicalSize = 0;
  EXPECT_EQ(openMessage(), "Read of file ID 4 at offset 0 and size 512 was out of range.");
}

// The map of free nodes

TEST(HFSPlusBTreeFileMap, IsJoinedFromTheHeaderNodeAndTheChainOfMapNodes) {
  MemoryTreeVolume volume(kHFSCatalogFileID, kNodeSize, kManyNodes);
  volume.setUsed(5000, true);
  const auto tree = openPlainTree(volume);
  ASSERT_EQ(tree->freeNodeMap().size(), 256U + 492 + 492 + 492);
  EXPECT_EQ(tree->freeNodeMap()[0], std::byte{0xF0});
  EXPECT_EQ(tree->freeNodeMap()[5000 / 8], std::byte{0x80});
  EXPECT_EQ(tree->getNextFreeNodeIndex(), 4U);
}

TEST(HFSPlusBTreeFileMap, NodeOfAnotherKindInTheChainIsRefused) {
  MemoryTreeVolume volume(kHFSCatalogFileID, kNodeSize, kManyNodes);
  volume.node(2)[8] = std::byte{kBTIndexNode};
  EXPECT_EQ(messageOf(PlainTree::open(volume, kHFSCatalogFileID)), kMapError);
}

TEST(HFSPlusBTreeFileMap, MapNodeWithBrokenOffsetsIsRefused) {
  MemoryTreeVolume volume(kHFSCatalogFileID, kNodeSize, kManyNodes);
  volume.node(2)[kNodeSize - 1] = std::byte{0};
  EXPECT_EQ(messageOf(PlainTree::open(volume, kHFSCatalogFileID)), kMapError);
}

TEST(HFSPlusBTreeFileMap, MapNodeWithoutRecordsIsRefused) {
  MemoryTreeVolume volume(kHFSCatalogFileID, kNodeSize, kManyNodes);
  volume.node(2)[11] = std::byte{0};
  EXPECT_EQ(messageOf(PlainTree::open(volume, kHFSCatalogFileID)), kMapError);
}

TEST(HFSPlusBTreeFileMap, ChainInCirclesIsRefused) {
  for (const uint32_t target : {1U, 2U, 3U}) {
    MemoryTreeVolume volume(kHFSCatalogFileID, kNodeSize, kManyNodes);
    writeBigEndian(volume.node(3).data(), target);
    EXPECT_EQ(messageOf(PlainTree::open(volume, kHFSCatalogFileID)), kMapError) << target;
  }
}

TEST(HFSPlusBTreeFileMap, ChainOutOfTheFileIsRefused) {
  MemoryTreeVolume volume(kHFSCatalogFileID, kNodeSize, kManyNodes);
  writeBigEndian(volume.node(3).data(), kManyNodes);
  EXPECT_EQ(messageOf(PlainTree::open(volume, kHFSCatalogFileID)),
            "B-Tree node " + std::to_string(kManyNodes) + " is out of range.");
}

TEST(HFSPlusBTreeFileMap, ShorterThanTheTreeIsRefused) {
  MemoryTreeVolume volume(kHFSCatalogFileID, kNodeSize, kManyNodes);
  writeBigEndian(volume.node(2).data(), uint32_t{0});
  EXPECT_EQ(messageOf(PlainTree::open(volume, kHFSCatalogFileID)), kMapError);
}

TEST_F(HFSPlusBTreeFileTest, LowestFreeNodeIsNextAndStaysFree) {
  for (uint32_t index = 0; index < 13; ++index) {
    volume.setUsed(index, true);
  }
  volume.setUsed(14, true);
  const auto tree = openPlainTree(volume);
  EXPECT_EQ(tree->getNextFreeNodeIndex(), 13U);
  EXPECT_EQ(tree->getNextFreeNodeIndex(), 13U);
  tree->markNodeAsUsed(13);
  EXPECT_EQ(tree->getNextFreeNodeIndex(), 15U);
  EXPECT_EQ(tree->freeNodes(), kNodes - 2);
  tree->markNodeAsFree(2);
  EXPECT_EQ(tree->getNextFreeNodeIndex(), 2U);
  EXPECT_EQ(tree->freeNodes(), kNodes - 1);
}

TEST_F(HFSPlusBTreeFileTest, NoFreeNodeIsFoundWhenTheHeaderCountsNone) {
  volume.editHeader([](BTHeaderRec& header) { header.freeNodes = 0; });
  const auto tree = openPlainTree(volume);
  EXPECT_EQ(tree->getNextFreeNodeIndex(), 0U);
  EXPECT_FALSE(tree->hasFreeNodes(1));
}

TEST_F(HFSPlusBTreeFileTest, NoFreeNodeIsFoundWhenTheMapHasNone) {
  for (uint32_t index = 0; index < kNodes; ++index) {
    volume.setUsed(index, true);
  }
  const auto tree = openPlainTree(volume);
  // Bits beyond the last node are clear and mean nothing.
  EXPECT_EQ(tree->freeNodeMap()[kNodes / 8], std::byte{0xF0});
  EXPECT_EQ(tree->getNextFreeNodeIndex(), 0U);
  EXPECT_FALSE(tree->hasFreeNodes(1));
  EXPECT_TRUE(tree->hasFreeNodes(0));
}

TEST_F(HFSPlusBTreeFileTest, FreeNodesAreCountedInTheMapAsWell) {
  for (uint32_t index = 0; index < kNodes - 7; ++index) {
    volume.setUsed(index, true);
  }
  const auto tree = openPlainTree(volume);
  EXPECT_TRUE(tree->hasFreeNodes(7));
  EXPECT_FALSE(tree->hasFreeNodes(8));
}

TEST_F(HFSPlusBTreeFileTest, FreedNodeBecomesAllZeros) {
  std::ranges::fill(volume.node(7), std::byte{0x55});
  volume.setUsed(7, true);
  const auto tree = openPlainTree(volume);
  tree->markNodeAsFree(7);
  EXPECT_TRUE(tree->flush());
  EXPECT_EQ(volume.writeHeld(), (Nodes{0, 7}));
  EXPECT_TRUE(std::ranges::all_of(volume.node(7), [](std::byte b) { return b == std::byte{0}; }));
  visit(*tree, 7);
}

TEST_F(HFSPlusBTreeFileTest, NodeThatCannotBeReadIsFreedAllTheSame) {
  volume.setUsed(7, true);
  const auto tree = openPlainTree(volume);
  volume.unreadableNodes = {7};
  tree->markNodeAsFree(7);
  EXPECT_EQ(tree->freeNodeMap()[0], std::byte{0x80});
  EXPECT_EQ(tree->freeNodes(), kNodes);
}

// The node cache

TEST_F(HFSPlusBTreeFileTest, LimitOfOneKeepsTheNodeReleasedLast) {
  const auto tree = openPlainTree(volume);
  tree->setNodeCacheSize(kNodeSize);
  touch(*tree, 3);
  EXPECT_TRUE(tree->nodeCache().contains(3));
  EXPECT_TRUE(volume.heldNodes().empty());
  visit(*tree, 4);
  EXPECT_FALSE(tree->nodeCache().contains(3));
  EXPECT_TRUE(tree->nodeCache().contains(4));
  EXPECT_EQ(tree->nodeCache().nodeCacheCount(), 1U);
  EXPECT_EQ(volume.heldNodes(), Nodes{3});
  auto again = tree->cachedNodeWithIndex(3);
  ASSERT_TRUE(again);
  EXPECT_EQ((*again)->fLink(), 1U);
  EXPECT_FALSE((*again)->dirty());
}

TEST_F(HFSPlusBTreeFileTest, NodesInUseAreNotIdle) {
  const auto tree = openPlainTree(volume);
  const uint64_t idle = tree->nodeCache().nodeCacheCount();
  auto first = tree->cachedNodeWithIndex(3);
  auto second = tree->cachedNodeWithIndex(3);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(&**first, &**second);
  EXPECT_EQ(tree->nodeCache().nodeCacheCount(), idle);
  first->reset();
  EXPECT_EQ(tree->nodeCache().nodeCacheCount(), idle);
  second->reset();
  EXPECT_EQ(tree->nodeCache().nodeCacheCount(), idle + 1);
  auto third = tree->cachedNodeWithIndex(3);
  EXPECT_EQ(tree->nodeCache().nodeCacheCount(), idle);
}

TEST_F(HFSPlusBTreeFileTest, HoldsAreMovedNotCopied) {
  const auto tree = openPlainTree(volume);
  HFSPlusBTreeNodeHold a = *tree->cachedNodeWithIndex(3);
  HFSPlusBTreeNodeHold b = std::move(a);
  EXPECT_FALSE(a);
  EXPECT_EQ(b->index(), 3U);
  HFSPlusBTreeNodeHold c = *tree->cachedNodeWithIndex(4);
  c = std::move(b);
  EXPECT_EQ(c->index(), 3U);
  EXPECT_EQ(tree->nodeCache().nodeCount() - tree->nodeCache().nodeCacheCount(), 1U);
}

TEST_F(HFSPlusBTreeFileTest, TooSmallACacheSizeMeansNoLimit) {
  const auto tree = openPlainTree(volume);
  tree->setNodeCacheSize(kNodeSize - 1);
  EXPECT_EQ(tree->nodeCacheSize(), 0U);
  for (uint32_t index = 0; index < kNodes; ++index) {
    visit(*tree, index);
  }
  EXPECT_EQ(tree->nodeCache().nodeCacheCount(), kNodes);
}

TEST_F(HFSPlusBTreeFileTest, NodeIsShownWhereGivenDataLiesAndDoesNotEnterTheCache) {
  const auto tree = openPlainTree(volume);
  std::vector<std::byte> image(kNodeSize);
  writeBigEndian(image.data(), uint32_t{77});
  const auto node = tree->cachedNodeWithIndex(3, image);
  ASSERT_TRUE(node);
  EXPECT_EQ((*node)->index(), 3U);
  EXPECT_EQ((*node)->fLink(), 77U);
  EXPECT_FALSE(tree->nodeCache().contains(3));
}

TEST_F(HFSPlusBTreeFileTest, CachedNodeWinsOverGivenData) {
  const auto tree = openPlainTree(volume);
  std::vector<std::byte> image(kNodeSize);
  (*tree->cachedNodeWithIndex(3))->setFLink(77);
  writeBigEndian(image.data(), uint32_t{78});
  EXPECT_EQ((*tree->cachedNodeWithIndex(3, image))->fLink(), 77U);
}

TEST_F(HFSPlusBTreeFileTest, NodeOutOfRangeIsRefused) {
  const auto tree = openPlainTree(volume);
  EXPECT_EQ(messageOf(tree->cachedNodeWithIndex(kNodes)), "B-Tree node 100 is out of range.");
  std::vector<std::byte> image(kNodeSize);
  EXPECT_EQ(messageOf(tree->cachedNodeWithIndex(kNodes, image)),
            "B-Tree node 100 is out of range.");
}

TEST_F(HFSPlusBTreeFileTest, UnreadableNodeIsNotCached) {
  const auto tree = openPlainTree(volume);
  volume.unreadableNodes = {5};
  EXPECT_EQ(messageOf(tree->cachedNodeWithIndex(5)), "Read failure.");
  volume.unreadableNodes.clear();
  visit(*tree, 5);
}

TEST_F(HFSPlusBTreeFileTest, BrokenNodeImageIsRefused) {
  volume.node(5)[10] = std::byte{0xFF};
  const auto tree = openPlainTree(volume);
  EXPECT_EQ(messageOf(tree->cachedNodeWithIndex(5)), kInconsistent);
  EXPECT_EQ(messageOf(tree->cachedNodeWithIndex(5, volume.node(5))), kInconsistent);
  EXPECT_FALSE(tree->nodeCache().contains(5));
}

TEST_F(HFSPlusBTreeFileTest, NewNodeIsNotReadAndMustNotBeInUse) {
  std::ranges::fill(volume.node(5), std::byte{0xFF});
  const auto tree = openPlainTree(volume);
  volume.reads.clear();
  const auto node = tree->newNodeWithIndex(5, kBTLeafNode);
  ASSERT_TRUE(node);
  EXPECT_TRUE(volume.reads.empty());
  EXPECT_EQ((*node)->kind(), kBTLeafNode);
  EXPECT_EQ(messageOf(tree->newNodeWithIndex(5, kBTLeafNode)), kInconsistent);
}

TEST_F(HFSPlusBTreeFileTest, CacheBehavesLikeItsModel) {
  SeededRandom random;
  SCOPED_TRACE(random.seedText());
  for (const uint32_t limit : {1U, 3U, 10U, 40U}) {
    MemoryTreeVolume own(kHFSCatalogFileID, kNodeSize, kNodes);
    const auto tree = openPlainTree(own);
    tree->setNodeCacheSize(limit * kNodeSize);
    visit(*tree, 0);
    std::list<uint32_t> idle{0};  // the least recently released last
    std::vector<HFSPlusBTreeNodeHold> holds;
    std::map<uint32_t, uint32_t> values;
    for (int step = 0; step < 2000; ++step) {
      if (holds.size() < 8 && random.oneIn(2)) {
        const uint32_t index = 1 + random.below(kNodes - 1);
        holds.push_back(*tree->cachedNodeWithIndex(index));
        ASSERT_EQ(holds.back()->fLink(), values[index]);
        if (random.oneIn(3)) {
          holds.back()->setFLink(values[index] = random.below(UINT32_MAX));
        }
        idle.remove(index);
      } else if (!holds.empty()) {
        std::swap(holds[random.below(static_cast<uint32_t>(holds.size()))], holds.back());
        const uint32_t index = holds.back()->index();
        holds.pop_back();
        if (std::ranges::none_of(holds, [&](auto& hold) { return hold->index() == index; })) {
          idle.push_front(index);
          if (idle.size() > limit) {
            idle.pop_back();
          }
        }
      }
      ASSERT_EQ(tree->nodeCache().nodeCacheCount(), idle.size());
      for (const uint32_t index : idle) {
        ASSERT_TRUE(tree->nodeCache().contains(index));
      }
    }
    holds.clear();
    ASSERT_TRUE(tree->flush());
    own.writeHeld();
    for (const auto& [index, value] : values) {
      EXPECT_EQ(readBigEndian<uint32_t>(own.node(index).data()), value);
    }
  }
}

// Writing back

TEST_F(HFSPlusBTreeFileTest, FlushAfterReadingHoldsNothing) {
  const auto tree = openPlainTree(volume);
  for (uint32_t index = 0; index < kNodes; ++index) {
    visit(*tree, index);
  }
  EXPECT_TRUE(tree->flush());
  EXPECT_TRUE(volume.heldWrites().empty());
}

TEST_F(HFSPlusBTreeFileTest, FlushWritesDirtyNodesInUseAndIdleInOrder) {
  const auto tree = openPlainTree(volume);
  auto inUse = tree->cachedNodeWithIndex(50);
  (*inUse)->setHeight(3);
  for (const uint32_t index : {70U, 3U, 99U, 20U}) {
    touch(*tree, index);
  }
  Nodes dirty;
  for (const HFSPlusBTreeNode* node : tree->nodeCache().dirtyNodes()) {
    dirty.push_back(node->index());
  }
  EXPECT_EQ(dirty, (Nodes{3, 20, 50, 70, 99}));
  EXPECT_TRUE(tree->flush());
  EXPECT_EQ(volume.writeHeld(), dirty);
  EXPECT_TRUE(tree->nodeCache().contains(70));
  EXPECT_TRUE(tree->flush());
  EXPECT_TRUE(volume.heldWrites().empty());
}

TEST(HFSPlusBTreeFileFlush, OnlyMapNodesWithOtherBytesAreWritten) {
  MemoryTreeVolume volume(kHFSCatalogFileID, kNodeSize, kManyNodes);
  const auto tree = openPlainTree(volume);
  tree->markNodeAsUsed(2048 + 3936 + 1);
  EXPECT_TRUE(tree->flush());
  EXPECT_EQ(volume.writeHeld(), (Nodes{0, 2}));
  // There and back again: the same bytes.
  tree->markNodeAsUsed(2049);
  tree->markNodeAsFree(2049);
  EXPECT_TRUE(tree->flush());
  EXPECT_EQ(volume.writeHeld(), Nodes{2049});
  const auto reopened = openPlainTree(volume);
  EXPECT_TRUE(std::ranges::equal(reopened->freeNodeMap(), tree->freeNodeMap()));
  EXPECT_EQ(reopened->freeNodes(), tree->freeNodes());
}

TEST_F(HFSPlusBTreeFileTest, HeaderChangesReachTheHeaderNode) {
  const auto tree = openPlainTree(volume);
  tree->setFirstLeafNode(9);
  tree->setLastLeafNode(10);
  EXPECT_TRUE(tree->incrementTreeDepth(9));
  EXPECT_TRUE(tree->moreLeafRecords());
  EXPECT_TRUE(tree->flush());
  EXPECT_EQ(volume.writeHeld(), Nodes{0});
  const auto reopened = openPlainTree(volume);
  EXPECT_EQ(reopened->firstLeafNode(), 9U);
  EXPECT_EQ(reopened->lastLeafNode(), 10U);
  EXPECT_EQ(reopened->rootNode(), 9U);
  EXPECT_EQ(uint32_t{reopened->headerRecord().treeDepth}, 1U);
  EXPECT_EQ(uint32_t{reopened->headerRecord().leafRecords}, 1U);
}

TEST_F(HFSPlusBTreeFileTest, HeaderThatCannotBeUpdatedIsReportedAndTheNodesAreWritten) {
  const auto tree = openPlainTree(volume);
  tree->setNodeCacheSize(kNodeSize);
  touch(*tree, 5);  // the header node leaves the cache
  volume.unreadableNodes = {0};
  tree->setFirstLeafNode(9);
  EXPECT_EQ(messageOf(tree->flush()), "Read failure.");
  EXPECT_EQ(volume.heldNodes(), Nodes{5});
  volume.unreadableNodes.clear();
  EXPECT_TRUE(tree->flush());
  EXPECT_EQ(volume.heldNodes(), (Nodes{0, 5}));
}

TEST_F(HFSPlusBTreeFileTest, ClosingTheTreeWritesDirtyNodesOnly) {
  {
    const auto tree = openPlainTree(volume);
    touch(*tree, 5);
    tree->setFirstLeafNode(9);
  }
  EXPECT_EQ(volume.heldNodes(), Nodes{5});
}

TEST_F(HFSPlusBTreeFileTest, DiscardingForgetsEveryChange) {
  const auto tree = openPlainTree(volume);
  tree->setNodeCacheSize(2 * kNodeSize);
  for (uint32_t index = 3; index < 9; ++index) {
    touch(*tree, index);
  }
  tree->markNodeAsUsed(1);
  tree->setFirstLeafNode(9);
  volume.heldWrites().clear();
  ASSERT_TRUE(tree->discardChanges());
  EXPECT_EQ(tree->firstLeafNode(), 0U);
  EXPECT_EQ(tree->freeNodes(), kNodes - 1);
  EXPECT_EQ(tree->getNextFreeNodeIndex(), 1U);
  EXPECT_EQ(tree->nodeCacheSize(), 2 * kNodeSize);
  EXPECT_EQ((*tree->cachedNodeWithIndex(8))->fLink(), 0U);
  EXPECT_TRUE(tree->flush());
  EXPECT_TRUE(volume.heldWrites().empty());
}

TEST_F(HFSPlusBTreeFileTest, TreeThatCannotBeReadAgainGivesNoNodes) {
  const auto tree = openPlainTree(volume);
  touch(*tree, 3);
  volume.unreadableNodes = {0};
  EXPECT_EQ(messageOf(tree->discardChanges()), "Read failure.");
  EXPECT_EQ(messageOf(tree->cachedNodeWithIndex(3)), "B-Tree node 3 is out of range.");
  EXPECT_TRUE(tree->flush());
  EXPECT_TRUE(volume.heldWrites().empty());
  volume.unreadableNodes.clear();
  EXPECT_TRUE(tree->discardChanges());
  visit(*tree, 3);
}

TEST_F(HFSPlusBTreeFileTest, ForgettingANodeInUseStopsTheProgram) {
  const auto tree = openPlainTree(volume);
  auto held = tree->cachedNodeWithIndex(3);
  EXPECT_DEATH((void)tree->discardChanges(), "");
}

// Counters

TEST_F(HFSPlusBTreeFileTest, CountersDoNotWrap) {
  constexpr std::string_view kCounterError = "Overflow extents file is inconsistent.";
  volume.editHeader([](BTHeaderRec& header) { header.treeDepth = kNodes; });
  auto tree = openPlainTree(volume);
  EXPECT_EQ(messageOf(tree->fewerLeafRecords()), kCounterError);
  EXPECT_EQ(messageOf(tree->incrementTreeDepth(7)), kCounterError);
  EXPECT_EQ(tree->rootNode(), 0U);
  EXPECT_TRUE(tree->decrementTreeDepth(8));
  EXPECT_EQ(tree->rootNode(), 8U);
  EXPECT_EQ(uint32_t{tree->headerRecord().treeDepth}, kNodes - 1);

  volume.editHeader([](BTHeaderRec& header) {
    header.treeDepth = 1;
    header.leafRecords = UINT32_MAX;
  });
  tree = openPlainTree(volume);
  EXPECT_EQ(messageOf(tree->moreLeafRecords()), kCounterError);
  EXPECT_EQ(messageOf(tree->decrementTreeDepth(7)), kCounterError);
  EXPECT_TRUE(tree->fewerLeafRecords());
  EXPECT_EQ(uint32_t{tree->headerRecord().leafRecords}, UINT32_MAX - 1);
}

// Descending

namespace {

/// Makes a node with the given keys, each with its child behind it for an index node.
void makeNode(std::span<std::byte> node, int8_t kind,
              std::vector<std::pair<uint8_t, uint32_t>> records) {
  std::ranges::fill(node, std::byte{0});
  node[8] = static_cast<std::byte>(kind);
  writeBigEndian(&node[10], static_cast<uint16_t>(records.size()));
  uint16_t offset = sizeof(BTNodeDescriptor);
  size_t entry = node.size();
  for (const auto& [key, child] : records) {
    writeBigEndian(&node[entry -= 2], offset);
    writeBigEndian(&node[offset], uint16_t{1});
    node[offset + 2U] = std::byte{key};
    writeBigEndian(&node[offset + 3U], child);
    offset = static_cast<uint16_t>(offset + 7);
  }
  writeBigEndian(&node[entry - 2], offset);
}

auto isGreaterThan(uint8_t key) {
  return [key](std::span<const std::byte> record) {
    return std::to_integer<uint8_t>(record[2]) > key;
  };
}

}  // namespace

TEST_F(HFSPlusBTreeFileTest, DescentLeadsToTheLeafAroundTheKey) {
  volume.editHeader([](BTHeaderRec& header) {
    header.treeDepth = 2;
    header.rootNode = 1;
  });
  makeNode(volume.node(1), kBTIndexNode, {{10, 2}, {20, 3}, {30, 4}});
  for (uint32_t leaf = 2; leaf <= 4; ++leaf) {
    makeNode(volume.node(leaf), kBTLeafNode, {{static_cast<uint8_t>((leaf - 1) * 10), 0}});
  }
  const auto tree = openPlainTree(volume);
  for (const auto& [key, leaf] :
       std::map<uint8_t, uint32_t>{{5, 2}, {10, 2}, {19, 2}, {20, 3}, {29, 3}, {30, 4}, {99, 4}}) {
    const auto node = tree->leafNodeWhere(isGreaterThan(key));
    ASSERT_TRUE(node) << messageOf(node);
    EXPECT_EQ((*node)->index(), leaf) << int{key};
  }
}

TEST_F(HFSPlusBTreeFileTest, DescentInCirclesIsInconsistent) {
  volume.editHeader([](BTHeaderRec& header) {
    header.treeDepth = UINT16_MAX;
    header.rootNode = 1;
  });
  makeNode(volume.node(1), kBTIndexNode, {{10, 2}});
  makeNode(volume.node(2), kBTIndexNode, {{10, 1}});
  const auto tree = openPlainTree(volume);
  volume.reads.clear();
  EXPECT_EQ(messageOf(tree->leafNodeWhere(isGreaterThan(1))), kInconsistent);
  EXPECT_EQ(volume.reads.size(), 2U);
}

TEST_F(HFSPlusBTreeFileTest, DescentGoesByTheNodesWhateverDepthTheHeaderTells) {
  makeNode(volume.node(1), kBTIndexNode, {{10, 2}});
  makeNode(volume.node(2), kBTLeafNode, {{10, 0}});
  for (const int depth : {0, 1, 2, 9, 0xFFFF}) {
    volume.editHeader([depth](BTHeaderRec& header) {
      header.treeDepth = static_cast<uint16_t>(depth);
      header.rootNode = 1;
    });
    const auto tree = openPlainTree(volume);
    const auto leaf = tree->leafNodeWhere(isGreaterThan(1));
    ASSERT_EQ(messageOf(leaf), "") << depth;
    EXPECT_EQ((*leaf)->index(), 2U);
  }
}

TEST_F(HFSPlusBTreeFileTest, DescentNeedsIndexNodesWithRecordsAndChildren) {
  volume.editHeader([](BTHeaderRec& header) { header.treeDepth = 2; });
  EXPECT_EQ(messageOf(openPlainTree(volume)->leafNodeWhere(isGreaterThan(1))), kInconsistent);

  volume.editHeader([](BTHeaderRec& header) { header.rootNode = 1; });
  makeNode(volume.node(1), kBTIndexNode, {});
  EXPECT_EQ(messageOf(openPlainTree(volume)->leafNodeWhere(isGreaterThan(1))), kInconsistent);

  makeNode(volume.node(1), kBTIndexNode, {{10, 2}});
  volume.node(1)[sizeof(BTNodeDescriptor)] = std::byte{0x7F};  // a key longer than its record
  EXPECT_EQ(messageOf(openPlainTree(volume)->leafNodeWhere(isGreaterThan(1))), kInconsistent);

  makeNode(volume.node(1), kBTIndexNode, {{10, kNodes}});
  EXPECT_EQ(messageOf(openPlainTree(volume)->leafNodeWhere(isGreaterThan(1))),
            "B-Tree node 100 is out of range.");
}
