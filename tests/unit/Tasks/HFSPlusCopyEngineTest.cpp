#include "Tasks/HFSPlusCopyEngine.hpp"

#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "LWKit/LWFormat.hpp"
#include "Tasks/HFSPlusCopyBuffer.hpp"
#include "Tasks/HFSPlusDefragProgress.hpp"
#include "support/VolumePresets.hpp"
#include "unit/Tasks/RewritingRun.hpp"
#include "unit/Tasks/StretchSetting.hpp"

namespace {

using doubles::messageOf;
using doubles::RecordingDevice;
using Lines = std::vector<std::string>;
using Descriptors = HFSPlusForkExtents::Descriptors;

constexpr uint32_t kBlockSize = 4096;

TEST(HFSPlusDefragProgress, AQuietRunTellsOfEveryNewPercentOnly) {
  HFSPlusDefragProgress progress("DEFRAG", 1000);
  std::vector<int> told;
  progress.setQuiet([&](int percent) { told.push_back(percent); });
  progress.expect(200);
  for (int i = 0; i < 6; ++i) {
    progress.moved(10, 20, 1, true);
  }
  progress.moved(10, 20, 5, false);  // made room: not what was expected
  EXPECT_EQ(told, (std::vector<int>{0, 1, 2, 3}));
}

TEST(HFSPlusDefragProgress, NeverTellsOfMoreThanAll) {
  HFSPlusDefragProgress progress("DEFRAG", 1000);
  progress.expect(10);
  EXPECT_EQ(progress.percentage(), 0u);
  std::vector<int> told;
  progress.setQuiet([&](int percent) { told.push_back(percent); });
  progress.moved(1, 2, 9, true);
  progress.moved(1, 2, 9, true);
  progress.moved(1, 2, UINT32_MAX, true);
  progress.moved(1, 2, UINT32_MAX, true);
  EXPECT_EQ(told, (std::vector<int>{90, 100}));
  progress.expect(0);
  EXPECT_EQ(progress.percentage(), 100u);
}

TEST(HFSPlusDefragProgress, PrintsPrefixPercentSourceDestinationCountAndUse) {
  HFSPlusDefragProgress progress("COMPACT", 1000);
  progress.expect(8);
  testing::internal::CaptureStdout();
  progress.moved(4000000000, 20, 4, true);
  progress.moved(21, 24, 4, true);
  progress.send();
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "COMPACT,PROGRESS,50,4000000000,20,4,1000\n"
            "COMPACT,PROGRESS,100,21,24,4,1000\n");
}

/// A copy list on a volume that the test lays out.
struct ListSetting {
  explicit ListSetting(const support::VolumeDescription& description)
      : setting(description),
        buffer(*HFSPlusCopyBuffer::open(64 * kBlockSize, kBlockSize)),
        list(*setting.volume, *setting.stretch, buffer, progress, [this] { return cancelled; }) {
    progress.setQuiet([](int) {});
    progress.expect(100);
    EXPECT_TRUE(setting.stretch->build(0));
    setting.volume.recording->clear();
  }

  void append(uint32_t cnid, uint32_t source, uint32_t count, uint32_t destination) {
    const HFSPlusExtentRun run = setting.runAt(source);
    EXPECT_EQ(run.entry->cnid, cnid);
    list.appendCopyEntry(*run.entry, source - run.entry->start, count, destination);
  }

  Descriptors extentsOf(uint32_t fileID) {
    auto fork = HFSPlusForkExtents::open(*setting.volume, fileID, kHFSDataForkType);
    EXPECT_EQ(messageOf(fork), "");
    return (*fork)->copyExtentDescriptors(0);
  }
  /// Whether the file's bytes, on the device, are those that were built.
  void expectBytes(uint32_t fileID) {
    const support::BuiltFork& fork = *setting.built.fork(fileID, support::kDataFork);
    uint64_t offset = 0;
    for (const HFSPlusExtentDescriptor& extent : extentsOf(fileID)) {
      const std::vector<std::byte> found = setting.volume.memory->bytes(
          uint64_t{extent.startBlock} * kBlockSize, uint64_t{extent.blockCount} * kBlockSize);
      std::vector<std::byte> expected(found.size());
      setting.built.readFork(fork, offset, expected);
      EXPECT_EQ(found == expected, true) << "at " << offset;
      offset += found.size();
    }
    EXPECT_EQ(offset, fork.logicalSize);
  }

