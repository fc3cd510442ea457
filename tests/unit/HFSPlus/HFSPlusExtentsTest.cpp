#include "HFSPlus/HFSPlusExtents.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "unit/HFSPlus/ExtentsTreeChecker.hpp"
#include "unit/HFSPlus/MemoryTree.hpp"
#include "unit/HFSPlus/SeededRandom.hpp"

namespace {

constexpr std::string_view kInconsistent = "Overflow extents file is inconsistent.";
constexpr std::string_view kCongested =
    "Overflow extents file is too congested, unable to continue.";
constexpr std::string_view kCollision = "Overflow extent record collision.";
constexpr std::string_view kMissing = "Overflow extent record missing.";

constexpr uint32_t kRecordsInALeaf = 6;  // of 512 bytes

HFSPlusExtentRecord extentsOf(uint32_t number) {
  HFSPlusExtentRecord extents{};
  extents[0] = {number + 1, 1};
  extents[7] = {0x01020304, number};
  return extents;
}

/// A tree next to its model: every change is made on both.
class Tree {
 public:
  explicit Tree(uint32_t nodeSize, uint32_t nodes) : volume(kHFSExtentsFileID, nodeSize, nodes) {
    reopen();
  }

  void reopen() {
    extents.reset();
    auto opened = HFSPlusExtents::open(volume);
    ASSERT_TRUE(opened) << messageOf(opened);
    extents = *std::move(opened);
  }

  std::string insert(uint32_t block, uint32_t fileID = 100, uint8_t forkType = 0) {
    const HFSPlusExtentRecord record = extentsOf(++_count);
    const std::string message =
        messageOf(extents->insertExtentRecord(record, block, fileID, forkType));
    if (message.empty()) {
      model[{fileID, forkType, block}] = record;
    }
    return message;
  }
  std::string update(uint32_t block, uint32_t fileID = 100, uint8_t forkType = 0) {
    const HFSPlusExtentRecord record = extentsOf(++_count);
    const std::string message =
        messageOf(extents->updateExtentRecord(record, block, fileID, forkType));
    if (message.empty()) {
      model[{fileID, forkType, block}] = record;
    }
    return message;
  }
  std::string remove(uint32_t block, uint32_t fileID = 100, uint8_t forkType = 0) {
    const std::string message = messageOf(extents->deleteExtentRecord(block, fileID, forkType));
    if (message.empty()) {
      model.erase({fileID, forkType, block});
    }
    return message;
  }
  void insertBlocks(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
      ASSERT_EQ(insert(i * 10), "");
    }
  }
  /// What is wrong with the tree as it would be on disk.
  std::string check() {
    const std::string message = messageOf(extents->flush());
    volume.writeHeld();
    return message.empty() ? checkExtentsTree(volume, model) : message;
  }
  uint32_t depth() const { return extents->headerRecord().treeDepth; }
  uint32_t leafRecords() const { return extents->headerRecord().leafRecords; }
  uint16_t recordsOf(uint32_t node) { return (*extents->cachedNodeWithIndex(node))->recordCount(); }

  MemoryTreeVolume volume;
  ExtentsModel model;
  std::unique_ptr<HFSPlusExtents> extents;

 private:
  uint32_t _count = 0;
};

}  // namespace

TEST(HFSPlusExtents, KeysAreOrderedByFileForkAndBlock) {
  const HFSPlusExtentKey key{10, 0, 0, 5, 7};
  EXPECT_TRUE(HFSPlusExtents::compare(key, {99, 0, 9, 5, 7}) == 0);
  EXPECT_TRUE(HFSPlusExtents::compare(key, {10, 0, 0, 5, 8}) < 0);
  EXPECT_TRUE(HFSPlusExtents::compare(key, {10, 0xFF, 0, 5, 1}) < 0);
  EXPECT_TRUE(HFSPlusExtents::compare(key, {10, 0, 0, 0x80000000, 1}) < 0);
  EXPECT_TRUE(HFSPlusExtents::compare(key, {10, 0xFF, 0, 4, 9}) > 0);
  EXPECT_TRUE(HFSPlusExtents::match(key, {0, 0, 1, 5, 99}));
  EXPECT_FALSE(HFSPlusExtents::match(key, {10, 0xFF, 0, 5, 7}));
  EXPECT_FALSE(HFSPlusExtents::match(key, {10, 0, 0, 6, 7}));
}

