#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusFile.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "support/doubles/TestVolume.hpp"

using doubles::FaultyDevice;
using doubles::messageOf;
using doubles::TestVolume;
using Call = doubles::RecordingDevice::Call;
using Records = std::vector<doubles::RecordingDevice::Record>;

namespace {

constexpr uint32_t kBlockSize = 4096;
constexpr uint32_t kTotalBlocks = 2048;
constexpr uint64_t kAlternateOffset = uint64_t{kBlockSize} * kTotalBlocks - 1024;
constexpr support::BlockExtent kFree = {.start = 1500, .count = 64};

const support::BuiltVolume& builtVolume() {
  static const support::BuiltVolume volume = [] {
    support::VolumeDescription description;
    description.blockSize = kBlockSize;
    description.size = uint64_t{kBlockSize} * kTotalBlocks;
    description.keptFree = {kFree};
    description.catalog.totalNodes = 40;
    for (int i = 0; i < 40; ++i) {
      description.root().addFile("file " + std::to_string(i), support::fork(10000, 2));
    }
    return support::buildVolume(description);
  }();
  return volume;
}

std::vector<std::byte> image() {
  return builtVolume().image;
}

bool isMarked(const HFSPlusVolumeHeader& header) {
  return (header.attributes & kHFSVolumeUnmountedMask) == 0 &&
         (header.attributes & kHFSVolumeInconsistentMask) != 0;
}

HFSPlusVolumeHeader headerOf(const std::vector<std::byte>& bytes) {
  DiskOrder<HFSPlusVolumeHeader> disk;
  std::ranges::copy(bytes, disk.bytes.begin());
  return toHost(disk);
}

/// The primary header of a volume's image.
HFSPlusVolumeHeader headerIn(const std::vector<std::byte>& bytes) {
  return headerOf({bytes.begin() + 1024, bytes.begin() + 1536});
}

bool isHeader(const doubles::RecordingDevice::Record& record) {
  return record.call == Call::Write &&
         (record.offset == kHFSPlusVolumeHeaderOffset || record.offset == kAlternateOffset);
}

/// What a volume's bytes get wrong, in the checker's words; empty for a spotless one.
std::string faultsOf(const std::vector<std::byte>& bytes) {
  const auto result = volumecheck::checkVolumeBytes(
      {reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()},
      {.alternate = volumecheck::AlternateRule::MustAgree, .hashForks = false});
  return result.readable ? result.report() : "not readable: " + result.report();
}

/// A batch as the defragmenter does them: moves the catalog file to free blocks, points the header
/// there, changes the bitmap accordingly and rewrites a record of the catalog itself.
Result<> moveCatalog(HFSPlusVolume& volume, uint32_t target) {
  const HFSPlusForkData fork = *volume.hostForkData(kHFSCatalogFileID);
  uint32_t next = target;
  std::vector<std::byte> bytes;
  for (const HFSPlusExtentDescriptor& extent : fork.extents) {
    bytes.resize(uint64_t{extent.blockCount} * kBlockSize);
    TRY(volume.read(bytes, uint64_t{extent.startBlock} * kBlockSize));
    TRY(volume.write(bytes, uint64_t{next} * kBlockSize));
    next += extent.blockCount;
  }
  for (const HFSPlusExtentDescriptor& extent : fork.extents) {
    TRY(volume.allocation().clear(extent.startBlock, extent.blockCount));
  }
  TRY(volume.allocation().set(target, next - target));
  const HFSPlusCatalogRecord record = TRY(volume.catalog().copyRecordForCNID(16));
  TRY(volume.catalog().updateForkExtents(record.file().dataFork.extents, 16, kHFSDataForkType,
                                         false));
  return volume.updateForkExtents({{{target, next - target}}}, kHFSCatalogFileID);
}

/// A whole run: one batch, its flush, and the end, which comes whatever the batch met.
Result<> runMovingCatalog(HFSPlusVolume& volume) {
  volume.beginRewriting();
  Result<> result = moveCatalog(volume, kFree.start);
  if (result) {
    result = volume.flush();
  }
  if (!result) {
    static_cast<void>(volume.discardChanges());
  }
  const Result<> ended = volume.endRewriting();
  return result ? ended : result;
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
  ASSERT_GT(changes.size(), 8U);
  EXPECT_EQ(changes[0].offset, kHFSPlusVolumeHeaderOffset);
  EXPECT_EQ(changes[0].call, Call::Write);
  EXPECT_EQ(changes[1].call, Call::Sync);

  // Apart from its mark the first header is the one that was there.
  HFSPlusVolumeHeader first = headerOf(changes[0].bytes);
  EXPECT_TRUE(isMarked(first));
  first.attributes = headerOf(volume.memory->bytes(kAlternateOffset, 512)).attributes;
  const std::vector<std::byte> original = image();
  EXPECT_TRUE(std::ranges::equal(toDisk(first).bytes, std::span(original).subspan(1024, 512)));

  std::vector<size_t> unmarked;
  for (size_t i = 0; i < changes.size(); ++i) {
    if (isHeader(changes[i]) && !isMarked(headerOf(changes[i].bytes))) {
      unmarked.push_back(i);
    }
  }
  // The end: alternate, sync, primary, sync.
  const size_t count = changes.size();
  EXPECT_EQ(unmarked, (std::vector<size_t>{count - 4, count - 2}));
  EXPECT_EQ(changes[count - 4].offset, kAlternateOffset);
  EXPECT_EQ(changes[count - 2].offset, kHFSPlusVolumeHeaderOffset);
  EXPECT_EQ(changes[count - 5].call, Call::Sync);
  EXPECT_EQ(changes[count - 3].call, Call::Sync);
  EXPECT_EQ(changes[count - 1].call, Call::Sync);
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
  EXPECT_EQ(marked.memory->image(), plain.memory->image());
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

TEST(HFSPlusRewritingRun, AnInterruptedRunIsRefusedAfterwards) {
  OpenVolume volume;
  volume->beginRewriting();
  ASSERT_TRUE(moveCatalog(*volume, kFree.start));
  ASSERT_TRUE(volume->flush());
  TestVolume after(volume.memory);
  EXPECT_EQ(after.probe(), true);
  EXPECT_EQ(messageOf(after.open()), "Volume is inconsistent.");
  ASSERT_TRUE(volume->endRewriting());
  EXPECT_EQ(messageOf(after.open()), "");
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

/// The states in which a run may leave the volume's metadata: as before it, or as after it.
struct Outcomes {
  std::vector<std::byte> before = image();
  std::vector<std::byte> after;

  Outcomes() {
    OpenVolume volume;
    EXPECT_EQ(messageOf(runMovingCatalog(*volume)), "");
    after = volume.memory->image();
  }

  /// Compares all but free blocks and write counts.
  bool isOne(std::vector<std::byte> state) const {
    return same(state, before) || same(state, after);
  }

 private:
  static std::vector<std::byte> reduced(std::vector<std::byte> state, uint32_t catalogStart) {
    doubles::editHeaders(state, [](auto& header) { header.writeCount = 0; });
    const bool moved = catalogStart == kFree.start;
    if (!moved) {
      std::fill_n(state.begin() + ptrdiff_t{kFree.start} * kBlockSize, kFree.count * kBlockSize,
                  std::byte{0});
    }
    return state;
  }

  static bool same(const std::vector<std::byte>& a, const std::vector<std::byte>& b) {
    const uint32_t start = headerIn(b).catalogFile.extents[0].startBlock;
    return reduced(a, start) == reduced(b, start);
  }
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

TEST(HFSPlusRewritingRun, AVolumeThatCannotBeFinishedKeepsItsMark) {
  OpenVolume counting;
  ASSERT_EQ(messageOf(runMovingCatalog(*counting)), "");
  const uint64_t writes = counting.faulty->count(FaultyDevice::Call::Write);
  for (uint64_t ordinal = 1; ordinal < writes; ++ordinal) {
    OpenVolume volume;
    volume.faulty->plan(
        {.call = FaultyDevice::Call::Write, .ordinal = ordinal, .how = FaultyDevice::How::Break});
    EXPECT_NE(messageOf(runMovingCatalog(*volume)), "");
    TestVolume after(volume.memory);
    EXPECT_EQ(messageOf(after.open()), "Volume is inconsistent.") << ordinal;
  }
}
