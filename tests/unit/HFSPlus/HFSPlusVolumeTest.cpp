#include "HFSPlus/HFSPlusVolume.hpp"

#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusCatalogScan.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusFileForkSet.hpp"
#include "HFSPlus/HFSPlusVolumeDump.hpp"
#include "XRDefragVolumeFactory.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/doubles/ScratchFile.hpp"
#include "support/doubles/TestVolume.hpp"

using doubles::messageOf;
using doubles::TestVolume;
using Mode = doubles::TestVolume::Mode;

namespace {

using EditHeader = std::function<void(HFSPlusVolumeHeader&)>;

support::VolumeDescription describe(uint32_t blockSize = 4096) {
  support::VolumeDescription description;
  description.blockSize = blockSize;
  description.size = uint64_t{blockSize} * 2048;
  return description;
}

const support::BuiltVolume& plainVolume() {
  static const support::BuiltVolume volume = support::buildVolume(describe());
  return volume;
}

/// The message of opening the plain volume with its headers changed.
std::string messageOfOpening(const EditHeader& edit, Mode mode = Mode::ReadWrite) {
  std::vector<std::byte> image = plainVolume().image;
  doubles::editHeaders(image, edit);
  return messageOf(TestVolume(image, mode).open());
}

bool probes(const EditHeader& edit) {
  std::vector<std::byte> image = plainVolume().image;
  doubles::editHeaders(image, edit);
  const Result<bool> valid = TestVolume(image).probe();
  EXPECT_EQ(messageOf(valid), "");
  return valid.value_or(false);
}

/// The plain volume, open, with a file 16 of which `fork` is the data fork.
struct VolumeWithFile {
  explicit VolumeWithFile(const support::ForkDescription& fork) : built(build(fork)) {
    volume = std::make_unique<TestVolume>(built.image);
    EXPECT_EQ(messageOf(volume->open()), "");
    const auto record = (*volume)->catalog().copyRecordForCNID(16);
    EXPECT_TRUE(record && record->isFile());
    file = record->file();
  }

  static support::BuiltVolume build(const support::ForkDescription& fork) {
    support::VolumeDescription description = describe();
    description.root().addFile("file", fork);
    return support::buildVolume(description);
  }

  Result<HFSPlusTranslation> translate(uint64_t offset) {
    return (*volume)->translateOffset(offset, 16, kHFSDataForkType, file.dataFork);
  }

  support::BuiltVolume built;
  std::unique_ptr<TestVolume> volume;
  HFSPlusCatalogFile file;
};

}  // namespace

TEST(HFSPlusVolume, OpensWhatTheBuilderMakes) {
  TestVolume volume(plainVolume().image);
  EXPECT_EQ(volume.probe(), true);
  ASSERT_EQ(messageOf(volume.open()), "");
  EXPECT_EQ(volume->hostVolumeHeader().blockSize, 4096U);
  EXPECT_EQ(volume->hostVolumeHeader().freeBlocks, plainVolume().freeBlocks);
  EXPECT_FALSE(volume->isHFSX());
  EXPECT_FALSE(volume->isJournaled());
  EXPECT_FALSE(volume->hasSparedBlocks());
  EXPECT_FALSE(volume->hasMetadataZone());
  EXPECT_NE(volume->attributes(), nullptr);
  EXPECT_EQ(volume->volumeStartOffset(), 0U);
}

TEST(HFSPlusVolume, AVolumeWithoutAnAttributesFileHasNoneToOffer) {
  support::VolumeDescription description = describe();
  description.hasAttributesFile = false;
  TestVolume volume(support::buildVolume(description).image);
  ASSERT_EQ(messageOf(volume.open()), "");
  EXPECT_EQ(volume->attributes(), nullptr);
  EXPECT_TRUE(volume->flush());
}

