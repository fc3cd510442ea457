#include "HFSPlus/HFSPlusForkExtents.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "support/SeededRandom.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "support/doubles/TestRandom.hpp"
#include "support/doubles/TestVolume.hpp"

void PrintTo(const HFSPlusExtentDescriptor& extent, std::ostream* stream) {
  *stream << extent.startBlock << "+" << extent.blockCount;
}

namespace {

using doubles::messageOf;
using support::BlockExtent;
using Descriptors = HFSPlusForkExtents::Descriptors;
using volumecheck::VolumeTruth;

constexpr uint32_t kBlockSize = 4096;

/// `count` extents of `length` blocks each, `step` blocks apart.
std::vector<BlockExtent> comb(uint32_t start, uint32_t count, uint32_t length = 1,
                              uint32_t step = 4) {
  std::vector<BlockExtent> extents;
  for (uint32_t i = 0; i < count; ++i) {
    extents.push_back({start + i * step, length});
  }
  return extents;
}

uint64_t blocksOf(const std::vector<BlockExtent>& extents) {
  uint64_t blocks = 0;
  for (const BlockExtent& extent : extents) {
    blocks += extent.count;
  }
  return blocks;
}

/// A volume of 4000 blocks with one file that lies exactly where the test says, behind block 1000.
struct Setting {
  explicit Setting(std::vector<BlockExtent> data, std::vector<BlockExtent> resource = {},
                   uint32_t strayRecords = 0)
      : volume(build(std::move(data), std::move(resource), strayRecords)) {
    EXPECT_EQ(messageOf(volume.open()), "");
  }

  std::vector<std::byte> build(std::vector<BlockExtent> data, std::vector<BlockExtent> resource,
                               uint32_t strayRecords) {
    support::VolumeDescription description;
    description.size = uint64_t{4000} * kBlockSize;
    description.extentsTree.totalNodes = 20;
    const uint64_t bytes = blocksOf(data) * kBlockSize;
    support::FileDescription& file =
        description.root().addFile("File", support::forkAt(std::move(data), bytes));
    file.data.strayRecords = strayRecords;
    if (!resource.empty()) {
      const uint64_t resourceBytes = blocksOf(resource) * kBlockSize;
      file.resource = support::forkAt(std::move(resource), resourceBytes);
    }
    description.root().addFolder("Folder");
    fileID = file.id;
    return support::buildVolume(description).image;
  }

  std::unique_ptr<HFSPlusForkExtents> fork(uint8_t forkType = kHFSDataForkType) {
    auto opened = HFSPlusForkExtents::open(*volume, fileID, forkType);
    EXPECT_EQ(messageOf(opened), "");
    return opened ? std::move(*opened) : nullptr;
  }

  /// The volume as the checker reads it, after a flush.
  volumecheck::CheckResult check() {
    EXPECT_EQ(messageOf(volume->flush()), "");
    const std::vector<std::byte> image = volume.memory->image();
    return volumecheck::checkVolumeBytes(
        {reinterpret_cast<const uint8_t*>(image.data()), image.size()});
  }