  /// Transfers of file data, as blocks.
  std::vector<support::BlockExtent> transfers(RecordingDevice::Call call, uint32_t first,
                                              uint32_t last) const {
    std::vector<support::BlockExtent> found;
    for (const RecordingDevice::Record& record : setting.volume.recording->records()) {
      const auto block = static_cast<uint32_t>(record.offset / kBlockSize);
      if (record.call == call && block >= first && block <= last) {
        found.push_back({block, static_cast<uint32_t>(record.size / kBlockSize)});
      }
    }
    return found;
  }

  StretchSetting setting;
  HFSPlusCopyBuffer buffer;
  HFSPlusDefragProgress progress{"DEFRAG", 1000};
  bool cancelled = false;
  HFSPlusCopyList list;
};

TEST(HFSPlusCopyList, AdjacentSourcesAreReadAtOnceAndWrittenApart) {
  support::VolumeDescription description = plainStretchVolume();
  const uint32_t a = addFileAt(description, "A", {{1000, 4}, {1004, 6}});
  ListSetting setting(description);
  setting.append(a, 1000, 4, 1700);
  setting.append(a, 1004, 6, 1500);
  const auto moved = setting.list.performCopyList(true);
  ASSERT_EQ(messageOf(moved), "");
  EXPECT_EQ(*moved, 2u);
  using Blocks = std::vector<support::BlockExtent>;
  EXPECT_EQ(setting.transfers(RecordingDevice::Call::Read, 1000, 1010), (Blocks{{1000, 10}}));
  EXPECT_EQ(setting.transfers(RecordingDevice::Call::Write, 1500, 1800),
            (Blocks{{1500, 6}, {1700, 4}}));
  EXPECT_EQ(setting.extentsOf(a), (Descriptors{{1700, 4}, {1500, 6}}));
  setting.expectBytes(a);
}

TEST(HFSPlusCopyList, AdjacentDestinationsAreWrittenAtOnce) {
  support::VolumeDescription description = plainStretchVolume();
  const uint32_t a = addFileAt(description, "A", {{1000, 4}, {1100, 6}});
  ListSetting setting(description);
  setting.append(a, 1000, 4, 1500);
  setting.append(a, 1100, 6, 1504);
  ASSERT_EQ(messageOf(setting.list.performCopyList(true)), "");
  EXPECT_EQ(setting.transfers(RecordingDevice::Call::Write, 1500, 1600),
            (std::vector<support::BlockExtent>{{1500, 10}}));
  EXPECT_EQ(setting.extentsOf(a), (Descriptors{{1500, 10}}));
  EXPECT_EQ(setting.setting.runAt(1500).entry->cnid, a);
  EXPECT_EQ(setting.setting.runAt(1000).entry->cnid, 0u);
  setting.expectBytes(a);
}

TEST(HFSPlusCopyList, DataMovedAFewBlocksDownOverItselfStaysWhole) {
  support::VolumeDescription description = plainStretchVolume();
  const uint32_t a = addFileAt(description, "A", {{1000, 10}});
  ListSetting setting(description);
  setting.append(a, 1000, 10, 997);
  ASSERT_EQ(messageOf(setting.list.performCopyList(true)), "");
  EXPECT_EQ(setting.extentsOf(a), (Descriptors{{997, 10}}));
  setting.expectBytes(a);
}

