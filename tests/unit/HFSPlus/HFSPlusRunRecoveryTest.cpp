#include "HFSPlus/HFSPlusRunRecovery.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <random>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "LWKit/LWChecksum.hpp"
#include "support/doubles/PowerCut.hpp"
#include "support/doubles/TestVolume.hpp"
#include "unit/HFSPlus/CatalogMove.hpp"

using namespace catalogmove;
using doubles::FaultyDevice;
using doubles::messageOf;
using doubles::PowerCut;
using doubles::RecordingDevice;
using doubles::TestVolume;
using Mode = TestVolume::Mode;
using Records = std::vector<RecordingDevice::Record>;

namespace {

constexpr std::string_view kInconsistent = "Volume is inconsistent.";

std::optional<HFSPlusRunLocator> locatorIn(std::span<const std::byte> lastSector) {
  return HFSPlusRunLocator::fromDisk(lastSector.first<HFSPlusRunLocator::kBytes>());
}

std::optional<HFSPlusRunLocator> locatorOf(const Image& bytes) {
  return locatorIn(std::span(bytes).subspan(kLastSectorOffset));
}

/// The writes and syncs of a run of one batch.
const Records& changesOfRun() {
  static const Records changes = [] {
    TestVolume volume(image());
    EXPECT_EQ(messageOf(volume.open()), "");
    EXPECT_EQ(messageOf(runMovingCatalog(*volume)), "");
    return volume.recording->changes();
  }();
  return changes;
}

/// Where the write of the locator comes that names the batch's record.
size_t commitPoint() {
  const auto commit = std::ranges::find_if(changesOfRun(), [](const auto& change) {
    const auto locator = change.offset == kLastSectorOffset && !change.bytes.empty()
                             ? locatorIn(change.bytes)
                             : std::nullopt;
    return locator && locator->recordBytes > 0;
  });
  EXPECT_NE(commit, changesOfRun().end());
  return static_cast<size_t>(commit - changesOfRun().begin());
}

/// The volume after the first changes of the run.
Image imageAt(size_t point) {
  PowerCut cut(image(), changesOfRun());
  cut.advanceTo(point);
  return cut.image(PowerCut::Unsynced::Kept);
}

/// The batch is written down, and nothing of it carried out yet.
Image withRecord() {
  return imageAt(commitPoint() + 1);
}

/// The run has begun, and no batch has been written down.
Image withoutRecord() {
  return imageAt(commitPoint());
}

uint32_t catalogBlock(const HFSPlusVolumeHeader& header) {
  return header.catalogFile.extents[0].startBlock;
}

/// Every record of the catalog can be read, and names a file.
void expectReadable(HFSPlusVolume& volume) {
  for (uint32_t id = kFileID; id < kFileID + 40; ++id) {
    const auto record = volume.catalog().copyRecordForCNID(id);
    ASSERT_TRUE(record) << record.error().description();
    EXPECT_TRUE(record->isFile()) << id;
  }
}

void expectRefused(const Image& bytes) {
  for (const Mode mode : {Mode::ReadWrite, Mode::ReadOnly}) {
    TestVolume volume(bytes, mode);
    EXPECT_EQ(messageOf(volume.open()), kInconsistent);
    EXPECT_TRUE(volume.recording->changes().empty());
    EXPECT_EQ(volume.memory->image(), bytes);
  }
}

}  // namespace

TEST(HFSPlusRunRecovery, AWholeRecordIsCarriedOutAndALogLineTellsOfIt) {
  const Image interrupted = withRecord();
  ASSERT_TRUE(isMarked(headerIn(interrupted)));
  ASSERT_NE(catalogBlock(headerIn(interrupted)), kFree.start);
  TestVolume volume(interrupted);
  testing::internal::CaptureStderr();
  const std::string message = messageOf(volume.open());
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(message, "");
  EXPECT_TRUE(log.contains("WARNING: An interrupted run was found (1 flushes done, ")) << log;
  EXPECT_EQ(catalogBlock(volume->hostVolumeHeader()), kFree.start);
  EXPECT_EQ(catalogBlock(volume.headerOnDisk()), kFree.start);
  expectReadable(*volume);
  EXPECT_EQ(faultsOf(volume.memory->image()), "");
  EXPECT_EQ(volume.memory->bytes(kLastSectorOffset, 512), Image(512));
}

