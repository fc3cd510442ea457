#include "HFSPlus/HFSPlusBTreeNode.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>
#include <vector>

#include "unit/HFSPlus/SeededRandom.hpp"

namespace {

constexpr uint32_t kSize = 512;

class RecordingOwner : public HFSPlusBTreeNodeOwner {
 public:
  Result<> writeNode(uint32_t, std::span<const std::byte>) override {
    ++writes;
    return failing ? Result<>(std::unexpected(XRDefragError::localized("Write failure.")))
                   : Result<>();
  }
  Result<> incrementLeafRecordCount() override { return count(1); }
  Result<> decrementLeafRecordCount() override { return count(-1); }

  int writes = 0;
  int leafRecords = 0;
  bool failing = false;

 private:
  Result<> count(int delta) {
    if (failing) {
      return std::unexpected(XRDefragError::localized("Overflow extents file is inconsistent."));
    }
    leafRecords += delta;
    return {};
  }
};

/// A record with a key: its length, 10, then a number twice, then what is left, all the number.
std::vector<std::byte> record(uint8_t number, size_t size = 20) {
  std::vector<std::byte> bytes(size, std::byte{number});
  bytes[0] = std::byte{0};
  bytes[1] = std::byte{10};
  return bytes;
}

class HFSPlusBTreeNodeTest : public testing::Test {
 protected:
  HFSPlusBTreeNodeTest()
      : node(HFSPlusBTreeNode::create(owner, images.imageSize(), images.take())) {
    node->setupNewNode(kBTIndexNode);
  }

  uint16_t offset(uint32_t entry) const {
    return readBigEndian<uint16_t>(&node->image()[kSize - 2 * (entry + 1)]);
  }
  std::string insert(uint8_t number, uint32_t index, size_t size = 20) {
    return message(node->insertRecordData(record(number, size), index));
  }
  std::vector<int> numbers() const {
    std::vector<int> result;
    for (uint32_t index = 0; index < node->recordCount(); ++index) {
      result.push_back(std::to_integer<int>(node->recordDataAtIndex(index)[2]));
    }
    return result;
  }
  static std::string message(const Result<>& result) {
    return result ? "" : result.error().description();
  }
  /// Whether a node with this many records and these offsets, from entry 0, is sound.
  bool isSound(uint16_t count, const std::vector<uint32_t>& offsets) {
    // Only a record gives a way into the image.
    node->setupNewNode(kBTIndexNode);
    EXPECT_EQ(message(node->insertRecordData(std::vector<std::byte>(400), 0)), "");
    std::byte* start = node->mutableRecordDataAtIndex(0).data() - sizeof(BTNodeDescriptor);
    writeBigEndian(start + 10, count);
    for (uint32_t entry = 0; entry < offsets.size(); ++entry) {
      writeBigEndian(start + kSize - 2 * (entry + 1), static_cast<uint16_t>(offsets[entry]));
    }
    return node->hasSoundOffsets();
  }

  RecordingOwner owner;
  HFSPlusBTreeNodeImages images{kSize};
  std::unique_ptr<HFSPlusBTreeNode> node;
};

constexpr std::string_view kInternal = "Internal error: HFSPlus/HFSPlusBTreeNode:";

std::string internalError(int check) {
  return std::string(kInternal) + std::to_string(check);
}

}  // namespace

TEST_F(HFSPlusBTreeNodeTest, FreshLeafIsEmptyAndOneHigh) {
  node->setupNewNode(kBTLeafNode);
  EXPECT_EQ(node->kind(), kBTLeafNode);
  EXPECT_EQ(node->height(), 1);
  EXPECT_EQ(node->recordCount(), 0);
  EXPECT_EQ(node->freeSpace(), kSize - 16);
  EXPECT_EQ(node->fLink(), 0U);
  EXPECT_EQ(node->bLink(), 0U);
  EXPECT_TRUE(node->dirty());
}