TEST(HFSPlusCopyList, AForkWhosePiecesAreInterleavedIsWrittenBackOnce) {
  support::VolumeDescription description = plainStretchVolume();
  const uint32_t a = addFileAt(description, "A", {{1000, 2}, {1004, 2}});
  const uint32_t b = addFileAt(description, "B", {{1002, 2}, {1006, 2}});
  ListSetting setting(description);
  setting.append(a, 1000, 2, 1500);
  setting.append(b, 1002, 2, 1502);
  setting.append(a, 1004, 2, 1504);
  setting.append(b, 1006, 2, 1506);
  EXPECT_EQ(setting.list.groups().size(), 2u);
  ASSERT_EQ(messageOf(setting.list.performCopyList(true)), "");
  setting.expectBytes(a);
  setting.expectBytes(b);
}

TEST(HFSPlusCopyList, ACancelledBatchHasChangedNothing) {
  support::VolumeDescription description = plainStretchVolume();
  const uint32_t a = addFileAt(description, "A", {{1000, 2}, {1004, 2}});
  ListSetting setting(description);
  setting.append(a, 1000, 2, 1500);
  setting.append(a, 1004, 2, 1502);
  setting.cancelled = true;
  const auto moved = setting.list.performCopyList(true);
  ASSERT_FALSE(moved);
  EXPECT_TRUE(moved.error().isUserCancelled());
  EXPECT_EQ(setting.extentsOf(a), (Descriptors{{1000, 2}, {1004, 2}}));
  EXPECT_TRUE(setting.setting.volume.recording->changes().empty());
}

TEST(HFSPlusCopyList, AForkThatCannotBePointedElsewhereUndoesTheBatch) {
  support::VolumeDescription description = plainStretchVolume();
  const uint32_t a = addFileAt(description, "A", {{1000, 2}});
  const uint32_t b = addFileAt(description, "B", {{1100, 2}});
  ListSetting setting(description);
  setting.append(a, 1000, 2, 1500);
  // A source that is not the file's.
  setting.list.appendCopyEntry({1200, b, {0, kHFSDataForkType, kHFSPlusExtentAllocated}}, 0, 2,
                               1502);
  EXPECT_TRUE(messageOf(setting.list.performCopyList(true)).starts_with("Invalid extent range"));
  EXPECT_EQ(setting.extentsOf(a), (Descriptors{{1000, 2}}));
}

TEST(HFSPlusCopyList, MoreThanTheBufferHoldsIsAnInternalError) {
  support::VolumeDescription description = plainStretchVolume();
  const uint32_t a = addFileAt(description, "A", {{1000, 65}});
  ListSetting setting(description);
  setting.append(a, 1000, 65, 1500);
  EXPECT_TRUE(messageOf(setting.list.performCopyList(true))
                  .starts_with("Internal error: Tasks/HFSPlusCopyList:"));
}

/// Moves of a run whose lines have been printed, without percentages.
std::string movesOf(const Lines& lines) {
  std::string text;
  for (const RewritingRun::Move& move : RewritingRun::movesIn(lines)) {
    text += std::to_string(move.from) + ">" + std::to_string(move.to) + "+" +
            std::to_string(move.count) + " ";
  }
  return text;
}

TEST(HFSPlusCopyEngine, ASourceLargerThanTheFreeRunAtTheFrontIsSplit) {
  support::VolumeDescription description = plainStretchVolume();
  StretchSetting empty(description);
  ASSERT_TRUE(empty.prepare());
  const uint32_t front = empty.firstBlock();
  // Free at the front, with blocks in between that nobody may move.
  description.markedWithoutOwner = {{front + 3, 2}};
  addFileAt(description, "A", {{front + 100, 8}});
  RewritingRun run(description);
  const std::string f3 = std::to_string(front) + "+3 ";
  EXPECT_EQ(movesOf(run.run("DEFRAG", {.copyBufferBlocks = 20})),
            std::to_string(front + 100) + ">" + f3 + std::to_string(front + 103) + ">" +
                std::to_string(front + 5) + "+5 ");
  EXPECT_EQ(run.faults(), "");
}