TEST(HFSPlusExtents, FirstRecordMakesALeafTheRoot) {
  Tree tree(512, 20);
  EXPECT_EQ(tree.insert(8), "");
  EXPECT_EQ(tree.depth(), 1U);
  EXPECT_EQ(tree.extents->rootNode(), 1U);
  EXPECT_EQ(tree.extents->firstLeafNode(), 1U);
  EXPECT_EQ(tree.extents->lastLeafNode(), 1U);
  EXPECT_EQ(tree.leafRecords(), 1U);
  EXPECT_EQ(tree.check(), "");
}

TEST(HFSPlusExtents, TakenKeyIsACollisionAndChangesNothing) {
  Tree tree(512, 20);
  EXPECT_EQ(tree.insert(8), "");
  EXPECT_EQ(tree.check(), "");
  EXPECT_EQ(tree.insert(8), kCollision);
  EXPECT_TRUE(tree.extents->flush());
  EXPECT_TRUE(tree.volume.heldWrites().empty());
}

TEST(HFSPlusExtents, CollisionInAFullLeafDoesNotSplitIt) {
  Tree tree(512, 20);
  tree.insertBlocks(kRecordsInALeaf);
  EXPECT_EQ(tree.check(), "");
  EXPECT_EQ(tree.insert(30), kCollision);
  EXPECT_TRUE(tree.extents->flush());
  EXPECT_TRUE(tree.volume.heldWrites().empty());
}

TEST(HFSPlusExtents, SplittingTheRootLeafGivesDepthTwo) {
  Tree tree(512, 20);
  tree.insertBlocks(kRecordsInALeaf);
  EXPECT_EQ(tree.depth(), 1U);
  EXPECT_EQ(tree.insert(1000), "");
  EXPECT_EQ(tree.depth(), 2U);
  // The new root takes the lowest free node, the new leaf the next.
  EXPECT_EQ(tree.extents->rootNode(), 2U);
  EXPECT_EQ(tree.recordsOf(2), 2);
  EXPECT_EQ(tree.extents->firstLeafNode(), 1U);
  EXPECT_EQ(tree.extents->lastLeafNode(), 3U);
  EXPECT_EQ(tree.recordsOf(1), 3);
  EXPECT_EQ(tree.recordsOf(3), 4);
  EXPECT_EQ(tree.check(), "");
}

TEST(HFSPlusExtents, OddLeafKeepsTheGreaterHalf) {
  // A leaf of 4096 bytes holds 52 records, one of 2048 bytes 26, one of 16384 bytes 209.
  Tree tree(16384, 20);
  tree.insertBlocks(209);
  EXPECT_EQ(tree.depth(), 1U);
  EXPECT_EQ(tree.insert(0, 1), "");
  EXPECT_EQ(tree.recordsOf(1), 105 + 1);
  EXPECT_EQ(tree.recordsOf(3), 104);
  EXPECT_EQ(tree.check(), "");
}

TEST(HFSPlusExtents, SplitChildIsFollowedByItsSiblingInTheParent) {
  Tree tree(512, 40);
  tree.insertBlocks(3 * kRecordsInALeaf);
  EXPECT_EQ(tree.depth(), 2U);
  const uint32_t children = tree.recordsOf(tree.extents->rootNode());
  for (uint32_t block = 1; tree.recordsOf(tree.extents->rootNode()) == children; ++block) {
    ASSERT_EQ(tree.insert(block), "");
  }
  EXPECT_EQ(tree.check(), "");
}

TEST(HFSPlusExtents, LookupGivesTheForksNearestLowerRecord) {
  Tree tree(512, 40);
  tree.insertBlocks(20);
  EXPECT_EQ(tree.insert(5, 100, kHFSResourceForkType), "");
  const auto between = tree.extents->copyExtentRecord(87, 100, 0);
  ASSERT_TRUE(between && *between);
  EXPECT_EQ((*between)->startBlock, 80U);
  EXPECT_EQ((*between)->extents, (tree.model[{100, 0, 80}]));
  EXPECT_EQ((*tree.extents->copyExtentRecord(80, 100, 0))->startBlock, 80U);
  EXPECT_EQ((*tree.extents->copyExtentRecord(UINT32_MAX, 100, 0))->startBlock, 190U);
}

TEST(HFSPlusExtents, LookupFindsNothingOfAnotherFork) {
  Tree tree(512, 40);
  tree.insertBlocks(20);
  EXPECT_EQ(tree.insert(5, 100, kHFSResourceForkType), "");
  EXPECT_EQ(tree.insert(5, 101), "");
  for (const auto& [block, fileID, fork] :
       {std::tuple{4U, 101U, 0}, {4U, 100U, 0xFF}, {100U, 99U, 0}, {100U, 101U, 0xFF}}) {
    const auto found = tree.extents->copyExtentRecord(block, fileID, static_cast<uint8_t>(fork));
    ASSERT_TRUE(found) << messageOf(found);
    EXPECT_FALSE(*found) << block << " " << fileID << " " << fork;
  }
}