TEST(HFSPlusRunRecovery, WithoutARecordTheLastBatchStands) {
  const Image interrupted = withoutRecord();
  ASSERT_TRUE(isMarked(headerIn(interrupted)));
  TestVolume volume(interrupted);
  ASSERT_EQ(messageOf(volume.open()), "");
  EXPECT_EQ(catalogBlock(volume->hostVolumeHeader()), catalogBlock(headerIn(image())));
  expectReadable(*volume);
  EXPECT_EQ(faultsOf(volume.memory->image()), "");
  EXPECT_EQ(volume.memory->bytes(kLastSectorOffset, 512), Image(512));
}

TEST(HFSPlusRunRecovery, OnADeviceThatIsNotToBeWrittenItIsAViewInMemory) {
  for (const Mode mode : {Mode::ReadOnly, Mode::Mounted}) {
    for (const bool hasRecord : {true, false}) {
      const Image interrupted = hasRecord ? withRecord() : withoutRecord();
      TestVolume volume(interrupted, mode);
      ASSERT_EQ(messageOf(volume.open()), "");
      EXPECT_EQ(catalogBlock(volume->hostVolumeHeader()),
                hasRecord ? kFree.start : catalogBlock(headerIn(image())));
      EXPECT_FALSE(isMarked(volume->hostVolumeHeader()));
      expectReadable(*volume);
      EXPECT_EQ(volume->allocation().isSet(kFree.start, 1).value(), hasRecord ? 1U : 0U);
      EXPECT_TRUE(volume.recording->changes().empty());
      EXPECT_EQ(volume.memory->image(), interrupted);
      // What is there for all to see stays in need of attention.
      EXPECT_TRUE(isMarked(volume.headerOnDisk()));
    }
  }
}

TEST(HFSPlusRunRecovery, ADamagedRecordIsNeverApplied) {
  const Image interrupted = withRecord();
  const auto locator = locatorOf(interrupted);
  ASSERT_TRUE(locator);
  const uint64_t begin = uint64_t{locator->recordBlock} * kBlockSize;
  // The link of a record's last run leads nowhere, whatever it says.
  for (uint64_t at = 8; at < 8 + uint64_t{locator->recordBytes}; at += 1009) {
    Image damaged = interrupted;
    damaged[begin + at] ^= std::byte{0x04};
    expectRefused(damaged);
  }
}

TEST(HFSPlusRunRecovery, ARecordOfAnotherRunOrVolumeIsNeverApplied) {
  // Another run of the same batch has another number, and puts its record at the same place.
  TestVolume other(image());
  ASSERT_EQ(messageOf(other.open()), "");
  other->beginRewriting();
  ASSERT_EQ(messageOf(moveCatalog(*other, kFree.start)), "");
  ASSERT_EQ(messageOf(other->flush()), "");
  const Image others = other.memory->image();
  Image mixed = withRecord();
  const auto locator = locatorOf(mixed);
  const auto othersLocator = locatorOf(others);
  ASSERT_TRUE(locator && othersLocator);
  ASSERT_EQ(locator->recordBlock, othersLocator->recordBlock);
  ASSERT_NE(locator->runID, othersLocator->runID);
  const auto begin = static_cast<ptrdiff_t>(uint64_t{locator->recordBlock} * kBlockSize);
  std::copy_n(others.begin() + begin, 8 + locator->recordBytes, mixed.begin() + begin);
  expectRefused(mixed);

  // The other run's locator along with its record fits the volume that it was made on, but not one
  // that had been written to before.
  mixed = withRecord();
  std::copy_n(others.begin() + begin, 8 + locator->recordBytes, mixed.begin() + begin);
  std::copy_n(others.begin() + kLastSectorOffset, 512, mixed.begin() + kLastSectorOffset);
  TestVolume sameVolume(mixed);
  EXPECT_EQ(messageOf(sameVolume.open()), "");
  doubles::editHeaders(mixed, [](HFSPlusVolumeHeader& header) { header.createDate += 1; });
  expectRefused(mixed);
}