TEST(HFSPlusCopyEngine, ThreeScatteredExtentsEndUpAsOneAtTheFront) {
  support::VolumeDescription description = plainStretchVolume();
  StretchSetting empty(description);
  ASSERT_TRUE(empty.prepare());
  const uint32_t front = empty.firstBlock();
  const uint32_t a = addFileAt(description, "A", {{1400, 5}, {1000, 3}, {1200, 4}});
  RewritingRun run(description);
  const std::string moves = movesOf(run.run("DEFRAG", {.copyBufferBlocks = 50}));
  EXPECT_EQ(moves, "1400>" + std::to_string(front) + "+5 1000>" + std::to_string(front + 5) +
                       "+3 1200>" + std::to_string(front + 8) + "+4 ");
  EXPECT_EQ(run.truth().findFork(a, volumecheck::ForkType::Data)->extents,
            (std::vector<volumecheck::Extent>{{front, 12}}));
  EXPECT_EQ(run.faults(), "");
}

// A volume worked through by hand, with a buffer of six blocks. From its first free block on, "a"
// and "b" being the blocks of two files, "#" ones that nobody may move and "." free ones:
//
//              0         1         2         3
//              0123456789012345678901234567890123
//   before     ..bbb##...aaaa................aaaa
//   evicted    .....##...aaaabbb.............aaaa    the zone is 0 to 7, without the "#"
//   defrag 1   aaaaa##a......bbb...............aa    percent: 4, 5 and 6 of 11
//   defrag 2   aaaaa##aaabbb                         8 and 11 of 11
//   compact 1  aaaab##b........b.............aaaa    4, 5 and 6 of 11
//   compact 2  aaaab##bbaaaa                         7 and 11 of 11
struct ByHand {
  ByHand() {
    StretchSetting empty(description);
    EXPECT_TRUE(empty.prepare());
    front = empty.firstBlock();
    a = addFileAt(description, "A", {{front + 10, 4}, {front + 30, 4}});
    b = addFileAt(description, "B", {{front + 2, 3}});
    description.markedWithoutOwner = {{front + 5, 2}};
  }

  /// Lines of moves, given as percent, from, to and count, with blocks from the front.
  static Lines linesOf(const RewritingRun& run, const std::string& name, uint32_t front,
                       const std::vector<std::array<uint32_t, 4>>& moves) {
    Lines lines = {name + ",START"};
    for (const auto& [percent, from, to, count] : moves) {
      const uint32_t inUse = run.built().totalBlocks - run.built().freeBlocks;
      lines.push_back(LWFormat("%s,PROGRESS,%u,%u,%u,%u,%u", name, percent, front + from,
                               front + to, count, inUse));
    }
    lines.push_back(name + ",DONE");
    return lines;
  }
  using Extents = std::vector<volumecheck::Extent>;
  Extents extentsOf(RewritingRun& run, uint32_t file) const {
    Extents extents = run.truth().findFork(file, volumecheck::ForkType::Data)->extents;
    for (volumecheck::Extent& extent : extents) {
      extent.startBlock -= front;
    }
    return extents;
  }

  support::VolumeDescription description = plainStretchVolume();
  uint32_t front, a, b;
};

TEST(HFSPlusCopyEngine, DefragmentsAsWorkedOutByHand) {
  ByHand hand;
  RewritingRun run(hand.description);
  EXPECT_EQ(run.run("DEFRAG", {.copyBufferBlocks = 6}), ByHand::linesOf(run, "DEFRAG", hand.front,
                                                                        {{0, 2, 14, 3},
                                                                         {36, 10, 0, 4},
                                                                         {45, 30, 4, 1},
                                                                         {54, 31, 7, 1},
                                                                         {72, 32, 8, 2},
                                                                         {100, 14, 10, 3}}));
  EXPECT_EQ(hand.extentsOf(run, hand.a), (ByHand::Extents{{0, 5}, {7, 3}}));
  EXPECT_EQ(hand.extentsOf(run, hand.b), (ByHand::Extents{{10, 3}}));
  EXPECT_EQ(run.faults(), "");
}