TEST(HFSPlusVolume, OpeningChangesNothing) {
  TestVolume volume(plainVolume().image);
  ASSERT_EQ(messageOf(volume.open()), "");
  volume.volume.reset();
  EXPECT_EQ(volume.memory->image(), plainVolume().image);
}

TEST(HFSPlusVolume, TheProbeWantsASignatureItsVersionAndTheSameSignatureTwice) {
  EXPECT_TRUE(probes([](auto&) {}));
  EXPECT_FALSE(probes([](auto& header) { header.version = 5; }));
  EXPECT_FALSE(probes([](auto& header) { header.signature = kHFSXSigWord; }));
  EXPECT_TRUE(probes([](auto& header) {
    header.signature = kHFSXSigWord;
    header.version = kHFSXVersion;
  }));
  EXPECT_FALSE(probes([](auto& header) { header.signature = 0x4857; }));
  EXPECT_FALSE(probes([first = true](auto& header) mutable {
    header.signature = first ? kHFSPlusSigWord : kHFSXSigWord;
    first = false;
  }));
}

TEST(HFSPlusVolume, AnHFSXVolumeOfVersionFiveIsRefusedByName) {
  support::VolumeDescription description = describe();
  description.hfsx = true;
  TestVolume volume(support::buildVolume(description).image);
  EXPECT_EQ(volume.probe(), true);
  EXPECT_EQ(messageOf(volume.open()), "HFSX version 5 is not supported.");
}

TEST(HFSPlusVolume, AnHFSXVolumeWhoseVersionIsItsSignatureOpens) {
  support::VolumeDescription description = describe();
  description.hfsx = true;
  description.binaryNames = true;
  description.version = kHFSXSigWord;
  TestVolume volume(support::buildVolume(description).image);
  ASSERT_EQ(messageOf(volume.open()), "");
  EXPECT_TRUE(volume->isHFSX());
}

TEST(HFSPlusVolume, AnHFSXVolumeOfVersionFiveOpensWhenItIsAskedFor) {
  for (const bool binaryNames : {false, true}) {
    for (const bool wrapper : {false, true}) {
      support::VolumeDescription description = describe();
      description.hfsx = true;
      description.binaryNames = binaryNames;
      description.wrapper = wrapper;
      description.root().addFile("Name", support::fork(100));
      TestVolume volume(support::buildVolume(description).image);
      ASSERT_EQ(messageOf(volume.open(HFSXVolumes::Accepted)), "");
      EXPECT_TRUE(volume->isHFSX());
      const auto record = volume->catalog().copyRecordForPath("/nAME");
      ASSERT_EQ(messageOf(record), "");
      EXPECT_EQ(record->isFile(), !binaryNames);
    }
  }
}

TEST(HFSPlusVolume, AskingForHFSXVolumesChangesNothingElse) {
  const auto messageOfAccepting = [](const EditHeader& edit) {
    std::vector<std::byte> image = plainVolume().image;
    doubles::editHeaders(image, edit);
    return messageOf(TestVolume(image).open(HFSXVolumes::Accepted));
  };
  const auto makeHFSX = [](uint16_t version) {
    return [version](auto& header) {
      header.signature = kHFSXSigWord;
      header.version = version;
    };
  };
  EXPECT_EQ(messageOfAccepting([](auto&) {}), "");
  EXPECT_EQ(messageOfAccepting([](auto& header) { header.version = 5; }),
            "HFS Plus version 5 is not supported.");
  EXPECT_EQ(messageOfAccepting(makeHFSX(4)), "HFSX version 4 is not supported.");
  EXPECT_EQ(messageOfAccepting(makeHFSX(6)), "HFSX version 6 is not supported.");
  EXPECT_EQ(messageOfAccepting(makeHFSX(kHFSXSigWord)), "HFSX version 18520 is not supported.");
  EXPECT_EQ(messageOfAccepting([](auto& header) { header.signature = 0x4857; }),
            "Unsupported volume format.");
}