TEST(HFSPlusExtents, RequiredRecordMustBeginAtTheBlock) {
  Tree tree(512, 40);
  tree.insertBlocks(20);
  const auto record = tree.extents->requireExtentRecord(80, 100, 0);
  ASSERT_TRUE(record);
  EXPECT_EQ(*record, (tree.model[{100, 0, 80}]));
  EXPECT_EQ(messageOf(tree.extents->requireExtentRecord(81, 100, 0)), kMissing);
  EXPECT_EQ(messageOf(tree.extents->requireExtentRecord(80, 99, 0)), kMissing);
}

TEST(HFSPlusExtents, RequiredRecordMustHaveAFirstExtent) {
  Tree tree(512, 40);
  HFSPlusExtentRecord record{};
  record[1] = {9, 9};
  ASSERT_TRUE(tree.extents->insertExtentRecord(record, 1, 100, 0));
  record[0] = {9, 0};
  ASSERT_TRUE(tree.extents->insertExtentRecord(record, 2, 100, 0));
  record[0] = {0, 9};
  ASSERT_TRUE(tree.extents->insertExtentRecord(record, 3, 100, 0));
  for (const uint32_t block : {1U, 2U, 3U}) {
    EXPECT_EQ(messageOf(tree.extents->requireExtentRecord(block, 100, 0)), kMissing);
  }
}

TEST(HFSPlusExtents, EmptyTreeIsInconsistentToLookAtAndHasNothingToDelete) {
  Tree tree(512, 40);
  EXPECT_EQ(messageOf(tree.extents->copyExtentRecord(0, 100, 0)), kInconsistent);
  EXPECT_EQ(tree.update(0), kInconsistent);
  EXPECT_EQ(tree.remove(0), kMissing);
}

TEST(HFSPlusExtents, OverwritingNeedsTheVeryKey) {
  Tree tree(512, 40);
  tree.insertBlocks(20);
  EXPECT_EQ(tree.update(80), "");
  EXPECT_EQ(tree.update(81), kMissing);
  EXPECT_EQ(tree.update(1000), kMissing);
  EXPECT_EQ(tree.update(0, 1), kMissing);
  EXPECT_EQ(tree.check(), "");
}

TEST(HFSPlusExtents, DeletingTheOnlyRecordEmptiesTheTree) {
  Tree tree(512, 40);
  EXPECT_EQ(tree.insert(8), "");
  EXPECT_EQ(tree.remove(8), "");
  const BTHeaderRec& header = tree.extents->headerRecord();
  EXPECT_EQ(uint32_t{header.rootNode}, 0U);
  EXPECT_EQ(uint32_t{header.treeDepth}, 0U);
  EXPECT_EQ(uint32_t{header.leafRecords}, 0U);
  EXPECT_EQ(uint32_t{header.firstLeafNode}, 0U);
  EXPECT_EQ(uint32_t{header.lastLeafNode}, 0U);
  EXPECT_EQ(uint32_t{header.freeNodes}, 39U);
  EXPECT_EQ(tree.check(), "");
  EXPECT_EQ(tree.insert(8), "");
  EXPECT_EQ(tree.check(), "");
}

TEST(HFSPlusExtents, RootWithOneChildLeftCollapses) {
  Tree tree(512, 40);
  tree.insertBlocks(kRecordsInALeaf + 1);
  EXPECT_EQ(tree.depth(), 2U);
  for (const uint32_t block : {0U, 10U, 20U}) {
    EXPECT_EQ(tree.remove(block), "");
  }
  EXPECT_EQ(tree.depth(), 1U);
  EXPECT_EQ(tree.extents->rootNode(), tree.extents->lastLeafNode());
  EXPECT_EQ(tree.check(), "");
}

TEST(HFSPlusExtents, DeletingAMissingRecordChangesNothing) {
  Tree tree(512, 40);
  tree.insertBlocks(20);
  EXPECT_EQ(tree.check(), "");
  EXPECT_EQ(tree.remove(85), kMissing);
  EXPECT_EQ(tree.remove(85, 99), kMissing);
  EXPECT_EQ(tree.remove(85, 101), kMissing);
  EXPECT_TRUE(tree.extents->flush());
  EXPECT_TRUE(tree.volume.heldWrites().empty());
}

