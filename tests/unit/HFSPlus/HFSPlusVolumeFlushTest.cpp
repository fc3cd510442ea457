#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusFile.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "support/VolumeChecker.hpp"
#include "support/doubles/TestVolume.hpp"
#include "unit/HFSPlus/CatalogMove.hpp"

using namespace catalogmove;
using doubles::FaultyDevice;
using doubles::messageOf;
using doubles::TestVolume;
using Call = doubles::RecordingDevice::Call;
using Records = std::vector<doubles::RecordingDevice::Record>;

namespace {

HFSPlusVolumeHeader headerOf(const std::vector<std::byte>& bytes) {
  DiskOrder<HFSPlusVolumeHeader> disk;
  std::ranges::copy(bytes, disk.bytes.begin());
  return toHost(disk);
}

/// The image with zeros in the blocks that its own bitmap calls free: there nothing is promised.
std::vector<std::byte> withoutFreeBlocks(std::vector<std::byte> bytes) {
  const uint64_t bitmap =
      uint64_t{headerIn(bytes).allocationFile.extents[0].startBlock} * kBlockSize;
  for (uint32_t block = 0; block < kTotalBlocks; ++block) {
    if ((bytes[bitmap + block / 8] & (std::byte{0x80} >> (block % 8))) == std::byte{0}) {
      std::fill_n(bytes.begin() + ptrdiff_t{block} * kBlockSize, kBlockSize, std::byte{0});
    }
  }
  return bytes;
}

bool isHeader(const doubles::RecordingDevice::Record& record) {
  return record.call == Call::Write &&
         (record.offset == kHFSPlusVolumeHeaderOffset || record.offset == kAlternateOffset);
}

struct OpenVolume : TestVolume {
  OpenVolume() : TestVolume(image()) { EXPECT_EQ(messageOf(open()), ""); }
};

}  // namespace

TEST(HFSPlusVolumeFlush, WithNothingToWriteNothingIsWrittenNorSynced) {
  OpenVolume volume;
  EXPECT_TRUE(volume->flush());
  EXPECT_TRUE(volume->flush());
  EXPECT_TRUE(volume.recording->changes().empty());
}

TEST(HFSPlusVolumeFlush, TwoFlushesAfterWritesBumpTheWriteCountOnce) {
  OpenVolume volume;
  const uint32_t before = volume->hostVolumeHeader().writeCount;
  const std::vector<std::byte> bytes(kBlockSize);
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(volume->write(bytes, uint64_t{kFree.start} * kBlockSize));
    ASSERT_TRUE(volume->flush());
    EXPECT_EQ(volume->hostVolumeHeader().writeCount, before + 1);
    EXPECT_EQ(volume.headerOnDisk().writeCount, before + 1);
  }
}

TEST(HFSPlusVolumeFlush, ABumpAloneLeavesTheAlternateHeader) {
  OpenVolume volume;
  const uint32_t before = volume->hostVolumeHeader().writeCount;
  const std::vector<std::byte> bytes(kBlockSize);
  ASSERT_TRUE(volume->write(bytes, uint64_t{kFree.start} * kBlockSize));
  ASSERT_TRUE(volume->flush());
  EXPECT_EQ(volume.alternateOnDisk().writeCount, before);
}

TEST(HFSPlusVolumeFlush, ADirtyHeaderGoesToBothPlaces) {
  OpenVolume volume;
  volume->updateFreeBlocks(-3);
  ASSERT_TRUE(volume->flush());
  EXPECT_EQ(volume.headerOnDisk().freeBlocks, builtVolume().freeBlocks - 3);
  EXPECT_EQ(toDisk(volume.headerOnDisk()), toDisk(volume.alternateOnDisk()));
  EXPECT_EQ(toDisk(volume.headerOnDisk()), toDisk(volume->hostVolumeHeader()));
}

TEST(HFSPlusVolumeFlush, ADeltaOfZeroIsNoChange) {
  OpenVolume volume;
  volume->updateFreeBlocks(0);
  ASSERT_TRUE(volume->flush());
  EXPECT_TRUE(volume.recording->changes().empty());
}