TEST(HFSPlusVolume, OtherSignaturesAndVersionsAreRefused) {
  EXPECT_EQ(messageOfOpening([](auto& header) { header.signature = 0x1234; }),
            "Unsupported volume format.");
  EXPECT_EQ(messageOfOpening([](auto& header) { header.version = 3; }),
            "HFS Plus version 3 is not supported.");
}

TEST(HFSPlusVolume, AnUncleanVolumeIsInconsistentUnlessItIsMounted) {
  const auto unclean = [](auto& header) { header.attributes &= ~kHFSVolumeUnmountedMask; };
  EXPECT_EQ(messageOfOpening(unclean), "Volume is inconsistent.");
  EXPECT_EQ(messageOfOpening(unclean, Mode::ReadOnly), "Volume is inconsistent.");
  EXPECT_EQ(messageOfOpening(unclean, Mode::Mounted), "");
}

TEST(HFSPlusVolume, OnlyTheBitsOfTheMaskMakeACleanVolumeInconsistent) {
  for (uint32_t bit = 0; bit < 32; ++bit) {
    const auto set = [bit](auto& header) {
      header.attributes |= (1U << bit) | kHFSVolumeUnmountedMask;
    };
    const bool refused = bit == 0 || bit == 1 || bit == 3;
    EXPECT_EQ(messageOfOpening(set), refused ? "Volume is inconsistent." : "") << "bit " << bit;
    EXPECT_EQ(messageOfOpening(set, Mode::Mounted), "") << "bit " << bit;
  }
}

TEST(HFSPlusVolume, ALockedVolumeOpensForReading) {
  for (const uint32_t lock : {kHFSVolumeHardwareLockMask, kHFSVolumeSoftwareLockMask}) {
    support::VolumeDescription description = describe();
    description.attributesSet = lock;
    TestVolume volume(support::buildVolume(description).image);
    ASSERT_EQ(messageOf(volume.open()), "");
    EXPECT_TRUE(volume.device.isWritable());
    EXPECT_FALSE(volume->isWritable());
  }
}

TEST(HFSPlusVolume, ImpossibleHeadersAreInconsistent) {
  const EditHeader edits[] = {
      [](auto& header) { header.blockSize = 0; },
      [](auto& header) { header.blockSize = 256; },
      [](auto& header) { header.blockSize = 4095; },
      [](auto& header) { header.blockSize = 12288; },
      [](auto& header) { header.blockSize = 1U << 31; },
      [](auto& header) { header.totalBlocks = 0; },
      [](auto& header) { header.totalBlocks = 2049; },
      [](auto& header) { header.freeBlocks = header.totalBlocks + 1; },
  };
  for (const EditHeader& edit : edits) {
    EXPECT_EQ(messageOfOpening(edit), "Volume is inconsistent.");
    EXPECT_EQ(messageOfOpening(edit, Mode::Mounted), "Volume is inconsistent.");
  }
}

TEST(HFSPlusVolume, MoreBlocksThanTheBitmapHasBitsAreTheAllocationFilesFault) {
  TestVolume sound(plainVolume().image);
  ASSERT_EQ(messageOf(sound.open()), "");
  const uint64_t bits = sound->hostVolumeHeader().allocationFile.logicalSize * 8;
  for (const uint64_t totalBlocks : {bits + 1, uint64_t{UINT32_MAX}}) {
    const auto edit = [totalBlocks](auto& header) {
      header.totalBlocks = static_cast<uint32_t>(totalBlocks);
    };
    EXPECT_EQ(messageOfOpening(edit), "Allocation file is inconsistent.");
    EXPECT_EQ(messageOfOpening(edit, Mode::Mounted), "Allocation file is inconsistent.");
  }
  // As many as it has bits, and more than the device has blocks.
  const auto edit = [bits](auto& header) { header.totalBlocks = static_cast<uint32_t>(bits); };
  EXPECT_EQ(messageOfOpening(edit), "Volume is inconsistent.");
}