TEST(HFSPlusRunRecovery, ARecordOfAnotherGenerationIsNeverApplied) {
  for (const int change : {-1, 1}) {
    Image bytes = withRecord();
    HFSPlusRunLocator locator = *locatorOf(bytes);
    locator.sequence += static_cast<uint32_t>(change);
    std::ranges::copy(locator.toDisk(), bytes.begin() + kLastSectorOffset);
    expectRefused(bytes);
  }
}

TEST(HFSPlusRunRecovery, NothingIsAppliedOnceSomebodyElseHasWrittenTheHeader) {
  for (const bool hasRecord : {true, false}) {
    Image bytes = hasRecord ? withRecord() : withoutRecord();
    HFSPlusVolumeHeader header = headerIn(bytes);
    ++header.writeCount;
    std::ranges::copy(toDisk(header).bytes, bytes.begin() + kHFSPlusVolumeHeaderOffset);
    expectRefused(bytes);
  }
}

TEST(HFSPlusRunRecovery, AVolumeThatWasUncleanBeforeIsRefusedAndNeverRecovered) {
  constexpr uint32_t kUnmounted = kHFSVolumeUnmountedMask;
  constexpr uint32_t kInconsistentMark = kHFSVolumeInconsistentMask;
  constexpr uint32_t kNeverSet = 0x01;
  const Image locatorsVolume = withRecord();
  for (const auto& [clear, set] : {std::pair<uint32_t, uint32_t>{kUnmounted, 0},
                                   {kUnmounted, kInconsistentMark},
                                   {0, kNeverSet}}) {
    for (const bool hasStaleLocator : {false, true}) {
      Image bytes = image();
      doubles::editHeaders(bytes, [&](HFSPlusVolumeHeader& header) {
        header.attributes = (header.attributes & ~clear) | set;
        ++header.writeCount;
      });
      if (hasStaleLocator) {
        std::copy(locatorsVolume.begin() + kLastSectorOffset, locatorsVolume.end(),
                  bytes.begin() + kLastSectorOffset);
      }
      expectRefused(bytes);
    }
  }
}

TEST(HFSPlusRunRecovery, AMountedVolumeOfSomebodyElsesIsOpenedAsItIs) {
  Image bytes = image();
  doubles::editHeaders(bytes, [](HFSPlusVolumeHeader& header) {
    header.attributes &= ~uint32_t{kHFSVolumeUnmountedMask};
    header.attributes |= kHFSVolumeInconsistentMask;
  });
  TestVolume volume(bytes, Mode::Mounted);
  EXPECT_EQ(messageOf(volume.open()), "");
  EXPECT_TRUE(isMarked(volume->hostVolumeHeader()));
  EXPECT_TRUE(volume.recording->changes().empty());
}

TEST(HFSPlusRunRecovery, EveryLeftOverLocatorIsErasedFromACleanVolume) {
  const Image interrupted = withRecord();
  Image bytes = image();
  for (const uint64_t offset : {kLastSectorOffset, kLastSectorOffset + 192, uint64_t{512}}) {
    std::copy_n(interrupted.begin() + kLastSectorOffset, HFSPlusRunLocator::kBytes,
                bytes.begin() + static_cast<ptrdiff_t>(offset));
  }
  TestVolume readOnly(bytes, Mode::ReadOnly);
  EXPECT_EQ(messageOf(readOnly.open()), "");
  EXPECT_EQ(readOnly.memory->image(), bytes);
  TestVolume volume(bytes);
  EXPECT_EQ(messageOf(volume.open()), "");
  EXPECT_EQ(volume.memory->image(), image());
}