TEST_F(HFSPlusBTreeNodeTest, FreshIndexNodeIsTwoHighAndOthersNotAtAll) {
  EXPECT_EQ(node->height(), 2);
  node->setupNewNode(kBTMapNode);
  EXPECT_EQ(node->kind(), kBTMapNode);
  EXPECT_EQ(node->height(), 0);
}

TEST_F(HFSPlusBTreeNodeTest, DescriptorIsStoredBigEndian) {
  node->setDirty(false);
  node->setFLink(0x01020304);
  EXPECT_TRUE(node->dirty());
  node->setBLink(0x05060708);
  node->setHeight(9);
  const std::array<uint8_t, 10> expected{1, 2, 3, 4, 5, 6, 7, 8, 0, 9};
  EXPECT_TRUE(std::ranges::equal(node->image().first(10), std::as_bytes(std::span(expected))));
  EXPECT_EQ(node->fLink(), 0x01020304U);
  EXPECT_EQ(node->bLink(), 0x05060708U);
}

TEST_F(HFSPlusBTreeNodeTest, AppendingMovesOnlyTheFreeSpaceEntry) {
  EXPECT_EQ(insert(1, 0), "");
  EXPECT_EQ(insert(2, 1, 30), "");
  EXPECT_EQ(offset(0), 14);
  EXPECT_EQ(offset(1), 34);
  EXPECT_EQ(offset(2), 64);
  EXPECT_EQ(node->recordSizeAtIndex(1), 30);
  EXPECT_EQ(numbers(), (std::vector{1, 2}));
}

TEST_F(HFSPlusBTreeNodeTest, InsertingInFrontMovesEverythingBehind) {
  EXPECT_EQ(insert(1, 0), "");
  EXPECT_EQ(insert(3, 1), "");
  EXPECT_EQ(insert(2, 1, 40), "");
  EXPECT_EQ(insert(0, 0), "");
  EXPECT_EQ(numbers(), (std::vector{0, 1, 2, 3}));
  EXPECT_EQ(offset(3), 14 + 20 + 20 + 40);
  EXPECT_TRUE(node->hasSoundOffsets());
}

TEST_F(HFSPlusBTreeNodeTest, RecordThatWouldFillTheFreeSpaceIsRefused) {
  const uint32_t room = node->freeSpace() - 2;
  EXPECT_FALSE(node->hasRoomForRecord(room));
  EXPECT_EQ(insert(1, 0, room), internalError(357));
  EXPECT_EQ(node->recordCount(), 0);
  EXPECT_TRUE(node->hasRoomForRecord(room - 1));
  EXPECT_EQ(insert(1, 0, room - 1), "");
  EXPECT_EQ(node->freeSpace(), 1U);
}

TEST_F(HFSPlusBTreeNodeTest, InsertingBehindTheEndIsRefused) {
  EXPECT_EQ(insert(1, 1), internalError(356));
  EXPECT_EQ(node->recordCount(), 0);
}

TEST_F(HFSPlusBTreeNodeTest, NothingCanBeInsertedIntoANodeNotInUse) {
  node->clear();
  EXPECT_TRUE(node->hasSoundOffsets());
  EXPECT_EQ(node->freeSpace(), 0U);
  EXPECT_EQ(insert(1, 0), internalError(357));
}

TEST_F(HFSPlusBTreeNodeTest, DeletingTheLastRecordIsExact) {
  EXPECT_EQ(insert(1, 0), "");
  EXPECT_EQ(insert(2, 1, 30), "");
  EXPECT_EQ(message(node->deleteRecordAtIndex(1)), "");
  EXPECT_EQ(numbers(), std::vector{1});
  EXPECT_EQ(offset(1), 34);
  EXPECT_EQ(node->freeSpace(), kSize - 16 - 22);
}