TEST(HFSPlusCopyEngine, CompactsAsWorkedOutByHand) {
  ByHand hand;
  RewritingRun run(hand.description);
  EXPECT_EQ(run.run("COMPACT", {.copyBufferBlocks = 6}), ByHand::linesOf(run, "COMPACT", hand.front,
                                                                         {{0, 2, 14, 3},
                                                                          {36, 10, 0, 4},
                                                                          {45, 14, 4, 1},
                                                                          {54, 15, 7, 1},
                                                                          {63, 16, 8, 1},
                                                                          {100, 30, 9, 4}}));
  EXPECT_EQ(hand.extentsOf(run, hand.a), (ByHand::Extents{{0, 4}, {9, 4}}));
  EXPECT_EQ(hand.extentsOf(run, hand.b), (ByHand::Extents{{4, 1}, {7, 2}}));
  EXPECT_EQ(run.faults(), "");
}

TEST(HFSPlusCopyEngine, AForkLargerThanTheBufferGoesOnInTheNextBatch) {
  support::VolumeDescription description = plainStretchVolume();
  const uint32_t a = addFileAt(description, "A", {{1400, 35}, {1000, 3}});
  addFileAt(description, "B", {{1010, 5}});
  RewritingRun run(description);
  EXPECT_EQ(RewritingRun::errorIn(run.run("DEFRAG", {.copyBufferBlocks = 10})), "");
  EXPECT_EQ(run.truth().findFork(a, volumecheck::ForkType::Data)->extents.size(), 1u);
  EXPECT_EQ(run.faults(), "");
}

TEST(HFSPlusCopyEngine, AVolumeWithoutAFreeBlockIsLeftAsItIs) {
  support::VolumeDescription description = plainStretchVolume();
  addFileAt(description, "A", {{1400, 5}, {1000, 3}, {1200, 4}});
  StretchSetting layout(description);
  ASSERT_TRUE(layout.prepare());
  for (auto run = layout.stretch->map().firstEntry(); run;
       run = layout.stretch->map().nextEntry(run->entry)) {
    if (run->entry->info.type == kHFSPlusExtentUnalloced) {
      description.markedWithoutOwner.push_back({run->entry->start, run->count});
    }
  }
  RewritingRun run(description);
  EXPECT_EQ(RewritingRun::errorIn(run.run("DEFRAG")), "The amount of free space is insufficient.");
  EXPECT_EQ(run.faults(), "");
}

TEST(HFSPlusCopyEngine, MoreImmovableRunsThanTheMapHoldsCongestTheVolume) {
  for (const char* command : {"DEFRAG", "COMPACT"}) {
    support::VolumeDescription description = plainStretchVolume();
    for (uint32_t block = 600; block < 1800; block += 2) {
      description.markedWithoutOwner.push_back({block, 1});
    }
    addFileAt(description, "A", {{1900, 5}, {1850, 3}});
    RewritingRun run(description);
    const Lines lines = run.run(command, {.copyBufferBlocks = 64, .mapCapacity = 40});
    EXPECT_EQ(RewritingRun::errorIn(lines), "Volume is too congested\\, unable to continue.");
    EXPECT_EQ(run.faults(), "");
  }
}

TEST(HFSPlusCopyEngine, MovesEachBlockAboutTwiceAtMostHoweverFullTheVolumeIs) {
  for (const uint32_t fillPercent : {50, 90, 97, 99}) {
    for (const char* command : {"DEFRAG", "COMPACT"}) {
      support::PlainVolume plain;
      plain.size = 16 << 20;
      plain.fillPercent = fillPercent;
      plain.files = 150;
      RewritingRun run(support::plainVolume(plain));
      const Lines lines = run.run(command);
      EXPECT_EQ(RewritingRun::errorIn(lines), "");
      EXPECT_EQ(run.faults(), "");
      const uint64_t data = run.built().totalBlocks - run.built().freeBlocks;
      EXPECT_LE(RewritingRun::blocksMovedIn(lines), 2 * data);
    }
  }
}

}  // namespace