TEST(HFSPlusVolumeFlush, PiecesAreWrittenByAscendingPlaceBetweenTwoSyncs) {
  OpenVolume volume;
  const std::vector<std::byte> bytes(kBlockSize, std::byte{0x11});
  ASSERT_TRUE(volume->write(bytes, uint64_t{kFree.start} * kBlockSize));
  ASSERT_TRUE(volume->allocation().set(kFree.start, 1));
  const HFSPlusCatalogRecord record = *volume->catalog().copyRecordForCNID(16);
  ASSERT_TRUE(volume->catalog().updateForkExtents(record.file().dataFork.extents, 16,
                                                  kHFSDataForkType, false));
  volume.recording->clear();
  ASSERT_TRUE(volume->flush());
  const Records changes = volume.recording->changes();
  ASSERT_GE(changes.size(), 6U);  // two syncs, two headers, a chunk and a node
  EXPECT_EQ(changes.front().call, Call::Sync);
  EXPECT_EQ(changes.back().call, Call::Sync);
  for (size_t i = 1; i + 1 < changes.size(); ++i) {
    EXPECT_EQ(changes[i].call, Call::Write);
    EXPECT_TRUE(i == 1 || changes[i].offset >= changes[i - 1].offset + changes[i - 1].size);
  }
}

TEST(HFSPlusVolumeFlush, HeldBytesGoWhereTheFileLiesAtTheFlush) {
  OpenVolume volume;
  HFSPlusFile catalog(*volume, kHFSCatalogFileID);
  std::vector<std::byte> node(4096);
  ASSERT_TRUE(catalog.read(node, 4096));
  ASSERT_TRUE(moveCatalog(*volume, kFree.start));
  ASSERT_TRUE(catalog.write(node, 4096));
  ASSERT_TRUE(volume->flush());
  EXPECT_EQ(volume.memory->bytes(uint64_t{kFree.start} * kBlockSize + 4096, 4096), node);
  EXPECT_EQ(faultsOf(volume.memory->image()), "");
}

TEST(HFSPlusVolumeFlush, AFileThatCannotBeWrittenFailsBeforeAnythingIs) {
  OpenVolume volume;
  volume->updateFreeBlocks(-1);
  volume->heldWrites().hold(kHFSCatalogFileID, uint64_t{1} << 40, image());
  EXPECT_EQ(messageOf(volume->flush()), "Write failure.");
  EXPECT_TRUE(volume.recording->changes().empty());
}

TEST(HFSPlusVolumeFlush, AnErrorOfTheHeadersWriteIsTheDevicesOwn) {
  OpenVolume volume;
  volume->updateFreeBlocks(-1);
  volume.faulty->plan({.call = FaultyDevice::Call::Write, .ordinal = 0});
  EXPECT_EQ(messageOf(volume->flush()),
            "Write failed with an error 5 at offset 1024 and size 512.");
}

TEST(HFSPlusVolumeFlush, AnErrorOfASpecialFilesWriteIsAWriteFailure) {
  OpenVolume volume;
  ASSERT_TRUE(volume->allocation().set(kFree.start, 1));
  volume.faulty->plan({.call = FaultyDevice::Call::Write, .ordinal = 1});
  EXPECT_EQ(messageOf(volume->flush()), "Write failure.");
}

TEST(HFSPlusVolumeFlush, AnUnfinishedFlushIsCompletedByTheNextOne) {
  for (uint64_t ordinal = 0; ordinal < 3; ++ordinal) {
    OpenVolume volume;
    ASSERT_TRUE(moveCatalog(*volume, kFree.start));
    volume.faulty->plan({.call = FaultyDevice::Call::Write,
                         .ordinal = ordinal,
                         .how = FaultyDevice::How::Tear,
                         .part = 100});
    EXPECT_NE(messageOf(volume->flush()), "");
    volume.faulty->repair();
    EXPECT_EQ(messageOf(volume->flush()), "");
    EXPECT_TRUE(volume->heldWrites().empty());
    EXPECT_EQ(faultsOf(volume.memory->image()), "") << ordinal;
  }
}