TEST_F(HFSPlusBTreeNodeTest, DeletingRecordZeroOfTwoLeavesTheOffsetTableAsItIs) {
  EXPECT_EQ(insert(1, 0, 30), "");
  EXPECT_EQ(insert(2, 1, 20), "");
  EXPECT_EQ(message(node->deleteRecordAtIndex(0)), "");
  EXPECT_EQ(node->recordCount(), 1);
  EXPECT_EQ(offset(0), 14);
  EXPECT_EQ(offset(1), 44);
  EXPECT_EQ(offset(2), 64);
  EXPECT_EQ(numbers(), std::vector{2});
  EXPECT_TRUE(node->hasSoundOffsets());
}

TEST_F(HFSPlusBTreeNodeTest, DeletingAmongRecordsOfOneSizeIsExact) {
  for (uint8_t number = 0; number < 6; ++number) {
    ASSERT_EQ(insert(number, number), "");
  }
  EXPECT_EQ(message(node->deleteRecordAtIndex(2)), "");
  EXPECT_EQ(message(node->deleteRecordAtIndex(0)), "");
  EXPECT_EQ(numbers(), (std::vector{1, 3, 4, 5}));
  EXPECT_EQ(insert(2, 1), "");
  EXPECT_EQ(numbers(), (std::vector{1, 2, 3, 4, 5}));
}

TEST_F(HFSPlusBTreeNodeTest, OnlyLeavesCountTheirRecords) {
  EXPECT_EQ(insert(1, 0), "");
  EXPECT_EQ(owner.leafRecords, 0);
  node->setupNewNode(kBTLeafNode);
  EXPECT_EQ(insert(1, 0), "");
  EXPECT_EQ(insert(2, 1), "");
  EXPECT_EQ(owner.leafRecords, 2);
  EXPECT_EQ(message(node->deleteRecordAtIndex(0)), "");
  EXPECT_EQ(owner.leafRecords, 1);
}

TEST_F(HFSPlusBTreeNodeTest, EditStaysWhenTheLeafCountFails) {
  node->setupNewNode(kBTLeafNode);
  owner.failing = true;
  EXPECT_EQ(insert(1, 0), "Overflow extents file is inconsistent.");
  EXPECT_EQ(numbers(), std::vector{1});
  EXPECT_EQ(message(node->deleteRecordAtIndex(0)), "Overflow extents file is inconsistent.");
  EXPECT_EQ(node->recordCount(), 0);
}

TEST_F(HFSPlusBTreeNodeTest, OverwritingKeepsPlaceAndSize) {
  EXPECT_EQ(insert(1, 0), "");
  EXPECT_EQ(insert(2, 1), "");
  EXPECT_EQ(message(node->setRecordData(record(2), 2)), internalError(323));
  EXPECT_EQ(message(node->setRecordData(record(2, 21), 1)), internalError(324));
  EXPECT_EQ(message(node->setRecordData(record(3), 1)), internalError(330));
  std::vector<std::byte> changed = record(2);
  changed[19] = std::byte{77};
  node->setDirty(false);
  EXPECT_EQ(message(node->setRecordData(changed, 1)), "");
  EXPECT_TRUE(node->dirty());
  EXPECT_TRUE(std::ranges::equal(node->recordDataAtIndex(1), changed));
}

// The length field counts the key without itself, so the comparison leaves out the key's end.
TEST_F(HFSPlusBTreeNodeTest, OverwritingDoesNotCompareTheLastTwoKeyBytes) {
  EXPECT_EQ(insert(1, 0), "");
  std::vector<std::byte> changed = record(1);
  changed[10] = changed[11] = std::byte{9};
  EXPECT_EQ(message(node->setRecordData(changed, 0)), "");
  changed[9] = std::byte{9};
  EXPECT_EQ(message(node->setRecordData(changed, 0)), internalError(330));
}

TEST_F(HFSPlusBTreeNodeTest, KeyLengthBeyondTheRecordCountsAsAnotherKey) {
  std::vector<std::byte> bytes = record(1);
  bytes[0] = std::byte{0xFF};
  EXPECT_EQ(message(node->insertRecordData(bytes, 0)), "");
  EXPECT_EQ(message(node->setRecordData(bytes, 0)), internalError(330));
  const std::vector<std::byte> single(1);
  EXPECT_EQ(message(node->insertRecordData(single, 1)), "");
  EXPECT_EQ(message(node->setRecordData(single, 1)), internalError(330));
}