TEST(HFSPlusExtents, NewLowestKeyReachesEveryIndexNodeOnDisk) {
  Tree tree(512, 400);
  tree.insertBlocks(400);
  ASSERT_EQ(tree.depth(), 3U);
  EXPECT_EQ(tree.check(), "");
  EXPECT_EQ(tree.insert(0, 50), "");
  EXPECT_EQ(tree.check(), "");
  EXPECT_EQ(tree.remove(0, 50), "");
  EXPECT_EQ(tree.check(), "");
}

// An index node of 1024 bytes comes to exactly 18 free bytes: 55 records of 16 bytes, 2 bytes each
// in the offset table. The node would refuse a 56th, so it is split like a full one.
TEST(HFSPlusExtents, IndexNodeThatARecordWouldFillToTheLastByteIsSplit) {
  Tree tree(1024, 400);
  uint32_t block = 0;
  do {
    ASSERT_EQ(tree.insert(block++), "");
  } while (tree.depth() < 2 || tree.recordsOf(tree.extents->rootNode()) < 55);
  EXPECT_EQ((*tree.extents->cachedNodeWithIndex(tree.extents->rootNode()))->freeSpace(), 18U);
  EXPECT_EQ(tree.check(), "");
  while (tree.depth() == 2) {
    ASSERT_EQ(tree.insert(block++), "");
  }
  EXPECT_EQ(tree.recordsOf(tree.extents->rootNode()), 2);
  EXPECT_EQ(tree.check(), "");
}

// The same for a leaf. None comes to 78 free bytes by itself, so this one begins its records late.
TEST(HFSPlusExtents, LeafThatARecordWouldFillToTheLastByteIsSplit) {
  Tree tree(512, 40);
  tree.insertBlocks(2);
  ASSERT_TRUE(tree.extents->flush());
  tree.volume.writeHeld();
  const std::span<std::byte> leaf = tree.volume.node(1);
  const uint32_t shift = 496 - 2 * 78 - 78;
  std::copy_backward(leaf.begin() + 14, leaf.begin() + 14 + 2 * 76,
                     leaf.begin() + 14 + 2 * 76 + shift);
  for (uint32_t entry = 0; entry <= 2; ++entry) {
    writeBigEndian(&leaf[512 - 2 * (entry + 1)], static_cast<uint16_t>(14 + shift + entry * 76));
  }
  tree.reopen();
  EXPECT_EQ((*tree.extents->cachedNodeWithIndex(1))->freeSpace(), 78U);
  EXPECT_EQ(tree.insert(20), "");
  EXPECT_EQ(tree.depth(), 2U);
}

TEST(HFSPlusExtents, CongestedTreeRefusesAnInsertionBeforeChangingAnything) {
  for (const uint32_t nodes : {1U, 2U, 3U, 4U, 10U, 60U}) {
    Tree tree(512, nodes);
    uint32_t block = 0;
    std::string message;
    do {
      EXPECT_EQ(tree.check(), "") << nodes << " nodes";
      message = tree.insert(block++);
    } while (message.empty());
    EXPECT_EQ(message, kCongested);
    EXPECT_TRUE(tree.extents->flush());
    EXPECT_TRUE(tree.volume.heldWrites().empty()) << nodes << " nodes";
  }
}

TEST(HFSPlusExtents, CongestionCountsFreeNodesOfTheMapNotOnlyOfTheHeader) {
  Tree tree(512, 10);
  tree.insertBlocks(kRecordsInALeaf);
  EXPECT_EQ(tree.check(), "");
  for (uint32_t index = 2; index < 9; ++index) {
    tree.volume.setUsed(index, true);
  }
  tree.reopen();
  EXPECT_EQ(tree.insert(1000), kCongested);
}

TEST(HFSPlusExtents, DiscardedChangesNeverHappened) {
  SeededRandom random;
  SCOPED_TRACE(random.seedText());
  Tree tree(512, 200);
  tree.extents->setNodeCacheSize(4 * 512);
  tree.insertBlocks(150);
  ASSERT_EQ(tree.check(), "");
  const std::vector<std::byte> before = tree.volume.bytes();
  const ExtentsModel model = tree.model;
  for (int step = 0; step < 300; ++step) {
    const uint32_t block = random.below(1500);
    (void)(random.oneIn(2) ? tree.insert(block) : tree.remove(block));
  }
  tree.volume.heldWrites().clear();
  ASSERT_TRUE(tree.extents->discardChanges());
  tree.model = model;
  EXPECT_EQ(tree.check(), "");
  EXPECT_EQ(tree.volume.bytes(), before);
  EXPECT_EQ(tree.insert(5), "");
  EXPECT_EQ(tree.check(), "");
}