TEST(HFSPlusRunRecovery, EveryFailingReadWriteAndSyncIsReportedAndTheNextOpeningSucceeds) {
  const Image interrupted = withRecord();
  TestVolume reference(interrupted);
  ASSERT_EQ(messageOf(reference.open()), "");
  const Image recovered = reference.memory->image();
  for (const auto call :
       {FaultyDevice::Call::Read, FaultyDevice::Call::Write, FaultyDevice::Call::Sync}) {
    for (const auto how : {FaultyDevice::How::Fail, FaultyDevice::How::Stop}) {
      bool failed = true;
      for (uint64_t ordinal = 0; failed; ++ordinal) {
        SCOPED_TRACE(testing::Message() << "call " << static_cast<int>(call) << " " << ordinal);
        TestVolume volume(interrupted);
        volume.faulty->plan({.call = call, .ordinal = ordinal, .how = how});
        const std::string message = messageOf(volume.open());
        failed = volume.faulty->count(call) > ordinal;
        EXPECT_EQ(failed, !message.empty());
        volume.faulty->repair();
        EXPECT_EQ(messageOf(volume.open()), "");
        EXPECT_EQ(volume.memory->image(), recovered);
      }
    }
  }
}

namespace {

/// A record that somebody made, on a volume that carries the mark and a locator of it.
class CraftedRecord : public testing::Test {
 protected:
  CraftedRecord() {
    doubles::editHeaders(_image, [](HFSPlusVolumeHeader& header) {
      header.attributes &= ~uint32_t{kHFSVolumeUnmountedMask};
      header.attributes |= kHFSVolumeInconsistentMask;
    });
  }

  /// The volume with a record that is whole and its own, of a single range.
  Image withRange(uint64_t offset, std::span<const std::byte> bytes,
                  std::vector<HFSPlusExtentDescriptor> runs = {{kFree.start + 8, 8}}) {
    HFSPlusFlushPlan plan;
    plan.add(offset, bytes, HFSPlusFlushPlan::Kind::SpecialFile);
    const HFSPlusVolumeHeader header = headerIn(_image);
    const uint64_t checksum = LWChecksum::of(toDisk(header).bytes);
    HFSPlusRunLocator locator{.runID = 4711,
                              .sequence = 3,
                              .recordBlock = runs.front().startBlock,
                              .headerBefore = checksum,
                              .headerAfter = checksum,
                              .attributes = headerIn(image()).attributes,
                              .writeCount = header.writeCount};
    const auto record =
        HFSPlusFlushRecord::toDisk(plan, HFSPlusIdentityOfRun(locator, header), locator.sequence);
    HFSPlusRecordPlace place(record.size(), kBlockSize);
    for (const HFSPlusExtentDescriptor& run : runs) {
      place.add(run.startBlock, run.blockCount);
    }
    EXPECT_EQ(place.runs().size(), runs.size());
    locator.runBlocks = place.runs().front().blockCount;
    locator.recordBytes = static_cast<uint32_t>(record.size());
    const auto memory = std::make_shared<doubles::MemoryDevice>(_image);
    XRDefragVolume device("/nowhere/volume", memory, false, true);
    EXPECT_TRUE(place.write(device, {0, _image.size()}, record));
    EXPECT_TRUE(device.write(locator.toDisk(), kLastSectorOffset));
    return memory->image();
  }

  /// Bytes of the volume as they are.
  std::span<const std::byte> bytesAt(uint64_t offset, size_t size) const {
    return std::span(_image).subspan(offset, size);
  }

