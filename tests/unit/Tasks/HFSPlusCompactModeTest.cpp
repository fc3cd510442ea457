#include "Tasks/HFSPlusCompactMode.hpp"

#include <gtest/gtest.h>

#include "unit/Tasks/StretchSetting.hpp"

namespace {

using doubles::messageOf;

/// A mode on a volume with runs at 1000 (A), 1100 (B) and 1200 (A), and two blocks at 1050 that
/// nobody may move.
struct ModeSetting {
  ModeSetting()
      : a(addFileAt(description, "A", {{1200, 8}, {1000, 6}})),
        b(addFileAt(description, "B", {{1100, 5}})),
        setting(withImmutableBlocks(description)),
        mode(*setting.stretch) {
    EXPECT_TRUE(setting.stretch->build(0));
    EXPECT_TRUE(map().removeToBlock(900));
  }

  static support::VolumeDescription& withImmutableBlocks(support::VolumeDescription& description) {
    description.markedWithoutOwner = {{1050, 2}};
    return description;
  }

  HFSPlusExtentMap& map() { return setting.stretch->map(); }

  HFSPlusSourceEntry get() {
    const auto source = mode.getSourceEntry();
    EXPECT_EQ(messageOf(source), "");
    EXPECT_TRUE(source && *source);
    return source && *source ? **source : HFSPlusSourceEntry{};
  }
  void take(uint32_t count) {
    HFSPlusSourceEntry source = get();
    source.count = count;
    EXPECT_EQ(messageOf(mode.putSourceEntry(source)), "");
    EXPECT_TRUE(map().deleteBlocks(source.start + source.offset, count));
  }

  support::VolumeDescription description = plainStretchVolume();
  uint32_t a, b;
  StretchSetting setting;
  HFSPlusCompactMode mode;
};

void expectSource(const HFSPlusSourceEntry& source, uint32_t cnid, uint32_t start, uint32_t offset,
                  uint32_t count) {
  EXPECT_EQ(source.cnid, cnid);
  EXPECT_EQ(source.start, start);
  EXPECT_EQ(source.offset, offset);
  EXPECT_EQ(source.count, count);
}

TEST(HFSPlusCompactMode, HandsOutRunsInVolumeOrderAndStepsOverImmutableOnes) {
  ModeSetting setting;
  expectSource(setting.get(), setting.a, 1000, 0, 6);
  setting.take(6);
  expectSource(setting.get(), setting.b, 1100, 0, 5);
  setting.take(5);
  expectSource(setting.get(), setting.a, 1200, 0, 8);
  setting.take(8);
  const auto end = setting.mode.getSourceEntry();
  ASSERT_EQ(messageOf(end), "");
  EXPECT_FALSE(*end);
}

TEST(HFSPlusCompactMode, ALongRunIsTakenInPiecesAndTheCursorStaysAtItsStart) {
  ModeSetting setting;
  setting.take(2);
  expectSource(setting.get(), setting.a, 1000, 2, 4);
  setting.take(3);
  expectSource(setting.get(), setting.a, 1000, 5, 1);
  setting.take(1);
  expectSource(setting.get(), setting.b, 1100, 0, 5);
}

TEST(HFSPlusCompactMode, GoesOnAtTheFirstBlockThatWasNotMoved) {
  ModeSetting setting;
  setting.take(2);
  setting.mode.updateSource();
  expectSource(setting.get(), setting.a, 1002, 0, 4);
  setting.mode.updateSource();
  expectSource(setting.get(), setting.a, 1002, 0, 4);
  setting.take(4);
  setting.mode.updateSource();
  expectSource(setting.get(), setting.b, 1100, 0, 5);
}

TEST(HFSPlusCompactMode, APlanMadeAnewFindsTheSamePlace) {
  ModeSetting setting;
  setting.take(6);
  setting.take(2);
  ASSERT_TRUE(setting.setting.stretch->build(900));
  setting.mode.startOver({setting.a, kHFSDataForkType});
  expectSource(setting.get(), setting.a, 1000, 0, 6);
}

TEST(HFSPlusCompactMode, AsksForTheMapTwiceMoreWhenItEndsBelowTheCursor) {
  ModeSetting setting;
  HFSPlusDefragStretch wide(*setting.setting.volume, [] { return false; });
  ASSERT_TRUE(wide.build(1100));
  HFSPlusCompactMode far(wide);
  const auto source = far.getSourceEntry();
  ASSERT_TRUE(source && *source);
  ASSERT_TRUE(far.putSourceEntry(**source));
  ASSERT_TRUE(wide.build(900));
  wide.map().limitMemoryUsageTo(33);
  for (int i = 0; i < 2; ++i) {
    const auto again = far.getSourceEntry();
    ASSERT_EQ(messageOf(again), "");
    EXPECT_FALSE(*again);
  }
  EXPECT_EQ(messageOf(far.getSourceEntry()), "Volume is too congested, unable to continue.");
}

TEST(HFSPlusCompactMode, PuttingBackWhatWasNotGivenIsAnInternalError) {
  ModeSetting setting;
  const HFSPlusSourceEntry none{};
  EXPECT_TRUE(messageOf(setting.mode.putSourceEntry(none))
                  .starts_with("Internal error: Tasks/HFSPlusCompactMode:"));
  HFSPlusSourceEntry source = setting.get();
  source.count = 7;
  EXPECT_TRUE(messageOf(setting.mode.putSourceEntry(source))
                  .starts_with("Internal error: Tasks/HFSPlusCompactMode:"));
}

}  // namespace