// Whatever is done to it, the tree holds what a map holds, and is a tree.

namespace {

struct Shape {
  uint32_t nodeSize;
  uint32_t nodes;
  uint32_t keys;    // different keys
  uint32_t rounds;  // of growing and shrinking
  uint32_t steps;   // a round
  uint32_t depth;   // to be reached
  uint32_t cache;   // nodes
};

void step(Tree& tree, SeededRandom& random, const Shape& shape, bool growing) {
  const uint32_t number = random.below(shape.keys);
  const uint32_t fileID = 16 + number % 5;
  const uint8_t forkType = number % 3 == 0 ? kHFSResourceForkType : kHFSDataForkType;
  const bool taken = tree.model.contains({fileID, forkType, number});
  const uint32_t choice = random.below(10);
  if (choice == 0) {
    ASSERT_EQ(tree.update(number, fileID, forkType), taken                ? ""
                                                     : tree.model.empty() ? kInconsistent
                                                                          : kMissing);
  } else if ((choice < 8) == growing) {
    const std::string message = tree.insert(number, fileID, forkType);
    ASSERT_TRUE(message == (taken ? kCollision : "") || (!taken && message == kCongested))
        << message;
  } else {
    ASSERT_EQ(tree.remove(number, fileID, forkType), taken ? "" : kMissing);
  }
  if (tree.model.empty()) {
    return;
  }
  const uint32_t sought = random.below(shape.keys);
  const auto found = tree.extents->copyExtentRecord(sought, fileID, forkType);
  ASSERT_TRUE(found) << messageOf(found);
  auto expected = tree.model.upper_bound({fileID, forkType, sought});
  if (expected == tree.model.begin() || std::get<0>((--expected)->first) != fileID ||
      std::get<1>(expected->first) != forkType) {
    ASSERT_FALSE(*found);
  } else {
    ASSERT_TRUE(*found);
    ASSERT_EQ((*found)->startBlock, std::get<2>(expected->first));
    ASSERT_EQ((*found)->extents, expected->second);
  }
}

class HFSPlusExtentsShapes : public testing::TestWithParam<Shape> {};

}  // namespace

TEST_P(HFSPlusExtentsShapes, TreeHoldsWhatTheModelHolds) {
  const Shape& shape = GetParam();
  SeededRandom random;
  SCOPED_TRACE(random.seedText());
  Tree tree(shape.nodeSize, shape.nodes);
  uint32_t depth = 0;
  for (uint32_t round = 0; round < shape.rounds; ++round) {
    tree.extents->setNodeCacheSize(shape.cache * shape.nodeSize);
    for (uint32_t i = 0; i < shape.steps; ++i) {
      ASSERT_NO_FATAL_FAILURE(step(tree, random, shape, round % 2 == 0));
      ASSERT_EQ(tree.check(), "") << "round " << round << ", step " << i;
      depth = std::max(depth, tree.depth());
    }
    if (random.oneIn(2)) {
      tree.reopen();
    }
  }
  EXPECT_GE(depth, shape.depth);
  while (!tree.model.empty()) {
    const auto [fileID, forkType, block] = tree.model.begin()->first;
    ASSERT_EQ(tree.remove(block, fileID, forkType), "");
  }
  EXPECT_EQ(tree.check(), "");
  EXPECT_EQ(tree.extents->rootNode(), 0U);
}

INSTANTIATE_TEST_SUITE_P(All, HFSPlusExtentsShapes,
                         testing::Values(Shape{512, 30, 150, 8, 300, 2, 1},
                                         Shape{512, 12, 150, 6, 300, 2, 8},
                                         Shape{512, 300, 900, 4, 1200, 3, 3},
                                         Shape{1024, 200, 1500, 4, 1500, 3, 10},
                                         Shape{4096, 60, 1500, 4, 1500, 2, 0}),
                         [](const auto& tested) {
                           return "NodesOf" + std::to_string(tested.param.nodeSize) + "Times" +
                                  std::to_string(tested.param.nodes);
                         });

