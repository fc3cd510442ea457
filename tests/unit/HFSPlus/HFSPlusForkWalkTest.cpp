#include "HFSPlus/HFSPlusForkWalk.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "unit/HFSPlus/MemoryTree.hpp"

namespace {

constexpr std::string_view kMissing = "Overflow extent record missing.";
constexpr uint32_t kFile = 100;

using Extents = std::vector<HFSPlusExtentDescriptor>;

class HFSPlusForkWalkTest : public testing::Test {
 protected:
  HFSPlusForkWalkTest() : extents(*HFSPlusExtents::open(volume)) {}

  /// Eight extents of two blocks each, from a start block on, three blocks apart.
  static HFSPlusExtentRecord eight(uint32_t start) {
    HFSPlusExtentRecord record;
    for (uint32_t i = 0; i < record.size(); ++i) {
      record[i] = {start + 3 * i, 2};
    }
    return record;
  }
  void add(uint32_t block, const HFSPlusExtentRecord& record, uint8_t forkType = 0) {
    ASSERT_TRUE(extents->insertExtentRecord(record, block, kFile, forkType));
  }
  static HFSPlusForkData fork(uint32_t totalBlocks, const HFSPlusExtentRecord& record) {
    return {.logicalSize = 0, .clumpSize = 0, .totalBlocks = totalBlocks, .extents = record};
  }
  /// Walks the fork in host order; in disk order it must come to the same.
  std::string walk(const HFSPlusForkData& host, uint8_t forkType = 0) {
    std::string messages[2];
    Extents found[2];
    const auto visitInto = [](Extents& into) {
      return [&into](const HFSPlusExtentDescriptor& extent) { into.push_back(extent); };
    };
    messages[0] =
        messageOf(HFSPlusWalkForkExtents(*extents, host, kFile, forkType, visitInto(found[0])));
    messages[1] = messageOf(
        HFSPlusWalkForkExtents(*extents, toDisk(host), kFile, forkType, visitInto(found[1])));
    EXPECT_EQ(messages[0], messages[1]);
    EXPECT_EQ(found[0], found[1]);
    seen = found[0];
    return messages[0];
  }
  static Extents joined(std::initializer_list<HFSPlusExtentRecord> records) {
    Extents all;
    for (const HFSPlusExtentRecord& record : records) {
      all.insert(all.end(), record.begin(), record.end());
    }
    return all;
  }

  MemoryTreeVolume volume{kHFSExtentsFileID, 512, 40};
  std::unique_ptr<HFSPlusExtents> extents;
  Extents seen;
};

}  // namespace

TEST_F(HFSPlusForkWalkTest, EmptyForkHasNoExtents) {
  EXPECT_EQ(walk(fork(0, {})), "");
  EXPECT_TRUE(seen.empty());
}

TEST_F(HFSPlusForkWalkTest, ForkInItsOwnEightNeedsNoTree) {
  EXPECT_EQ(walk(fork(16, eight(50))), "");
  EXPECT_EQ(seen, joined({eight(50)}));
}

TEST_F(HFSPlusForkWalkTest, EmptyDescriptorsAreLeftOutWhereverTheyAre) {
  HFSPlusExtentRecord record{};
  record[0] = {0, 7};
  record[1] = {9, 0};
  record[3] = {10, 4};
  EXPECT_EQ(walk(fork(4, record)), "");
  EXPECT_EQ(seen, (Extents{{10, 4}}));
}

TEST_F(HFSPlusForkWalkTest, OverflowRecordsFollowInOrder) {
  add(16, eight(100));
  add(32, eight(200));
  EXPECT_EQ(walk(fork(48, eight(50))), "");
  EXPECT_EQ(seen, joined({eight(50), eight(100), eight(200)}));
}

TEST_F(HFSPlusForkWalkTest, RecordsOfTheOtherForkAreNotTaken) {
  add(16, eight(100), kHFSResourceForkType);
  EXPECT_EQ(walk(fork(32, eight(50))), kMissing);
  EXPECT_EQ(walk(fork(32, eight(50)), kHFSResourceForkType), "");
}

TEST_F(HFSPlusForkWalkTest, RecordsBeyondTheTotalBlocksAreNotFollowed) {
  add(16, eight(100));
  add(32, eight(200));
  EXPECT_EQ(walk(fork(32, eight(50))), "");
  EXPECT_EQ(seen, joined({eight(50), eight(100)}));
  EXPECT_EQ(walk(fork(20, eight(50))), "");
  EXPECT_EQ(seen.size(), 10U);
}

TEST_F(HFSPlusForkWalkTest, RecordThatBeginsElsewhereIsMissing) {
  add(15, eight(100));
  EXPECT_EQ(walk(fork(48, eight(50))), kMissing);
  EXPECT_EQ(seen, joined({eight(50)}));
}

TEST_F(HFSPlusForkWalkTest, RecordThatAddsNothingIsMissing) {
  HFSPlusExtentRecord record{};
  record[0] = {0, 5};
  add(16, record);
  EXPECT_EQ(walk(fork(48, eight(50))), kMissing);
}

TEST_F(HFSPlusForkWalkTest, TotalBeyondThirtyTwoBitsEndsTheWalk) {
  HFSPlusExtentRecord record{};
  record[0] = {1, UINT32_MAX - 1};
  add(UINT32_MAX - 1, record);
  EXPECT_EQ(walk(fork(UINT32_MAX, record)), "");
  EXPECT_EQ(seen.size(), 2U);
}

TEST_F(HFSPlusForkWalkTest, VisitorsErrorEndsTheWalk) {
  int count = 0;
  const auto result = HFSPlusWalkForkExtents(
      *extents, fork(16, eight(50)), kFile, 0, [&](const HFSPlusExtentDescriptor&) -> Result<> {
        return ++count == 3 ? Result<>(std::unexpected(XRDefragError::userCancelled()))
                            : Result<>();
      });
  ASSERT_FALSE(result);
  EXPECT_TRUE(result.error().isUserCancelled());
  EXPECT_EQ(count, 3);
}
