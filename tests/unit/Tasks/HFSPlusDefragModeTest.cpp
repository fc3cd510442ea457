#include "Tasks/HFSPlusDefragMode.hpp"

#include <gtest/gtest.h>

#include "unit/Tasks/StretchSetting.hpp"

namespace {

using doubles::messageOf;

/// A mode on a volume with a fork A of three extents, not in the order of its blocks, and a fork B.
struct ModeSetting {
  explicit ModeSetting(const std::vector<const char*>& profileNames = {})
      : a(addFileAt(description, "A", {{1200, 8}, {1000, 3}, {1100, 5}})),
        b(addFileAt(description, "B", {{1300, 4}})),
        low(addFileAt(description, "Low", {{700, 4}})),
        setting(description),
        mode(*setting.volume, *setting.stretch, setting.profile) {
    EXPECT_TRUE(setting.stretch->build(0));
    EXPECT_TRUE(map().removeToBlock(900));
    for (const std::string_view name : profileNames) {
      if (!setting.profile) {
        setting.profile.emplace();
      }
      setting.profile->add(name == "A" ? a : name == "B" ? b : low, kHFSDataForkType);
    }
  }

  HFSPlusExtentMap& map() { return setting.stretch->map(); }

  HFSPlusSourceEntry get() {
    const auto source = mode.getSourceEntry();
    EXPECT_EQ(messageOf(source), "");
    EXPECT_TRUE(source && *source);
    return source && *source ? **source : HFSPlusSourceEntry{};
  }
  /// Takes some blocks of the pending source, as the engine does.
  void take(uint32_t count) {
    HFSPlusSourceEntry source = get();
    source.count = count;
    EXPECT_EQ(messageOf(mode.putSourceEntry(source)), "");
    EXPECT_TRUE(map().deleteBlocks(source.start + source.offset, count));
  }

  support::VolumeDescription description = plainStretchVolume();
  uint32_t a, b, low;
  StretchSetting setting;
  HFSPlusDefragMode mode;
};

void expectSource(const HFSPlusSourceEntry& source, uint32_t cnid, uint32_t start, uint32_t offset,
                  uint32_t count) {
  EXPECT_EQ(source.cnid, cnid);
  EXPECT_EQ(source.start, start);
  EXPECT_EQ(source.offset, offset);
  EXPECT_EQ(source.count, count);
  EXPECT_EQ(source.fork, kHFSDataForkType);
}

TEST(HFSPlusDefragMode, HandsOutTheFirstForksExtentsInTheForksOrder) {
  ModeSetting setting;
  expectSource(setting.get(), setting.a, 1200, 0, 8);  // its piece at 1000 is the first one
  setting.take(8);
  expectSource(setting.get(), setting.a, 1000, 0, 3);
  setting.take(3);
  expectSource(setting.get(), setting.a, 1100, 0, 5);
  setting.take(5);
  expectSource(setting.get(), setting.b, 1300, 0, 4);
}

TEST(HFSPlusDefragMode, ASourceStaysPendingUntilAllOfItIsTaken) {
  ModeSetting setting;
  expectSource(setting.get(), setting.a, 1200, 0, 8);
  expectSource(setting.get(), setting.a, 1200, 0, 8);
  setting.take(3);
  expectSource(setting.get(), setting.a, 1200, 3, 5);
  setting.take(4);
  expectSource(setting.get(), setting.a, 1200, 7, 1);
  setting.take(1);
  expectSource(setting.get(), setting.a, 1000, 0, 3);
}

TEST(HFSPlusDefragMode, GoesOnWithTheSameForkAfterABatch) {
  ModeSetting setting;
  setting.take(8);
  setting.mode.updateSource();
  // B's run could be the first one now; A is not finished, though. Its extents are read anew.
  EXPECT_TRUE(setting.map().removeToBlock(1050));
  expectSource(setting.get(), setting.a, 1200, 0, 8);
  setting.take(8);
  expectSource(setting.get(), setting.a, 1100, 0, 5);
}

TEST(HFSPlusDefragMode, AnExtentThatStraddlesTheFrontIsCut) {
  ModeSetting setting;
  EXPECT_TRUE(setting.map().removeToBlock(1204));
  expectSource(setting.get(), setting.a, 1204, 0, 4);
}

TEST(HFSPlusDefragMode, AProfileComesBeforeTheOrderOfBlocks) {
  ModeSetting setting({"B", "A"});
  expectSource(setting.get(), setting.b, 1300, 0, 4);
  setting.take(4);
  EXPECT_EQ(setting.setting.profile->count(), 1u);
  expectSource(setting.get(), setting.a, 1200, 0, 8);
}

TEST(HFSPlusDefragMode, AProfilesForkBelowTheFrontIsDropped) {
  ModeSetting setting({"Low", "B"});
  expectSource(setting.get(), setting.b, 1300, 0, 4);
  EXPECT_EQ(setting.setting.profile->count(), 1u);
  setting.take(4);
  EXPECT_FALSE(setting.setting.profile);
  expectSource(setting.get(), setting.a, 1200, 0, 8);
}

TEST(HFSPlusDefragMode, APlanMadeAnewBeginsWithTheSameMembersOfTheProfile) {
  ModeSetting setting({"Low", "B", "A"});
  setting.take(4);
  setting.take(8);
  EXPECT_EQ(setting.setting.profile->count(), 1u);
  ASSERT_TRUE(setting.setting.stretch->build(900));
  setting.mode.startOver({setting.b, kHFSDataForkType});
  EXPECT_EQ(setting.setting.profile->count(), 3u);
  expectSource(setting.get(), setting.b, 1300, 0, 4);
}

TEST(HFSPlusDefragMode, AFileThatMayNotBeMovedIsForgotten) {
  ModeSetting setting;
  setting.take(2);
  setting.mode.forgetFile(setting.b);
  expectSource(setting.get(), setting.a, 1200, 2, 6);
  setting.mode.forgetFile(setting.a);
  EXPECT_TRUE(setting.map().removeToBlock(1250));
  expectSource(setting.get(), setting.b, 1300, 0, 4);
}

TEST(HFSPlusDefragMode, AsksForTheMapTwiceMoreBeforeItGivesUp) {
  ModeSetting setting;
  EXPECT_TRUE(setting.map().removeToBlock(1400));
  for (int i = 0; i < 2; ++i) {
    const auto source = setting.mode.getSourceEntry();
    ASSERT_EQ(messageOf(source), "");
    EXPECT_FALSE(*source);
  }
  EXPECT_EQ(messageOf(setting.mode.getSourceEntry()),
            "Volume is too congested, unable to continue.");
}

TEST(HFSPlusDefragMode, AnEmptyMapHasNothing) {
  ModeSetting setting;
  EXPECT_TRUE(setting.map().removeToBlock(2000));
  for (int i = 0; i < 5; ++i) {
    const auto source = setting.mode.getSourceEntry();
    ASSERT_EQ(messageOf(source), "");
    EXPECT_FALSE(*source);
  }
}

TEST(HFSPlusDefragMode, PuttingBackWhatWasNotGivenIsAnInternalError) {
  ModeSetting setting;
  const HFSPlusSourceEntry none{};
  EXPECT_TRUE(messageOf(setting.mode.putSourceEntry(none))
                  .starts_with("Internal error: Tasks/HFSPlusDefragMode:"));
  HFSPlusSourceEntry source = setting.get();
  source.count = 9;
  EXPECT_TRUE(messageOf(setting.mode.putSourceEntry(source))
                  .starts_with("Internal error: Tasks/HFSPlusDefragMode:"));
}

}  // namespace