  uint32_t fileID = 0;
  doubles::TestVolume volume;
};

Descriptors extentsOnDisk(const VolumeTruth& truth, uint32_t fileID,
                          volumecheck::ForkType type = volumecheck::ForkType::Data) {
  Descriptors extents;
  for (const volumecheck::Extent& extent : truth.findFork(fileID, type)->extents) {
    extents.push_back({extent.startBlock, extent.blockCount});
  }
  return extents;
}

TEST(HFSPlusForkExtents, ReadsAllExtentsInForkOrder) {
  Setting setting(comb(2000, 30), comb(1500, 3, 2));
  EXPECT_EQ(setting.fork()->copyExtentDescriptors(0).size(), 30u);
  EXPECT_EQ(setting.fork(kHFSResourceForkType)->copyExtentDescriptors(0),
            (Descriptors{{1500, 2}, {1504, 2}, {1508, 2}}));
}

TEST(HFSPlusForkExtents, CutsAnExtentThatStraddlesTheBlockAskedFor) {
  Setting setting({{3000, 10}, {2000, 10}, {2500, 10}});
  EXPECT_EQ(setting.fork()->copyExtentDescriptors(2504), (Descriptors{{3000, 10}, {2504, 6}}));
  EXPECT_EQ(setting.fork()->copyExtentDescriptors(2510), (Descriptors{{3000, 10}}));
  EXPECT_EQ(setting.fork()->copyExtentDescriptors(2509), (Descriptors{{3000, 10}, {2509, 1}}));
  EXPECT_TRUE(setting.fork()->copyExtentDescriptors(3010).empty());
}

TEST(HFSPlusForkExtents, MovingAWholeExtentOnlyChangesItsStart) {
  Setting setting({{2000, 10}, {2100, 5}});
  const auto fork = setting.fork();
  EXPECT_EQ(messageOf(fork->move(2000, 3000, 10)), "");
  EXPECT_EQ(fork->editedDescriptorCount(), 2u);
  EXPECT_EQ(messageOf(fork->update()), "");
  EXPECT_EQ(fork->copyExtentDescriptors(0), (Descriptors{{3000, 10}, {2100, 5}}));
  const auto result = setting.check();
  EXPECT_EQ(result.report(), "");
  EXPECT_EQ(extentsOnDisk(result.truth, setting.fileID), (Descriptors{{3000, 10}, {2100, 5}}));
}

TEST(HFSPlusForkExtents, MovingTheMiddleOfAnExtentMakesThreeOfIt) {
  Setting setting({{2000, 10}});
  const auto fork = setting.fork();
  EXPECT_EQ(messageOf(fork->move(2003, 3000, 4)), "");
  EXPECT_EQ(fork->editedDescriptorCount(), 3u);
  EXPECT_EQ(fork->copyExtentDescriptors(0), (Descriptors{{2000, 10}}));  // not written yet
  EXPECT_EQ(messageOf(fork->update()), "");
  EXPECT_EQ(fork->copyExtentDescriptors(0), (Descriptors{{2000, 3}, {3000, 4}, {2007, 3}}));
  EXPECT_EQ(setting.check().report(), "");
}

TEST(HFSPlusForkExtents, AForkStaysInItsFirstRecordWithEightExtentsBeforeAndAfter) {
  Setting eight(comb(2000, 8), comb(1500, 9));
  EXPECT_FALSE(eight.fork(kHFSResourceForkType)->staysInFirstRecord());
  const auto fork = eight.fork();
  EXPECT_TRUE(fork->staysInFirstRecord());
  const HFSPlusExtentDescriptor first = fork->copyExtentDescriptors(0).front();
  EXPECT_EQ(messageOf(fork->move(first.startBlock, 3000, first.blockCount)), "");
  EXPECT_TRUE(fork->staysInFirstRecord());
}

TEST(HFSPlusForkExtents, ANinthExtentLeadsOutOfTheFirstRecord) {
  Setting setting(comb(2000, 8, 2));
  const auto fork = setting.fork();
  EXPECT_EQ(messageOf(fork->move(2000, 3000, 1)), "");
  EXPECT_FALSE(fork->staysInFirstRecord());
}

TEST(HFSPlusForkExtents, MovingNothingIsNoEdit) {
  Setting setting({{2000, 10}});
  const auto fork = setting.fork();
  EXPECT_EQ(messageOf(fork->move(1, 2, 0)), "");
  EXPECT_EQ(messageOf(fork->update()), "");
  EXPECT_TRUE(setting.volume->heldWrites().empty());
}

TEST(HFSPlusForkExtents, RangesThatEndUpSideBySideAreOneExtentOnDisk) {
  Setting setting({{2000, 10}, {2100, 5}, {2200, 5}});
  const auto fork = setting.fork();
  EXPECT_EQ(messageOf(fork->move(2100, 2010, 5)), "");
  EXPECT_EQ(messageOf(fork->move(2200, 2015, 5)), "");
  EXPECT_EQ(fork->editedDescriptorCount(), 1u);
  EXPECT_EQ(messageOf(fork->update()), "");
  EXPECT_EQ(fork->copyExtentDescriptors(0), (Descriptors{{2000, 20}}));
  EXPECT_EQ(setting.check().report(), "");
}

TEST(HFSPlusForkExtents, AMoveOfWhatNoSingleExtentHoldsIsRefused) {
  Setting setting({{2000, 10}, {2010, 5}});
  const auto fork = setting.fork();
  const std::string id = std::to_string(setting.fileID);
  EXPECT_EQ(messageOf(fork->move(2008, 3000, 4)),
            "Invalid extent range with start block = 2008 and block count = 4 encountered when "
            "processing file ID = " +
                id + " (File).");
  EXPECT_EQ(messageOf(fork->move(1999, 3000, 1)),
            "Invalid extent range with start block = 1999 and block count = 1 encountered when "
            "processing file ID = " +
                id + " (File).");
  EXPECT_EQ(messageOf(fork->move(2000, 3000, 0xFFFFFFFF)),
            "Invalid extent range with start block = 2000 and block count = 4294967295 "
            "encountered when processing file ID = " +
                id + " (File).");
}

TEST(HFSPlusForkExtents, RecordsOfTheSameLengthAreRewrittenInPlace) {
  Setting setting(comb(2000, 30));
  const auto fork = setting.fork();
  const BTHeaderRec before = setting.volume->extents().headerRecord();
  for (uint32_t i = 0; i < 30; i += 7) {
    EXPECT_EQ(messageOf(fork->move(2000 + 4 * i, 3000 + 4 * i, 1)), "");
  }
  EXPECT_EQ(messageOf(fork->update()), "");
  EXPECT_EQ(uint32_t{setting.volume->extents().headerRecord().leafRecords},
            uint32_t{before.leafRecords});
  const auto result = setting.check();
  EXPECT_EQ(result.report(), "");
  EXPECT_EQ(extentsOnDisk(result.truth, setting.fileID), fork->copyExtentDescriptors(0));
  EXPECT_EQ(result.truth.findFork(setting.fileID, volumecheck::ForkType::Data)->overflowRecords,
            3u);
}

TEST(HFSPlusForkExtents, AForkThatComesTogetherLosesItsOverflowRecords) {
  Setting setting(comb(2000, 24));
  const auto fork = setting.fork();
  for (uint32_t i = 0; i < 24; ++i) {
    EXPECT_EQ(messageOf(fork->move(2000 + 4 * i, 3000 + i, 1)), "");
  }
  EXPECT_EQ(messageOf(fork->update()), "");
  EXPECT_EQ(fork->copyExtentDescriptors(0), (Descriptors{{3000, 24}}));
  EXPECT_EQ(uint32_t{setting.volume->extents().headerRecord().leafRecords}, 0u);
  const auto result = setting.check();
  EXPECT_EQ(result.report(), "");
  EXPECT_EQ(extentsOnDisk(result.truth, setting.fileID), (Descriptors{{3000, 24}}));
}

TEST(HFSPlusForkExtents, AForkThatFallsApartGainsOverflowRecords) {
  Setting setting({{2000, 100}});
  const auto fork = setting.fork();
  for (uint32_t i = 0; i < 100; i += 2) {
    EXPECT_EQ(messageOf(fork->move(2000 + i, 3000 + i, 1)), "");
  }
  EXPECT_EQ(messageOf(fork->update()), "");
  EXPECT_EQ(fork->copyExtentDescriptors(0).size(), 100u);
  const auto result = setting.check();
  EXPECT_EQ(result.report(), "");
  EXPECT_EQ(result.truth.findFork(setting.fileID, volumecheck::ForkType::Data)->overflowRecords,
            12u);
}

TEST(HFSPlusForkExtents, RecordsBehindOneOfAnotherLengthMoveTheirKeys) {
  Setting setting(comb(2000, 24, 2));
  const auto fork = setting.fork();
  // The second record's first extent falls in two: every key behind it changes.
  EXPECT_EQ(messageOf(fork->move(2000 + 4 * 8, 3000, 1)), "");
  EXPECT_EQ(messageOf(fork->update()), "");
  const auto result = setting.check();
  EXPECT_EQ(result.report(), "");
  EXPECT_EQ(extentsOnDisk(result.truth, setting.fileID), fork->copyExtentDescriptors(0));
  EXPECT_EQ(result.truth.findFork(setting.fileID, volumecheck::ForkType::Data)->overflowRecords,
            3u);
}

TEST(HFSPlusForkExtents, DeletingAllExtentsEmptiesTheFork) {
  Setting setting(comb(2000, 30), {{1500, 4}});
  const uint32_t freeBefore = setting.volume->hostVolumeHeader().freeBlocks;
  const auto fork = setting.fork();
  fork->deleteAllExtents();
  EXPECT_EQ(fork->editedDescriptorCount(), 0u);
  EXPECT_EQ(messageOf(fork->update()), "");
  EXPECT_TRUE(fork->copyExtentDescriptors(0).empty());
  EXPECT_EQ(setting.volume->hostVolumeHeader().freeBlocks, freeBefore + 30);
  const auto result = setting.check();
  EXPECT_EQ(result.report(), "");
  const volumecheck::Fork* data =
      result.truth.findFork(setting.fileID, volumecheck::ForkType::Data);
  EXPECT_EQ(data->logicalSize, 0u);
  EXPECT_EQ(data->totalBlocks, 0u);
  EXPECT_EQ(extentsOnDisk(result.truth, setting.fileID, volumecheck::ForkType::Resource),
            (Descriptors{{1500, 4}}));
}

TEST(HFSPlusForkExtents, RecordsBeyondTheForksBlocksAreNotTouched) {
  Setting setting(comb(2000, 20), {}, 3);
  const auto fork = setting.fork();
  EXPECT_EQ(fork->copyExtentDescriptors(0).size(), 20u);
  for (uint32_t i = 0; i < 20; ++i) {
    EXPECT_EQ(messageOf(fork->move(2000 + 4 * i, 3000 + i, 1)), "");
  }
  EXPECT_EQ(messageOf(fork->update()), "");
  EXPECT_EQ(uint32_t{setting.volume->extents().headerRecord().leafRecords}, 3u);
}

TEST(HFSPlusForkExtents, ASpecialFileIsWrittenToTheHeader) {
  Setting setting({{2000, 10}});
  auto fork = HFSPlusForkExtents::open(*setting.volume, kHFSCatalogFileID, kHFSDataForkType);
  ASSERT_EQ(messageOf(fork), "");
  const Descriptors before = (*fork)->copyExtentDescriptors(0);
  ASSERT_EQ(before.size(), 1u);
  std::vector<std::byte> bytes(uint64_t{before[0].blockCount} * kBlockSize);
  ASSERT_TRUE(setting.volume->read(bytes, uint64_t{before[0].startBlock} * kBlockSize));
  ASSERT_TRUE(setting.volume->write(bytes, uint64_t{3000} * kBlockSize));
  EXPECT_EQ(messageOf((*fork)->move(before[0].startBlock, 3000, before[0].blockCount)), "");
  EXPECT_EQ(messageOf((*fork)->update()), "");
  EXPECT_EQ(setting.volume->hostVolumeHeader().catalogFile.extents[0].startBlock, 3000u);
  const auto result = setting.check();
  EXPECT_EQ(result.report(), "");
  EXPECT_EQ(extentsOnDisk(result.truth, kHFSCatalogFileID),
            (Descriptors{{3000, before[0].blockCount}}));
}

TEST(HFSPlusForkExtents, ASpecialFileHasNoResourceForkAndKeepsItsLength) {
  Setting setting({{2000, 10}});
  EXPECT_EQ(
      messageOf(HFSPlusForkExtents::open(*setting.volume, kHFSExtentsFileID, kHFSResourceForkType)),
      "Internal error: HFSPlus/HFSPlusForkExtents:76");
  auto fork = HFSPlusForkExtents::open(*setting.volume, kHFSAllocationFileID, kHFSDataForkType);
  ASSERT_EQ(messageOf(fork), "");
  (*fork)->deleteAllExtents();
  EXPECT_EQ(messageOf((*fork)->update()), "Internal error: HFSPlus/HFSPlusForkExtents:653");
}

TEST(HFSPlusForkExtents, TheExtentsFileNeverGetsOverflowRecords) {
  Setting setting({{2000, 10}});
  auto fork = HFSPlusForkExtents::open(*setting.volume, kHFSExtentsFileID, kHFSDataForkType);
  ASSERT_EQ(messageOf(fork), "");
  const HFSPlusExtentDescriptor whole = (*fork)->copyExtentDescriptors(0).at(0);
  ASSERT_GE(whole.blockCount, 17u);
  for (uint32_t i = 0; i < 16; i += 2) {
    EXPECT_EQ(messageOf((*fork)->move(whole.startBlock + i, 3000 + i, 1)), "");
  }
  EXPECT_EQ(messageOf((*fork)->update()),
            "Overflow extents file is too congested, unable to continue.");
  EXPECT_EQ(messageOf(setting.volume->discardChanges()), "");
  EXPECT_EQ(setting.check().report(), "");
}

TEST(HFSPlusForkExtents, OnlyDataAndResourceForksCanBeOpened) {
  Setting setting({{2000, 10}});
  EXPECT_EQ(messageOf(HFSPlusForkExtents::open(*setting.volume, setting.fileID, 1)),
            "File ID = " + std::to_string(setting.fileID) + " (File) has invalid fork type = 1.");
}

TEST(HFSPlusForkExtents, WhatIsNoFileCannotBeFound) {
  Setting setting({{2000, 10}});
  EXPECT_EQ(messageOf(HFSPlusForkExtents::open(*setting.volume, 999, kHFSDataForkType)),
            "File ID = 999 () could not be found. The catalog file may be corrupt.");
  const uint32_t folderID = setting.fileID + 1;
  EXPECT_EQ(messageOf(HFSPlusForkExtents::open(*setting.volume, folderID, kHFSDataForkType)),
            "File ID = " + std::to_string(folderID) +
                " () could not be found. The catalog file may be corrupt.");
}

TEST(HFSPlusForkExtents, AMissingOverflowRecordIsNotFoundByItsNeighbours) {
  Setting setting(comb(2000, 30));
  const std::string message =
      "Extents for file ID = " + std::to_string(setting.fileID) +
      " (File) could not be found. The extents overflow file may be corrupt.";
  ASSERT_TRUE(setting.volume->extents().deleteExtentRecord(16, setting.fileID, kHFSDataForkType));
  EXPECT_EQ(messageOf(HFSPlusForkExtents::open(*setting.volume, setting.fileID, kHFSDataForkType)),
            message);
  for (const uint32_t block : {8, 24}) {
    ASSERT_TRUE(
        setting.volume->extents().deleteExtentRecord(block, setting.fileID, kHFSDataForkType));
  }
  // A tree without records cannot even be asked.
  EXPECT_EQ(messageOf(HFSPlusForkExtents::open(*setting.volume, setting.fileID, kHFSDataForkType)),
            "Overflow extents file is inconsistent.");
}

TEST(HFSPlusForkExtents, AnUpdateThatFindsNoRoomCanBeForgotten) {
  Setting setting({{1100, 1500}});
  const Descriptors before = setting.fork()->copyExtentDescriptors(0);
  const auto fork = setting.fork();
  for (uint32_t i = 0; i < 1500 && fork; i += 2) {
    ASSERT_EQ(messageOf(fork->move(1100 + i, 2600 + i / 2, 1)), "");
  }
  // 187 records of 76 bytes fit into 20 nodes of 4096; a tree that is used up refuses more.
  for (uint32_t i = 0;; ++i) {
    if (!setting.volume->extents().insertExtentRecord({{{1, 1}}}, i, 5, kHFSDataForkType)) {
      break;
    }
  }
  EXPECT_EQ(messageOf(fork->update()),
            "Overflow extents file is too congested, unable to continue.");
  EXPECT_EQ(messageOf(setting.volume->discardChanges()), "");
  EXPECT_EQ(setting.fork()->copyExtentDescriptors(0), before);
  EXPECT_EQ(setting.check().report(), "");
}

/// The fork as the volume block of each of its blocks.
std::vector<uint32_t> blockList(const Descriptors& extents) {
  std::vector<uint32_t> blocks;
  for (const HFSPlusExtentDescriptor& extent : extents) {
    for (uint32_t i = 0; i < extent.blockCount; ++i) {
      blocks.push_back(extent.startBlock + i);
    }
  }
  return blocks;
}

void moveAtRandom(uint32_t seed) {
  SCOPED_TRACE(seedText(seed));
  support::SeededRandom random(seed);
  Setting setting(comb(1200, static_cast<uint32_t>(random.between(1, 80)),
                       static_cast<uint32_t>(random.between(1, 6)), 9));
  std::vector<uint32_t> model = blockList(setting.fork()->copyExtentDescriptors(0));
  uint32_t moveCount = 0;
  for (int update = 0; update < 6; ++update) {
    const auto fork = setting.fork();
    for (uint64_t moves = random.below(40); moves > 0; --moves) {
      const size_t first = static_cast<size_t>(random.below(model.size()));
      size_t count = 1;
      while (first + count < model.size() && model[first + count] == model[first] + count &&
             random.chance(80)) {
        ++count;
      }
      const auto to = static_cast<uint32_t>(random.between(1200, 3900));
      const std::set<uint32_t> used(model.begin(), model.end());
      const auto low = used.lower_bound(to);
      if (low != used.end() && *low < to + count) {
        continue;  // somebody is there
      }
      const Result<> moved = fork->move(model[first], to, static_cast<uint32_t>(count));
      if (!moved) {
        // Neighbours by chance, of two extents; nothing has changed then.
        ASSERT_EQ(blockList(fork->copyExtentDescriptors(0)), model);
        continue;
      }
      ++moveCount;
      for (size_t i = 0; i < count; ++i) {
        model[first + i] = to + static_cast<uint32_t>(i);
      }
    }
    ASSERT_EQ(messageOf(fork->update()), "");
    ASSERT_EQ(blockList(fork->copyExtentDescriptors(0)), model);
  }
  EXPECT_GT(moveCount, 0U);
  const auto result = setting.check();
  ASSERT_EQ(result.report(), "");
  ASSERT_EQ(blockList(extentsOnDisk(result.truth, setting.fileID)), model);
}

TEST(HFSPlusForkExtents, RandomMovesAgreeWithAListOfBlocks) {
  for (const uint32_t seed : testSeeds(20)) {
    ASSERT_NO_FATAL_FAILURE(moveAtRandom(seed));
  }
}

}  // namespace