TEST(HFSPlusVolume, SpecialFilesThatLeaveTheVolumeAreRefusedWithoutHarm) {
  const EditHeader edits[] = {
      [](auto& header) { header.catalogFile.extents[0] = {2048, 1}; },
      [](auto& header) { header.catalogFile.extents[0] = {UINT32_MAX, UINT32_MAX}; },
      [](auto& header) { header.catalogFile.extents = {}; },
      [](auto& header) { header.extentsFile.extents = {}; },
      [](auto& header) { header.extentsFile.logicalSize = 0; },
      [](auto& header) { header.catalogFile.logicalSize = UINT64_MAX; },
      [](auto& header) { header.allocationFile.logicalSize = 0; },
      [](auto& header) { header.attributesFile.totalBlocks = 0; },
  };
  for (const EditHeader& edit : edits) {
    EXPECT_NE(messageOfOpening(edit), "");
  }
}

TEST(HFSPlusVolume, AVolumeInAWrapperIsShiftedByItsStart) {
  support::VolumeDescription description = describe();
  description.wrapper = true;
  description.root().addFile("file", support::fork(10000));
  const support::BuiltVolume built = support::buildVolume(description);
  ASSERT_GT(built.volumeStart, 0U);
  TestVolume volume(built.image);
  EXPECT_EQ(volume.probe(), true);
  ASSERT_EQ(messageOf(volume.open()), "");
  EXPECT_EQ(volume->volumeStartOffset(), built.volumeStart);
  EXPECT_EQ(volume->volumeSizeBytes(), built.volumeSize);

  std::vector<std::byte> bytes(512);
  ASSERT_TRUE(volume->read(bytes, 4096));
  EXPECT_EQ(volume.recording->records().back().offset, built.volumeStart + 4096);
  ASSERT_TRUE(volume->write(bytes, 4096));
  EXPECT_EQ(volume.recording->records().back().offset, built.volumeStart + 4096);

  // A changed header goes to both its places inside the wrapper.
  volume->updateFreeBlocks(-1);
  volume.recording->clear();
  ASSERT_EQ(messageOf(volume->flush()), "");
  std::vector<uint64_t> places;
  for (const auto& record : volume.recording->changes()) {
    if (record.call == doubles::RecordingDevice::Call::Write) {
      places.push_back(record.offset);
    }
  }
  EXPECT_EQ(places, (std::vector<uint64_t>{built.volumeStart + 1024,
                                           built.volumeStart + built.volumeSize - 1024}));
}

TEST(HFSPlusVolume, TransfersEndWhereAWrappedVolumeEnds) {
  support::VolumeDescription description = describe();
  description.wrapper = true;
  const support::BuiltVolume built = support::buildVolume(description);
  TestVolume volume(built.image);
  ASSERT_EQ(messageOf(volume.open()), "");
  std::vector<std::byte> bytes(512);
  EXPECT_TRUE(volume->read(bytes, built.volumeSize - 512));
  EXPECT_TRUE(messageOf(volume->read(bytes, built.volumeSize - 511))
                  .starts_with("Out of range read failed at offset "));
  EXPECT_TRUE(messageOf(volume->write(bytes, built.volumeSize))
                  .starts_with("Out of range write failed at offset "));
}

TEST(HFSPlusVolume, AWrapperAroundNothingOnTheDeviceIsRefused) {
  support::VolumeDescription description = describe();
  description.wrapper = true;
  const std::vector<std::byte> image = support::buildVolume(description).image;
  // The embedded volume's start and length, in wrapper blocks, and the size of those.
  for (const auto& [field, value] :
       {std::pair{126, 0xFFFF}, {128, 0xFFFF}, {128, 0}, {20, 0x7FFF}, {22, 0x0001}}) {
    std::vector<std::byte> damaged = image;
    writeBigEndian(&damaged[1024 + static_cast<size_t>(field)], static_cast<uint16_t>(value));
    TestVolume volume(damaged);
    const Result<bool> valid = volume.probe();
    EXPECT_FALSE(valid.value_or(false)) << field;
    EXPECT_NE(messageOf(volume.open()), "") << field;
  }
}