TEST(HFSPlusVolumeFlush, WhatIsHeldAfterAnUnfinishedFlushIsNotForgotten) {
  OpenVolume volume;
  ASSERT_TRUE(volume->allocation().set(kFree.start, 1));
  volume.faulty->plan({.call = FaultyDevice::Call::Write, .ordinal = 1});
  ASSERT_FALSE(volume->flush());
  volume.faulty->repair();
  ASSERT_TRUE(volume->allocation().clear(kFree.start, 1));
  ASSERT_EQ(messageOf(volume->flush()), "");
  EXPECT_EQ(faultsOf(volume.memory->image()), "");
}

TEST(HFSPlusRewritingRun, ARunThatWritesNothingLeavesEveryByte) {
  OpenVolume volume;
  volume->beginRewriting();
  EXPECT_TRUE(volume->flush());
  EXPECT_TRUE(volume->endRewriting());
  EXPECT_TRUE(volume.recording->changes().empty());
}

TEST(HFSPlusRewritingRun, ARunThatTakesItsChangesBackLeavesEveryByte) {
  OpenVolume volume;
  volume->beginRewriting();
  ASSERT_TRUE(volume->allocation().set(kFree.start, 1));
  ASSERT_TRUE(volume->discardChanges());
  EXPECT_TRUE(volume->endRewriting());
  EXPECT_TRUE(volume.recording->changes().empty());
}

TEST(HFSPlusRewritingRun, TheMarkIsOnTheDeviceBeforeAnythingElseAndOnEveryHeaderUntilTheEnd) {
  OpenVolume volume;
  ASSERT_EQ(messageOf(runMovingCatalog(*volume)), "");
  const Records changes = volume.recording->changes();
  const auto marked = std::ranges::find_if(changes, isHeader);
  ASSERT_NE(marked, changes.end());
  // Before it, only the last sector, which is nobody's, and syncs.
  for (auto change = changes.begin(); change != marked; ++change) {
    EXPECT_TRUE(change->call == Call::Sync || change->offset >= kAlternateOffset + 512);
  }
  EXPECT_EQ(marked->offset, kHFSPlusVolumeHeaderOffset);
  EXPECT_EQ(std::next(marked)->call, Call::Sync);
  // Apart from its mark it is the header that was there.
  HFSPlusVolumeHeader first = headerOf(marked->bytes);
  EXPECT_TRUE(isMarked(first));
  first.attributes = headerIn(image()).attributes;
  EXPECT_EQ(toDisk(first), toDisk(headerIn(image())));

  Records unmarked;
  std::ranges::copy_if(changes, std::back_inserter(unmarked), [](const auto& change) {
    return isHeader(change) && !isMarked(headerOf(change.bytes));
  });
  ASSERT_EQ(unmarked.size(), 2U);
  EXPECT_EQ(unmarked[0].offset, kAlternateOffset);
  EXPECT_EQ(unmarked[1].offset, kHFSPlusVolumeHeaderOffset);
}

TEST(HFSPlusRewritingRun, NothingButReservedBytesIsWrittenAfterTheMarkIsGone) {
  OpenVolume volume;
  ASSERT_EQ(messageOf(runMovingCatalog(*volume)), "");
  const Records changes = volume.recording->changes();
  const auto last = std::find_if(changes.rbegin(), changes.rend(), isHeader);
  ASSERT_NE(last, changes.rend());
  EXPECT_EQ(last->offset, kHFSPlusVolumeHeaderOffset);
  EXPECT_EQ(std::next(last)->call, Call::Sync);
  ASSERT_NE(last, changes.rbegin());
  EXPECT_EQ(std::prev(last)->call, Call::Sync);
  for (auto change = changes.rbegin(); change != last; ++change) {
    EXPECT_TRUE(change->call == Call::Sync || change->offset >= kAlternateOffset + 512);
  }
}