  /// Where the catalog has nodes that are not in use, whose bytes say nothing.
  uint64_t freeNodes() const {
    constexpr uint64_t kFirstFreeNode = 30;
    return uint64_t{catalogBlock(headerIn(_image))} * kBlockSize + kFirstFreeNode * 4096;
  }

  Image _image = image();
};

/// Bytes that take as much room in a record as they are.
Image randomBytes(size_t size) {
  std::mt19937 random(1);
  Image bytes(size);
  for (std::byte& byte : bytes) {
    byte = static_cast<std::byte>(1 + random() % 255);
  }
  return bytes;
}

}  // namespace

TEST_F(CraftedRecord, IsAppliedWhenItWritesMetadata) {
  const uint64_t node = uint64_t{catalogBlock(headerIn(_image))} * kBlockSize;
  TestVolume volume(withRange(node, bytesAt(node, 4096)));
  EXPECT_EQ(messageOf(volume.open()), "");
  EXPECT_EQ(faultsOf(volume.memory->image()), "");
}

TEST_F(CraftedRecord, IsAppliedFromManyRuns) {
  const Image noise = randomBytes(3 * 4096);
  TestVolume volume(withRange(freeNodes(), noise,
                              {{kFree.start + 20, 1}, {kFree.start + 3, 1}, {kFree.start + 9, 2}}));
  EXPECT_EQ(messageOf(volume.open()), "");
  EXPECT_EQ(volume.memory->bytes(freeNodes(), noise.size()), noise);
}

TEST_F(CraftedRecord, IsRefusedWhenALinkOfItsRunsIsDamaged) {
  const Image sound =
      withRange(freeNodes(), randomBytes(4096), {{kFree.start + 20, 1}, {kFree.start + 3, 1}});
  // Saying that the last run has 256 blocks more, the sixth byte changes nothing of what is read.
  for (const size_t at : {0, 1, 2, 3, 4, 5, 7}) {
    Image damaged = sound;
    damaged[uint64_t{kFree.start + 20} * kBlockSize + at] ^= std::byte{0x01};
    expectRefused(damaged);
  }
}

TEST_F(CraftedRecord, IsRefusedWhenItTouchesAnythingElse) {
  TestVolume plain(image());
  ASSERT_EQ(messageOf(plain.open()), "");
  const auto file = plain->catalog().copyRecordForCNID(kFileID);
  ASSERT_TRUE(file && file->isFile());
  const uint64_t fileData = uint64_t{file->file().dataFork.extents[0].startBlock} * kBlockSize;
  const auto isSpecial = [](uint64_t block) {
    const HFSPlusVolumeHeader header = headerIn(image());
    return std::ranges::any_of(
        std::initializer_list<HFSPlusForkData>{header.catalogFile, header.extentsFile,
                                               header.allocationFile, header.attributesFile},
        [block](const HFSPlusForkData& fork) {
          return block >= fork.extents[0].startBlock &&
                 block - fork.extents[0].startBlock < fork.extents[0].blockCount;
        });
  };
  uint64_t end = catalogBlock(headerIn(_image)) + 1;
  while (isSpecial(end)) {
    ++end;
  }
  const std::pair<uint64_t, size_t> ranges[] = {
      {fileData, 512},                            // a file's bytes
      {uint64_t{kFree.start} * kBlockSize, 512},  // free blocks
      {end * kBlockSize - 512, 1024},             // out of the special files
      {0, 512},                                   // boot blocks
      {kHFSPlusVolumeHeaderOffset, 1024},         // more than a header
      {kHFSPlusVolumeHeaderOffset + 512, 512},    // beside it
      {kAlternateOffset - 512, 512},              // before the alternate header
      {kLastSectorOffset, 512},                   // where the locator is
  };
  for (const auto& [offset, size] : ranges) {
    SCOPED_TRACE(offset);
    expectRefused(withRange(offset, bytesAt(offset, size)));
  }
}