TEST(HFSPlusVolume, SpecialFilesAreThoseThatTheHeaderDescribes) {
  TestVolume volume(plainVolume().image);
  ASSERT_EQ(messageOf(volume.open()), "");
  const HFSPlusVolumeHeader& header = volume->hostVolumeHeader();
  const std::map<uint32_t, const HFSPlusForkData*> special = {{3, &header.extentsFile},
                                                              {4, &header.catalogFile},
                                                              {6, &header.allocationFile},
                                                              {7, &header.startupFile},
                                                              {8, &header.attributesFile}};
  for (uint32_t fileID = 0; fileID < 20; ++fileID) {
    const auto found = special.find(fileID);
    EXPECT_EQ(volume->isSpecialFile(fileID), found != special.end());
    EXPECT_EQ(volume->hostForkData(fileID), found == special.end() ? nullptr : found->second);
  }
}

TEST(HFSPlusVolume, CachedForkDataIsChangedInPlaceAndForgotten) {
  TestVolume volume(plainVolume().image);
  ASSERT_EQ(messageOf(volume.open()), "");
  HFSPlusForkData forkData{};
  forkData.totalBlocks = 1;
  volume->cacheHostForkData(forkData, 20);
  const HFSPlusForkData* cached = volume->hostForkData(20);
  ASSERT_NE(cached, nullptr);
  forkData.totalBlocks = 2;
  volume->cacheHostForkData(forkData, 20);
  EXPECT_EQ(volume->hostForkData(20), cached);
  EXPECT_EQ(cached->totalBlocks, 2U);
  volume->uncacheHostForkData(20);
  volume->uncacheHostForkData(21);
  EXPECT_EQ(volume->hostForkData(20), nullptr);
}

TEST(HFSPlusVolume, TheFirstDataBlockFollowsTheBootArea) {
  for (const auto& [blockSize, first] : {std::pair{512U, 3U}, {1024, 2}, {2048, 1}, {4096, 1}}) {
    TestVolume volume(support::buildVolume(describe(blockSize)).image);
    ASSERT_EQ(messageOf(volume.open()), "");
    EXPECT_EQ(volume->firstDataBlock(), first);
  }
}

TEST(HFSPlusVolume, TheFirstDataBlockFollowsTheMetadataZone) {
  support::VolumeDescription description = describe();
  description.size = uint64_t{10} << 30;
  description.addJournal();
  const doubles::ScratchFile file(0);
  static_cast<void>(support::buildVolume(description, file.path()));
  const auto volume = XRDefragOpenVolume(file.path());
  ASSERT_EQ(messageOf(volume), "");
  EXPECT_TRUE((*volume)->isJournaled());
  EXPECT_TRUE((*volume)->hasMetadataZone());
  EXPECT_EQ((*volume)->firstDataBlock(), 65536U);
}

TEST(HFSPlusVolume, TranslationGoesToTheLastByteOfAForkAndNoFurther) {
  VolumeWithFile fixture(support::forkAt({{300, 2}, {400, 1}}, 2 * 4096 + 100));
  const auto first = fixture.translate(0);
  ASSERT_EQ(messageOf(first), "");
  EXPECT_EQ(first->offset, 300U * 4096);
  EXPECT_EQ(first->length, 2U * 4096);
  const auto second = fixture.translate(4097);
  ASSERT_EQ(messageOf(second), "");
  EXPECT_EQ(second->offset, 301U * 4096 + 1);
  EXPECT_EQ(second->length, 4095U);
  const auto last = fixture.translate(2 * 4096 + 99);
  ASSERT_EQ(messageOf(last), "");
  EXPECT_EQ(last->offset, 400U * 4096 + 99);
  EXPECT_EQ(last->length, 1U);
  EXPECT_EQ(messageOf(fixture.translate(2 * 4096 + 100)),
            "Offset 8292 is out of range for file ID 16.");
  EXPECT_EQ(messageOf(fixture.translate(UINT64_MAX)),
            "Offset 18446744073709551615 is out of range for file ID 16.");
}