TEST(HFSPlusRewritingRun, DataIsSyncedBeforeTheMetadataOfItsBatch) {
  OpenVolume volume;
  ASSERT_EQ(messageOf(runMovingCatalog(*volume)), "");
  bool dataPending = false;
  bool sawMetadata = false;
  for (const auto& record : volume.recording->changes()) {
    const bool isData = record.call == Call::Write &&
                        record.offset >= uint64_t{kFree.start} * kBlockSize &&
                        record.offset < kAlternateOffset && !sawMetadata;
    if (record.call == Call::Sync) {
      dataPending = false;
    } else if (isData && record.size % kBlockSize == 0 && record.size > kBlockSize) {
      dataPending = true;
    } else if (!isData) {
      EXPECT_FALSE(dataPending);
      sawMetadata = sawMetadata || !isHeader(record);
    }
  }
  EXPECT_TRUE(sawMetadata);
}

TEST(HFSPlusRewritingRun, AFinishedRunLeavesTheBytesOfPlainFlushes) {
  OpenVolume marked;
  ASSERT_EQ(messageOf(runMovingCatalog(*marked)), "");
  OpenVolume plain;
  ASSERT_EQ(messageOf(moveCatalog(*plain, kFree.start)), "");
  ASSERT_EQ(messageOf(plain->flush()), "");
  EXPECT_EQ(withoutFreeBlocks(marked.memory->image()), withoutFreeBlocks(plain.memory->image()));
  EXPECT_EQ(faultsOf(marked.memory->image()), "");
  EXPECT_EQ(marked.headerOnDisk().writeCount, headerIn(image()).writeCount + 1);
}

TEST(HFSPlusRewritingRun, ARunThatOnlyWritesDataLeavesTheAlternateHeader) {
  OpenVolume volume;
  volume->beginRewriting();
  const std::vector<std::byte> bytes(kBlockSize);
  ASSERT_TRUE(volume->write(bytes, uint64_t{kFree.start} * kBlockSize));
  EXPECT_TRUE(isMarked(volume.headerOnDisk()));
  ASSERT_TRUE(volume->endRewriting());
  EXPECT_FALSE(isMarked(volume.headerOnDisk()));
  for (const auto& record : volume.recording->changes()) {
    EXPECT_FALSE(record.call == Call::Write && record.offset == kAlternateOffset);
  }
  EXPECT_EQ(faultsOf(volume.memory->image()), "");
}

TEST(HFSPlusRewritingRun, TheWriteCountGrowsOnceForSeveralRunsOfAProcess) {
  OpenVolume volume;
  const uint32_t before = volume->hostVolumeHeader().writeCount;
  ASSERT_EQ(messageOf(runMovingCatalog(*volume)), "");
  volume->beginRewriting();
  ASSERT_EQ(messageOf(moveCatalog(*volume, kFree.start + 40)), "");
  EXPECT_TRUE(isMarked(volume.headerOnDisk()));
  ASSERT_EQ(messageOf(volume->endRewriting()), "");
  EXPECT_EQ(volume.headerOnDisk().writeCount, before + 1);
  EXPECT_FALSE(isMarked(volume.headerOnDisk()));
  EXPECT_EQ(faultsOf(volume.memory->image()), "");
}

TEST(HFSPlusRewritingRun, AnInterruptedRunCarriesTheMarkUntilTheVolumeIsOpenedAgain) {
  OpenVolume volume;
  volume->beginRewriting();
  ASSERT_TRUE(moveCatalog(*volume, kFree.start));
  ASSERT_TRUE(volume->flush());
  EXPECT_TRUE(isMarked(volume.headerOnDisk()));
  EXPECT_TRUE(isMarked(volume.alternateOnDisk()));

  TestVolume after(volume.memory->image());
  EXPECT_EQ(after.probe(), true);
  ASSERT_EQ(messageOf(after.open()), "");
  EXPECT_FALSE(isMarked(after.headerOnDisk()));
  EXPECT_EQ(faultsOf(after.memory->image()), "");
}