// Ascending and descending keys are what a rewriting run inserts and deletes.
TEST(HFSPlusExtents, LongRunsOfKeysInOrderBuildAndEmptyADeepTree) {
  Tree tree(512, 4000);
  for (uint32_t block = 0; block < 6000; ++block) {
    ASSERT_EQ(tree.insert(block), "");
  }
  EXPECT_EQ(tree.depth(), 4U);
  EXPECT_EQ(tree.check(), "");
  for (uint32_t block = 6000; block-- > 100;) {
    ASSERT_EQ(tree.remove(block), "");
  }
  EXPECT_EQ(tree.check(), "");
  for (uint32_t block = 0; block < 100; ++block) {
    ASSERT_EQ(tree.remove(block), "");
  }
  EXPECT_EQ(tree.check(), "");
}

// Damage

TEST(HFSPlusExtents, RecordsOfAnotherSizeAreInconsistent) {
  Tree tree(512, 40);
  tree.insertBlocks(20);
  ASSERT_EQ(tree.check(), "");
  for (const uint32_t node : {tree.extents->rootNode(), tree.extents->firstLeafNode()}) {
    const std::span<std::byte> entry = tree.volume.node(node).subspan(508, 2);
    const auto offset = readBigEndian<uint16_t>(entry.data());
    writeBigEndian(entry.data(), static_cast<uint16_t>(offset - 2));
    tree.reopen();
    EXPECT_EQ(messageOf(tree.extents->copyExtentRecord(0, 100, 0)), kInconsistent);
    EXPECT_EQ(tree.insert(1), kInconsistent);
    EXPECT_EQ(tree.remove(0), kInconsistent);
    writeBigEndian(entry.data(), offset);
  }
}

TEST(HFSPlusExtents, CircularTreeIsInconsistentNotEndless) {
  Tree tree(512, 400);
  tree.insertBlocks(400);
  ASSERT_EQ(tree.check(), "");
  const uint32_t root = tree.extents->rootNode();
  writeBigEndian(&tree.volume.node(root)[14 + 12], root);
  tree.reopen();
  EXPECT_EQ(messageOf(tree.extents->copyExtentRecord(0, 100, 0)), kInconsistent);
  EXPECT_EQ(tree.insert(1), kInconsistent);
  EXPECT_EQ(tree.update(0), kInconsistent);
  EXPECT_EQ(tree.remove(0), kInconsistent);
}

TEST(HFSPlusExtents, NeighbourThatDoesNotLinkBackIsInconsistent) {
  Tree tree(512, 40);
  tree.insertBlocks(2 * kRecordsInALeaf);
  ASSERT_EQ(tree.check(), "");
  const uint32_t first = tree.extents->firstLeafNode();
  const uint32_t second = (*tree.extents->cachedNodeWithIndex(first))->fLink();
  writeBigEndian(&tree.volume.node(second)[4], second);
  tree.reopen();
  std::string message;
  for (uint32_t block = 1; message.empty(); ++block) {
    message = tree.insert(block);
  }
  EXPECT_EQ(message, kInconsistent);
}

TEST(HFSPlusExtents, RandomDamageGivesErrorsAndNothingWorse) {
  SeededRandom random;
  SCOPED_TRACE(random.seedText());
  Tree sound(512, 120);
  sound.insertBlocks(250);
  ASSERT_EQ(sound.check(), "");
  const std::vector<std::byte> bytes = sound.volume.bytes();
  for (int round = 0; round < 400; ++round) {
    MemoryTreeVolume volume(kHFSExtentsFileID, 512, 120);
    volume.bytes() = bytes;
    for (uint32_t damage = 1 + random.below(8); damage > 0; --damage) {
      // Descriptors, offset tables and first records are where it hurts.
      const std::span<std::byte> node = volume.node(random.below(110));
      const uint32_t place = random.below(3);
      std::byte& victim = place == 0   ? node[random.below(14)]
                          : place == 1 ? node[511 - random.below(16)]
                                       : node[14 + random.below(80)];
      victim = static_cast<std::byte>(random.oneIn(2) ? random.below(256) : random.below(3));
    }
    auto extents = HFSPlusExtents::open(volume);
    for (int i = 0; extents && i < 40; ++i) {
      const uint32_t block = random.below(2600);
      (void)(*extents)->copyExtentRecord(block, 100, 0);
      (void)(*extents)->insertExtentRecord(extentsOf(1), block, 100, 0);
      (void)(*extents)->updateExtentRecord(extentsOf(2), block / 10 * 10, 100, 0);
      (void)(*extents)->deleteExtentRecord(random.below(260) * 10, 100, 0);
    }
    if (extents) {
      (void)(*extents)->flush();
    }
  }
}