TEST(HFSPlusVolume, TranslationFindsEveryBlockOfAForkWithOverflowRecords) {
  VolumeWithFile fixture(support::fork(100 * 4096, 30));
  const support::BuiltFork* fork = fixture.built.fork(16, kHFSDataForkType);
  ASSERT_GT(fork->extents.size(), 16U);
  uint64_t forkBlock = 0;
  for (const support::BlockExtent& extent : fork->extents) {
    for (uint32_t i = 0; i < extent.count; ++i, ++forkBlock) {
      const auto place = fixture.translate(forkBlock * 4096 + 7);
      ASSERT_EQ(messageOf(place), "");
      EXPECT_EQ(place->offset, (uint64_t{extent.start} + i) * 4096 + 7);
      EXPECT_EQ(place->length, (uint64_t{extent.count} - i) * 4096 - 7);
    }
  }
}

TEST(HFSPlusVolume, ABlockWithoutAnExtentIsOutOfRange) {
  VolumeWithFile fixture(support::fork(100 * 4096, 30));
  HFSPlusForkData& fork = fixture.file.dataFork;
  fork.totalBlocks += 8;
  fork.logicalSize += 8 * 4096;
  EXPECT_EQ(messageOf(fixture.translate(100 * 4096)),
            "Offset 409600 is out of range for file ID 16.");
  fork.totalBlocks = 50;
  EXPECT_EQ(messageOf(fixture.translate(50 * 4096)),
            "Offset 204800 is out of range for file ID 16.");
}

TEST(HFSPlusVolume, EmptyExtentsAreSkippedWithoutBeingCounted) {
  VolumeWithFile fixture(support::forkAt({{300, 2}, {400, 1}}, 3 * 4096));
  HFSPlusForkData& fork = fixture.file.dataFork;
  fork.extents = {{{0, 5}, {7, 0}, {300, 2}, {0, 0}, {400, 1}}};
  const auto place = fixture.translate(2 * 4096);
  ASSERT_EQ(messageOf(place), "");
  EXPECT_EQ(place->offset, 400U * 4096);
}

TEST(HFSPlusVolume, AnExtentThatLeavesTheVolumeIsOutOfRange) {
  VolumeWithFile fixture(support::forkAt({{300, 3}}, 3 * 4096));
  HFSPlusForkData& fork = fixture.file.dataFork;
  for (const HFSPlusExtentDescriptor& extent :
       {HFSPlusExtentDescriptor{2046, 3}, {UINT32_MAX, 3}, {2, UINT32_MAX}}) {
    fork.extents = {{extent}};
    EXPECT_EQ(messageOf(fixture.translate(0)), "Offset 0 is out of range for file ID 16.");
  }
}

TEST(HFSPlusVolume, ARecordOfAnEarlierPartOfTheForkIsNotFollowed) {
  VolumeWithFile fixture(support::fork(40 * 4096, 20));
  ASSERT_EQ(messageOf(fixture.translate(39 * 4096)), "");
  // Now the fork's own extents cover more blocks than the last record begins at.
  fixture.file.dataFork.extents = {{{100, 35}}};
  ASSERT_EQ(messageOf(fixture.translate(34 * 4096)), "");
  EXPECT_EQ(messageOf(fixture.translate(39 * 4096)),
            "Offset 159744 is out of range for file ID 16.");
}

TEST(HFSPlusVolume, TheOverflowFileIsNotAskedAboutItself) {
  TestVolume volume(plainVolume().image);
  ASSERT_EQ(messageOf(volume.open()), "");
  HFSPlusForkData fork = volume->hostVolumeHeader().extentsFile;
  fork.totalBlocks += 10;
  fork.logicalSize += 10 * 4096;
  EXPECT_NE(messageOf(volume->translateOffset(fork.logicalSize - 1, kHFSExtentsFileID,
                                              kHFSDataForkType, fork)),
            "");
}