TEST_F(HFSPlusBTreeNodeTest, FlushingACleanNodeWritesNothing) {
  EXPECT_EQ(message(node->flush()), "");
  EXPECT_EQ(owner.writes, 1);
  EXPECT_FALSE(node->dirty());
  EXPECT_EQ(message(node->flush()), "");
  EXPECT_EQ(owner.writes, 1);
}

TEST_F(HFSPlusBTreeNodeTest, FailedFlushIsReportedOnce) {
  owner.failing = true;
  EXPECT_EQ(message(node->flush()), "Write failure.");
  EXPECT_FALSE(node->dirty());
  EXPECT_EQ(message(node->flush()), "");
}

TEST_F(HFSPlusBTreeNodeTest, ChangingARecordInPlaceMarksTheNodeDirty) {
  EXPECT_EQ(insert(1, 0), "");
  node->setDirty(false);
  EXPECT_EQ(node->recordDataAtIndex(0).size(), 20U);
  EXPECT_FALSE(node->dirty());
  node->mutableRecordDataAtIndex(0)[2] = std::byte{5};
  EXPECT_TRUE(node->dirty());
  EXPECT_EQ(numbers(), std::vector{5});
}

TEST_F(HFSPlusBTreeNodeTest, AskingForARecordThatDoesNotExistStopsTheProgram) {
  EXPECT_DEATH((void)node->recordDataAtIndex(0), "");
  EXPECT_DEATH((void)node->recordSizeAtIndex(0), "");
  EXPECT_DEATH((void)node->deleteRecordAtIndex(0), "");
}

TEST_F(HFSPlusBTreeNodeTest, OffsetsAreSoundOnlyInsideTheNodeAndInOrder) {
  EXPECT_TRUE(isSound(0, {14}));
  EXPECT_TRUE(isSound(0, {0}));
  EXPECT_TRUE(isSound(2, {14, 16, 18}));
  EXPECT_TRUE(isSound(2, {14, 16, kSize - 6}));
  EXPECT_TRUE(isSound(0, {kSize - 2}));
  EXPECT_FALSE(isSound(0, {13}));
  EXPECT_FALSE(isSound(0, {kSize - 1}));
  EXPECT_FALSE(isSound(1, {0, 20}));
  EXPECT_FALSE(isSound(1, {13, 20}));
  EXPECT_FALSE(isSound(1, {14, 14}));
  EXPECT_FALSE(isSound(2, {14, 30, 20}));
  EXPECT_FALSE(isSound(2, {14, 16, kSize - 5}));
  EXPECT_FALSE(isSound(2, {14, 16, 0xFFFF}));
  EXPECT_FALSE(isSound(0xFFFF, {14}));
  EXPECT_FALSE(isSound(249, {14}));
}

TEST_F(HFSPlusBTreeNodeTest, BinarySearchFindsWhatAScanFinds) {
  SeededRandom random;
  SCOPED_TRACE(random.seedText());
  for (int round = 0; round < 200; ++round) {
    node->setupNewNode(kBTIndexNode);
    const uint32_t count = random.below(20);
    std::vector<uint8_t> keys;
    for (uint32_t i = 0; i < count; ++i) {
      keys.push_back(static_cast<uint8_t>(random.below(40)));
    }
    std::ranges::sort(keys);
    for (uint32_t i = 0; i < count; ++i) {
      ASSERT_EQ(insert(keys[i], i), "");
    }
    const std::byte sought{static_cast<uint8_t>(random.below(42))};
    const auto isGreater = [&](std::span<const std::byte> bytes) { return bytes[2] > sought; };
    uint32_t scanned = 0;
    while (scanned < count && !isGreater(node->recordDataAtIndex(scanned))) {
      ++scanned;
    }
    EXPECT_EQ(node->firstRecordWhere(isGreater), scanned);
  }
}