TEST_F(CraftedRecord, IsRefusedWhenItMakesAnotherVolumeOfThisOne) {
  const std::function<void(HFSPlusVolumeHeader&)> edits[] = {
      [](auto& header) { header.createDate += 1; },
      [](auto& header) { header.totalBlocks -= 1; },
      [](auto& header) { header.blockSize *= 2; },
      [](auto& header) { header.version += 1; },
  };
  for (const auto& edit : edits) {
    HFSPlusVolumeHeader header = headerIn(_image);
    edit(header);
    expectRefused(withRange(kHFSPlusVolumeHeaderOffset, toDisk(header).bytes));
  }
}

TEST_F(CraftedRecord, IsRefusedWhenItLeavesTheVolume) {
  const Image bytes(1024);
  expectRefused(withRange(_image.size(), bytes));
  expectRefused(withRange(_image.size() - 512, bytes));
  expectRefused(withRange(~uint64_t{0} - 511, bytes));
}

// What a crash leaves must not rest on what this process believes that it has taken back.
TEST(HFSPlusRunLog, ARecordWhoseNamingFailedIsForgottenBeforeAnythingElseIsWritten) {
  TestVolume volume(image());
  ASSERT_EQ(messageOf(volume.open()), "");
  volume->beginRewriting();
  ASSERT_EQ(messageOf(moveCatalog(*volume, kFree.start)), "");
  // The locator gets through and the sync after it does not: the second sync of the flush.
  volume.faulty->plan({.call = FaultyDevice::Call::Sync, .ordinal = 1});
  ASSERT_NE(messageOf(volume->flush()), "");
  ASSERT_GT(locatorOf(volume.memory->image())->recordBytes, 0U);
  ASSERT_EQ(messageOf(volume->discardChanges()), "");

  // The batch's destination is free again, and written over with something else.
  volume.faulty->repair();
  ASSERT_EQ(messageOf(volume->write(Image(kBlockSize, std::byte{0x5A}),
                                    uint64_t{kFree.start} * kBlockSize)),
            "");
  TestVolume after(volume.memory->image());
  ASSERT_EQ(messageOf(after.open()), "");
  EXPECT_EQ(catalogBlock(after->hostVolumeHeader()), catalogBlock(headerIn(image())));
  expectReadable(*after);
  EXPECT_EQ(faultsOf(after.memory->image()), "");
}

TEST(HFSPlusRunLog, DataIsNotWrittenBeforeAnUnfinishedFlushIsComplete) {
  TestVolume volume(image());
  ASSERT_EQ(messageOf(volume.open()), "");
  volume->beginRewriting();
  ASSERT_EQ(messageOf(moveCatalog(*volume, kFree.start)), "");
  volume.faulty->plan(
      {.call = FaultyDevice::Call::Write, .ordinal = 2, .how = FaultyDevice::How::Break});
  ASSERT_NE(messageOf(volume->flush()), "");
  // Where the record lies, which the volume needs until its flush has been carried out.
  const Image unfinished = volume.memory->image();
  const auto locator = locatorOf(unfinished);
  ASSERT_GT(locator->recordBytes, 0U);
  ASSERT_NE(catalogBlock(headerIn(unfinished)), kFree.start);
  const uint64_t record = uint64_t{locator->recordBlock} * kBlockSize;
  const Image other(kBlockSize, std::byte{0x5A});
  EXPECT_NE(messageOf(volume->write(other, record)), "");
  EXPECT_EQ(volume.memory->image(), unfinished);
  volume.faulty->repair();
  EXPECT_EQ(messageOf(volume->write(other, record)), "");
  EXPECT_EQ(catalogBlock(volume.headerOnDisk()), kFree.start);
  EXPECT_EQ(locatorOf(volume.memory->image())->recordBytes, 0U);
  ASSERT_EQ(messageOf(volume->endRewriting()), "");
  EXPECT_EQ(faultsOf(volume.memory->image()), "");
}