TEST(HFSPlusRewritingRun, TheFreeBlockCountAgreesWithTheBitmapAtTheEnd) {
  OpenVolume volume;
  volume->beginRewriting();
  // Counted as two blocks taken and one given back, although the bits come back as they were.
  ASSERT_TRUE(volume->allocation().set(kFree.start, 1));
  ASSERT_TRUE(volume->allocation().set(kFree.start, 1));
  ASSERT_TRUE(volume->allocation().clear(kFree.start, 1));
  EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, builtVolume().freeBlocks - 1);
  ASSERT_TRUE(volume->endRewriting());
  EXPECT_EQ(volume.headerOnDisk().freeBlocks, builtVolume().freeBlocks);
  EXPECT_EQ(faultsOf(volume.memory->image()), "");
}

TEST(HFSPlusRewritingRun, DiscardedChangesAreGoneEverywhere) {
  OpenVolume volume;
  volume->beginRewriting();
  ASSERT_TRUE(volume->allocation().set(kFree.start, 1));
  ASSERT_TRUE(volume->flush());
  const HFSPlusVolumeHeader flushed = volume->hostVolumeHeader();
  ASSERT_TRUE(volume->allocation().set(kFree.start, 2));
  ASSERT_TRUE(volume->catalog().updateForkExtents({{{1, 1}}}, 16, kHFSDataForkType, true));
  ASSERT_TRUE(volume->updateForkExtents({{{9, 9}}}, kHFSStartupFileID));
  const std::vector<std::byte> node(4096, std::byte{0x77});
  ASSERT_TRUE(HFSPlusFile(*volume, kHFSCatalogFileID).write(node, 4096));
  volume.recording->clear();

  ASSERT_EQ(messageOf(volume->discardChanges()), "");
  EXPECT_EQ(toDisk(volume->hostVolumeHeader()), toDisk(flushed));
  EXPECT_TRUE(volume->heldWrites().empty());
  EXPECT_EQ(*volume->allocation().isSet(kFree.start, 2), 1U);
  EXPECT_NE(volume->catalog().copyRecordForCNID(16)->file().dataFork.logicalSize, 0U);
  EXPECT_TRUE(volume.recording->changes().empty());

  // The count that only the discarded changes had wrong is not settled twice.
  ASSERT_TRUE(volume->allocation().clear(kFree.start, 1));
  ASSERT_TRUE(volume->endRewriting());
  EXPECT_EQ(volume.headerOnDisk().freeBlocks, builtVolume().freeBlocks);
  EXPECT_EQ(faultsOf(volume.memory->image()), "");
}

namespace {

/// The states in which a run may leave the volume: as before it, or as after it.
class Outcomes {
 public:
  Outcomes() : _before(comparable(image())) {
    OpenVolume volume;
    EXPECT_EQ(messageOf(runMovingCatalog(*volume)), "");
    _after = comparable(volume.memory->image());
  }

  bool isOne(const std::vector<std::byte>& state) const {
    const std::vector<std::byte> bytes = comparable(state);
    return bytes == _before || bytes == _after;
  }

 private:
  /// Without what a run that takes its changes back may leave: write counts and free blocks.
  static std::vector<std::byte> comparable(std::vector<std::byte> state) {
    doubles::editHeaders(state, [](auto& header) { header.writeCount = 0; });
    return withoutFreeBlocks(std::move(state));
  }

  std::vector<std::byte> _before;
  std::vector<std::byte> _after;
};

}  // namespace