TEST(HFSPlusVolume, OnlySpecialFilesOfAWritableVolumeGetNewExtents) {
  TestVolume volume(plainVolume().image);
  ASSERT_EQ(messageOf(volume.open()), "");
  const HFSPlusExtentRecord extents = {{{77, 1}}};
  EXPECT_TRUE(volume->updateForkExtents(extents, kHFSStartupFileID));
  EXPECT_EQ(volume->hostVolumeHeader().startupFile.extents, extents);
  for (const uint32_t fileID : {5U, 16U}) {
    EXPECT_EQ(messageOf(volume->updateForkExtents(extents, fileID)),
              "Internal error: HFSPlus/HFSPlusVolume:327");
  }
  TestVolume readOnly(plainVolume().image, Mode::ReadOnly);
  ASSERT_EQ(messageOf(readOnly.open()), "");
  EXPECT_EQ(messageOf(readOnly->updateForkExtents(extents, kHFSStartupFileID)),
            "Internal error: HFSPlus/HFSPlusVolume:327");
}

TEST(HFSPlusVolume, TheJournalsForksAreImmutable) {
  TestVolume plain(plainVolume().image);
  ASSERT_EQ(messageOf(plain.open()), "");
  const auto none = plain->immutableForkIDs(true);
  ASSERT_EQ(messageOf(none), "");
  EXPECT_EQ(none->count(), 0U);

  support::VolumeDescription description = describe();
  description.addJournal();
  TestVolume journaled(support::buildVolume(description).image);
  ASSERT_EQ(messageOf(journaled.open()), "");
  const auto forks = journaled->immutableForkIDs(true);
  ASSERT_EQ(messageOf(forks), "");
  EXPECT_EQ(forks->count(), 2U);
  EXPECT_TRUE(forks->contains(description.journalInfoFile->id, kHFSDataForkType));
  EXPECT_TRUE(forks->contains(description.journalFile->id, kHFSDataForkType));
}

TEST(HFSPlusVolume, ADumpNamesTheFileOrSaysWhyItCannot) {
  VolumeWithFile fixture(support::fork(100 * 4096, 30));
  HFSPlusVolume& volume = **fixture.volume;
  EXPECT_EQ(messageOf(HFSPlusDumpFilePath(volume, fixture.file)), "");
  EXPECT_EQ(messageOf(HFSPlusDumpFilePathFull(volume, fixture.file)),
            "File lookup failed for /file.");
  HFSPlusCatalogFile stranger = fixture.file;
  stranger.fileID = 4711;
  EXPECT_EQ(messageOf(HFSPlusDumpFilePath(volume, stranger)), "Path lookup failed for CNID 4711.");
  EXPECT_EQ(messageOf(HFSPlusDumpFilePathFull(volume, stranger)),
            "Path lookup failed for CNID 4711.");
}

TEST(HFSPlusVolume, ADumpOfExtentsMissesARecordThatIsMissing) {
  VolumeWithFile fixture(support::fork(100 * 4096, 30));
  HFSPlusVolume& volume = **fixture.volume;
  EXPECT_EQ(messageOf(HFSPlusDumpFileExtents(volume, fixture.file)), "");
  EXPECT_EQ(messageOf(HFSPlusDumpFileExtentsOverflows(volume, fixture.file)), "");
  fixture.file.dataFork.totalBlocks += 1;
  fixture.file.dataFork.logicalSize += 4096;
  EXPECT_EQ(messageOf(HFSPlusDumpFileExtents(volume, fixture.file)),
            "Overflow extent record missing.");
  EXPECT_EQ(messageOf(HFSPlusDumpFileExtentsOverflows(volume, fixture.file)),
            "Overflow extent record missing.");
}