TEST(HFSPlusRewritingRun, EveryFailingWriteAndSyncLeavesTheVolumeBeforeOrAfterTheBatch) {
  const Outcomes outcomes;
  for (const auto call : {FaultyDevice::Call::Write, FaultyDevice::Call::Sync}) {
    for (const auto how : {FaultyDevice::How::Fail, FaultyDevice::How::Tear}) {
      bool failed = true;
      for (uint64_t ordinal = 0; failed; ++ordinal) {
        SCOPED_TRACE(testing::Message() << "call " << static_cast<int>(call) << " " << ordinal);
        OpenVolume volume;
        volume.faulty->plan({.call = call, .ordinal = ordinal, .how = how, .part = 512});
        const Result<> result = runMovingCatalog(*volume);
        failed = volume.faulty->count(call) > ordinal;
        EXPECT_NE(failed, result.has_value());
        // The run has ended; once the device works, ending it again takes what marks remain away.
        volume.faulty->repair();
        ASSERT_EQ(messageOf(volume->endRewriting()), "");
        EXPECT_TRUE(outcomes.isOne(volume.memory->image()));
        EXPECT_EQ(faultsOf(volume.memory->image()), "");
      }
    }
  }
}

TEST(HFSPlusRewritingRun, AVolumeThatCannotBeFinishedIsFinishedByTheNextOpening) {
  const Outcomes outcomes;
  OpenVolume counting;
  ASSERT_EQ(messageOf(runMovingCatalog(*counting)), "");
  const uint64_t writes = counting.faulty->count(FaultyDevice::Call::Write);
  uint64_t markedStates = 0;
  for (uint64_t ordinal = 0; ordinal < writes; ++ordinal) {
    SCOPED_TRACE(ordinal);
    OpenVolume volume;
    volume.faulty->plan(
        {.call = FaultyDevice::Call::Write, .ordinal = ordinal, .how = FaultyDevice::How::Stop});
    EXPECT_NE(messageOf(runMovingCatalog(*volume)), "");
    markedStates += isMarked(headerIn(volume.memory->image())) ? 1 : 0;
    TestVolume after(volume.memory->image());
    ASSERT_EQ(messageOf(after.open()), "");
    EXPECT_TRUE(outcomes.isOne(after.memory->image()));
    EXPECT_EQ(faultsOf(after.memory->image()), "");
  }
  // All but those of the first two writes and of the last one.
  EXPECT_EQ(markedStates, writes - 3);
}

TEST(HFSPlusRewritingRun, ARunThatCouldNotBeginOrEndDoesNotHideTheNextOne) {
  OpenVolume counting;
  ASSERT_EQ(messageOf(runMovingCatalog(*counting)), "");
  const uint64_t writes = counting.faulty->count(FaultyDevice::Call::Write);
  const uint64_t syncs = counting.faulty->count(FaultyDevice::Call::Sync);
  for (const auto& [call, ordinal] : {std::pair{FaultyDevice::Call::Write, uint64_t{0}},
                                      {FaultyDevice::Call::Write, writes - 1},
                                      {FaultyDevice::Call::Sync, uint64_t{0}},
                                      {FaultyDevice::Call::Sync, syncs - 1}}) {
    OpenVolume volume;
    volume.faulty->plan({.call = call, .ordinal = ordinal, .how = FaultyDevice::How::Break});
    ASSERT_NE(messageOf(runMovingCatalog(*volume)), "");
    volume.faulty->repair();

    volume->beginRewriting();
    ASSERT_EQ(messageOf(moveCatalog(*volume, kFree.start + 40)), "");
    ASSERT_EQ(messageOf(volume->flush()), "");
    TestVolume after(volume.memory->image());
    ASSERT_EQ(messageOf(after.open()), "") << ordinal;
    EXPECT_EQ(after->hostVolumeHeader().catalogFile.extents[0].startBlock, kFree.start + 40);
    EXPECT_EQ(faultsOf(after.memory->image()), "");
    ASSERT_EQ(messageOf(volume->endRewriting()), "");
    EXPECT_EQ(faultsOf(volume.memory->image()), "");
    const std::vector<std::byte> last = volume.memory->bytes(kAlternateOffset + 512, 512);
    EXPECT_EQ(last, std::vector<std::byte>(512));
  }
}
