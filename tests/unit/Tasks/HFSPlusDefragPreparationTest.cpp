#include "Tasks/HFSPlusDefragPreparation.hpp"

#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "Tasks/HFSPlusCopyBuffer.hpp"
#include "Tasks/HFSPlusDefragStretch.hpp"
#include "support/VolumePresets.hpp"
#include "unit/Tasks/RewritingRun.hpp"
#include "unit/Tasks/StretchSetting.hpp"

namespace {

using doubles::messageOf;
using support::BlockExtent;

bool never() {
  return false;
}

using Setting = StretchSetting;

TEST(HFSPlusCopyBuffer, IsASixteenthOfTheMemoryAndAtMost64MiB) {
  EXPECT_EQ(HFSPlusCopyBuffer::sizeForMemory(std::nullopt), 0x1000000u);
  EXPECT_EQ(HFSPlusCopyBuffer::sizeForMemory(0x3FFFFFFF), 0x3FFFFFFu);
  EXPECT_EQ(HFSPlusCopyBuffer::sizeForMemory(0x40000000), 0x4000000u);
  EXPECT_EQ(HFSPlusCopyBuffer::sizeForMemory(uint64_t{1} << 40), 0x4000000u);
  EXPECT_EQ(HFSPlusCopyBuffer::sizeForMemory(256 << 20), 16u << 20);
}

TEST(HFSPlusCopyBuffer, HoldsWholeBlocksAndAtLeastOne) {
  const auto buffer = HFSPlusCopyBuffer::open(10000, 4096);
  ASSERT_TRUE(buffer);
  EXPECT_EQ(buffer->blockCount(), 2u);
  EXPECT_EQ(buffer->blocks(1, 1).size(), 4096u);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(buffer->blocks(0, 1).data()) % 4096, 0u);
  const auto tiny = HFSPlusCopyBuffer::open(0, 65536);
  ASSERT_TRUE(tiny);
  EXPECT_EQ(tiny->blockCount(), 1u);
}

TEST(HFSPlusDefragStretch, BootAreaAndAlternateHeaderAreImmutable) {
  for (const auto& [blockSize, boot, alternate] :
       {std::tuple{512U, 3U, 2U}, {1024U, 2U, 1U}, {4096U, 1U, 1U}}) {
    Setting setting(plainStretchVolume(blockSize));
    ASSERT_EQ(messageOf(setting.stretch->build(0)), "");
    EXPECT_EQ(setting.runAt(0).entry->info.type, kHFSPlusExtentImmutable);
    EXPECT_EQ(setting.runAt(0).count, boot);
    const HFSPlusExtentRun last = setting.runAt(1999);
    EXPECT_EQ(last.entry->info.type, kHFSPlusExtentImmutable);
    EXPECT_EQ(last.entry->start, 2000 - alternate);
    EXPECT_EQ(last.entry->cnid, 0u);
  }
}

TEST(HFSPlusDefragStretch, KnowsWhoOwnsWhat) {
  support::VolumeDescription description = plainStretchVolume();
  const uint32_t id = addFileAt(description, "A", {{1000, 10}, {1200, 5}});
  description.root().addFile("B").resource = support::forkAt({{1100, 3}}, 3 * 4096);
  description.startup = support::forkAt({{1300, 2}}, 2 * 4096);
  Setting setting(description);
  ASSERT_EQ(messageOf(setting.stretch->build(0)), "");
  EXPECT_TRUE(setting.stretch->reachesVolumeEnd());
  EXPECT_EQ(setting.runAt(1203).entry->cnid, id);
  EXPECT_EQ(setting.runAt(1203).count, 5u);
  EXPECT_EQ(setting.runAt(1100).entry->info.forkType, kHFSResourceForkType);
  EXPECT_EQ(setting.runAt(1300).entry->info.type, kHFSPlusExtentImmutable);
  EXPECT_EQ(setting.runAt(1300).entry->cnid, uint32_t{kHFSStartupFileID});
  const uint32_t catalog = setting.volume->hostVolumeHeader().catalogFile.extents[0].startBlock;
  EXPECT_EQ(setting.runAt(catalog).entry->cnid, uint32_t{kHFSCatalogFileID});
  EXPECT_EQ(setting.runAt(catalog).entry->info.type, kHFSPlusExtentAllocated);
  setting.stretch->map().validate(false);
}

TEST(HFSPlusDefragStretch, TheJournalIsImmutable) {
  support::VolumeDescription description = plainStretchVolume();
  description.addJournal(64 * 1024);
  Setting setting(description);
  setting.stretch->setImmutableFileForks(*setting.volume->immutableForkIDs(true));
  ASSERT_EQ(messageOf(setting.stretch->build(0)), "");
  const uint32_t info = setting.volume->hostVolumeHeader().journalInfoBlock;
  EXPECT_EQ(setting.runAt(info).entry->info.type, kHFSPlusExtentImmutable);
  EXPECT_EQ(setting.runAt(info).entry->cnid, description.journalInfoFile->id);
  uint32_t journalBlocks = 0;
  for (auto run = setting.stretch->map().firstEntry(); run;
       run = setting.stretch->map().nextEntry(run->entry)) {
    journalBlocks += run->entry->cnid == description.journalFile->id ? run->count : 0;
  }
  EXPECT_EQ(journalBlocks, 16u);
}

/// A journaled volume of which the journal's header says what `edit` makes of it.
support::BuiltVolume journaledVolume(const std::function<void(std::span<std::byte>)>& edit,
                                     uint32_t infoFlags = 1) {
  support::VolumeDescription description = plainStretchVolume();
  description.addJournal(64 * 1024);
  support::BuiltVolume built = support::buildVolume(description);
  const auto firstBlockOf = [&](const support::FileDescription* file) {
    const uint32_t block = built.fork(file->id, kHFSDataForkType)->extents.at(0).start;
    return std::span(built.image).subspan(uint64_t{block} * built.blockSize, built.blockSize);
  };
  writeBigEndian(firstBlockOf(description.journalInfoFile).data(), infoFlags);
  edit(firstBlockOf(description.journalFile));
  return built;
}

std::string messageOfBuilding(support::BuiltVolume built) {
  Setting setting(std::move(built));
  setting.stretch->setImmutableFileForks(*setting.volume->immutableForkIDs(true));
  return messageOf(setting.stretch->build(0));
}

TEST(HFSPlusDefragStretch, AJournalWithTransactionsIsRefused) {
  constexpr size_t kStart = 8;
  constexpr size_t kEnd = 16;
  const auto withTransactions = [](std::span<std::byte> header) {
    header[kEnd + 6] = header[kStart + 6] ^ std::byte{0x10};
  };
  EXPECT_EQ(messageOfBuilding(journaledVolume(withTransactions)), "Volume is inconsistent.");
  const auto inOtherByteOrder = [](std::span<std::byte> header) {
    std::ranges::reverse(header.first(4));
    header[kEnd + 1] = header[kStart + 1] ^ std::byte{0x02};
  };
  EXPECT_EQ(messageOfBuilding(journaledVolume(inOtherByteOrder)), "Volume is inconsistent.");

  // One that is to be initialised, or has no header, has none to write.
  EXPECT_EQ(messageOfBuilding(journaledVolume(withTransactions, 5)), "");
  const auto withoutHeader = [&](std::span<std::byte> header) {
    withTransactions(header);
    header[0] ^= std::byte{0xFF};
  };
  EXPECT_EQ(messageOfBuilding(journaledVolume(withoutHeader)), "");
}

TEST(HFSPlusDefragStretch, AJournalOnAnotherDeviceOwnsNothingHere) {
  EXPECT_EQ(messageOfBuilding(journaledVolume([](std::span<std::byte>) {}, 2)), "");
}

TEST(HFSPlusDefragStretch, BadBlocksAreImmutableWhereverTheyAreListed) {
  for (const auto place :
       {support::BadBlocksPlace::overflowOnly, support::BadBlocksPlace::catalog}) {
    support::VolumeDescription description = plainStretchVolume();
    description.addBadBlocks({{1500, 2}, {1600, 1}}, place);
    Setting setting(description);
    ASSERT_EQ(messageOf(setting.prepare(true)), "");
    EXPECT_EQ(setting.runAt(1501).entry->info.type, kHFSPlusExtentImmutable);
    EXPECT_EQ(setting.runAt(1600).entry->info.type, kHFSPlusExtentImmutable);
  }
}

TEST(HFSPlusDefragStretch, OwnedBlocksThatAreNotMarkedAreMarked) {
  support::VolumeDescription description = plainStretchVolume();
  addFileAt(description, "A", {{1000, 10}});
  description.unmarked = {{1002, 3}, {1009, 1}};
  Setting setting(description);
  EXPECT_EQ(*setting.volume->allocation().isClear(1002, 3), 3u);
  ASSERT_EQ(messageOf(setting.stretch->build(0)), "");
  EXPECT_EQ(*setting.volume->allocation().isSet(1000, 10), 10u);
}

TEST(HFSPlusDefragStretch, MarkedBlocksWithoutAnOwnerAreImmutable) {
  support::VolumeDescription description = plainStretchVolume();
  description.markedWithoutOwner = {{1500, 7}, {1600, 1}};
  Setting setting(description);
  ASSERT_EQ(messageOf(setting.stretch->build(0)), "");
  EXPECT_EQ(setting.runAt(1503).entry->info.type, kHFSPlusExtentImmutable);
  EXPECT_EQ(setting.runAt(1503).count, 7u);
  EXPECT_EQ(setting.runAt(1600).count, 1u);
}

TEST(HFSPlusDefragStretch, StretchesCoverTheVolumeWithoutGapOrOverlap) {
  support::VolumeDescription description = plainStretchVolume();
  for (int i = 0; i < 60; ++i) {
    description.root().addFile("File " + std::to_string(i), support::fork(5 * 4096, 3));
  }
  Setting whole(description);
  ASSERT_EQ(messageOf(whole.stretch->build(0)), "");
  Setting setting(description);
  HFSPlusDefragStretch stretch(*setting.volume, never, 20);
  uint32_t next = 0;
  size_t stretches = 0;
  do {
    ASSERT_EQ(messageOf(stretch.build(next)), "");
    EXPECT_EQ(stretch.map().startBlock(), next);
    EXPECT_GT(stretch.nextStartBlock(), next);
    for (uint32_t block = next; block < stretch.nextStartBlock(); ++block) {
      EXPECT_EQ(stretch.map().findEntry(block)->entry->cnid, whole.runAt(block).entry->cnid);
    }
    next = stretch.nextStartBlock();
    ++stretches;
  } while (!stretch.reachesVolumeEnd());
  EXPECT_EQ(next, 2000u);
  EXPECT_GT(stretches, 5u);
}

TEST(HFSPlusDefragStretch, AForkWithoutItsOverflowRecordsIsRefused) {
  support::VolumeDescription description = plainStretchVolume();
  std::vector<BlockExtent> extents;
  for (uint32_t i = 0; i < 12; ++i) {
    extents.push_back({1000 + 3 * i, 1});
  }
  const uint32_t id = addFileAt(description, "A", extents);
  Setting setting(description);
  ASSERT_TRUE(setting.volume->extents().deleteExtentRecord(8, id, kHFSDataForkType));
  addFileAt(description, "B", {{1900, 1}});
  // With another fork's record the tree is not empty, and the fork's is missing all the same.
  ASSERT_TRUE(setting.volume->extents().insertExtentRecord({{{1, 1}}}, 8, id + 5, 0));
  EXPECT_EQ(messageOf(setting.stretch->build(0)), "Overflow extent record missing.");
}

/// The message of DEFRAG on a damaged image, which must not have been written to.
std::string refusalOf(const std::vector<std::byte>& image) {
  doubles::TestVolume volume(image);
  EXPECT_EQ(messageOf(volume.open()), "");
  volume.recording->clear();
  const auto lines = RewritingRun::linesOf(*RewritingRun::taskOf(*volume, "DEFRAG"));
  EXPECT_TRUE(volume.recording->changes().empty());
  return RewritingRun::errorIn(lines);
}

/// Replaces an extent, which must stand in the image exactly once.
void replaceExtent(std::vector<std::byte>& image, BlockExtent from, BlockExtent to) {
  const auto bytesOf = [](BlockExtent extent) {
    std::array<std::byte, 8> bytes{};
    writeBigEndian(bytes.data(), extent.start);
    writeBigEndian(bytes.data() + 4, extent.count);
    return bytes;
  };
  const auto needle = bytesOf(from);
  const auto found = std::search(image.begin(), image.end(), needle.begin(), needle.end());
  ASSERT_NE(found, image.end());
  ASSERT_EQ(std::search(found + 1, image.end(), needle.begin(), needle.end()), image.end());
  std::ranges::copy(bytesOf(to), found);
}

TEST(HFSPlusDefragPreparation, OverlappingForksAreRefusedBeforeAnyWrite) {
  support::VolumeDescription description = plainStretchVolume();
  const uint32_t id = addFileAt(description, "A", {{1000, 10}});
  addFileAt(description, "B", {{1100, 12}});
  std::vector<std::byte> image = support::buildVolume(description).image;
  replaceExtent(image, {1000, 10}, {1105, 10});
  const std::string error = refusalOf(image);
  EXPECT_TRUE(error.starts_with("Invalid overlapping extent with start block = 1")) << error << id;
}

// The file would be moved, and its blocks, which hold the attribute or are bad, would be free.
TEST(HFSPlusDefragPreparation, FilesOnBlocksOfForksThatTheCatalogDoesNotListAreRefused) {
  support::VolumeDescription description = plainStretchVolume();
  const uint32_t id = addFileAt(description, "A", {{1000, 10}});
  support::FileDescription& owner = description.root().addFile("B");
  const uint64_t blockSize = description.blockSize;
  owner.addForkAttribute("fork", support::forkAt({{1100, 12}}, 12 * blockSize));
  description.addBadBlocks({{1200, 12}}, support::BadBlocksPlace::overflowOnly);
  const std::vector<std::byte> sound = support::buildVolume(description).image;
  for (const uint32_t start : {1105U, 1205U}) {
    std::vector<std::byte> image = sound;
    replaceExtent(image, {1000, 10}, {start, 10});
    EXPECT_EQ(refusalOf(image), LWFormat("Invalid overlapping extent with start block = %u\\, "
                                         "block count = 10 and CNID %u.",
                                         start, id));
  }
}

TEST(HFSPlusDefragPreparation, FilesWithAnIDThatNoFileCanHaveAreRefused) {
  support::VolumeDescription description = plainStretchVolume();
  addFileAt(description, "A", {{1000, 10}});
  support::FileDescription& file = description.root().addFile("B");
  for (const uint32_t id : {0U, 3U, 4U, 6U, 7U, 8U}) {
    file.id = id;
    EXPECT_EQ(refusalOf(support::buildVolume(description).image), "Catalog file is inconsistent.")
        << id;
  }
}

TEST(HFSPlusDefragPreparation, ExtentsOutsideTheVolumeAreRefusedBeforeAnyWrite) {
  support::VolumeDescription description = plainStretchVolume();
  addFileAt(description, "A", {{1000, 10}});
  const std::vector<std::byte> sound = support::buildVolume(description).image;
  for (const auto& [damage, message] :
       {std::pair{BlockExtent{1995, 10}, "Allocation block 2005 is out of range."},
        {BlockExtent{4000000000, 10}, "Allocation block 4000000010 is out of range."},
        {BlockExtent{1000, 0xFFFFFFFF}, "Allocation block 4294968295 is out of range."}}) {
    std::vector<std::byte> image = sound;
    replaceExtent(image, {1000, 10}, damage);
    EXPECT_EQ(refusalOf(image), message);
  }
}

// Evicted data and the records of flushes go wherever the bitmap says that it is free.
TEST(HFSPlusDefragPreparation, OwnedBlocksAreMarkedForGoodWhateverStretchTheyLieIn) {
  support::PlainVolume plain;
  plain.blockSize = 1024;
  plain.size = 2 << 20;
  plain.files = 40;
  plain.fragments = 12;
  support::VolumeDescription description = support::plainVolume(plain);
  for (const support::BuiltFork& fork : support::buildVolume(description).forks) {
    if (fork.fileID >= support::kFirstUserID) {
      description.unmarked.push_back(fork.extents.back());
    }
  }
  Setting setting(description);
  HFSPlusDefragStretch stretch(*setting.volume, never, 30);
  HFSPlusDefragPreparation preparation(*setting.volume, stretch, setting.profile, "DEFRAG");
  ASSERT_EQ(messageOf(preparation.checkVolume()), "");
  ASSERT_TRUE(setting.volume->discardChanges());
  ASSERT_EQ(messageOf(stretch.build(0)), "");
  size_t beyond = 0;
  for (const BlockExtent& extent : description.unmarked) {
    beyond += extent.start >= stretch.nextStartBlock() ? 1U : 0U;
    EXPECT_EQ(*setting.volume->allocation().isSet(extent.start, extent.count), extent.count);
  }
  EXPECT_GT(beyond, 10U);
}

TEST(HFSPlusDefragPreparation, CompactingStartsAtTheFirstFreeBlock) {
  support::VolumeDescription description = plainStretchVolume();
  description.keptFree = {{700, 5}};
  addFileAt(description, "A", {{705, 10}});
  Setting setting(description);
  const auto expected = setting.prepare(true);
  ASSERT_EQ(messageOf(expected), "");
  ASSERT_TRUE(*expected);
  EXPECT_EQ(setting.runAt(setting.firstBlock()).entry->info.type, kHFSPlusExtentUnalloced);
}

TEST(HFSPlusDefragPreparation, DefragmentingStartsAtTheFirstForkInPieces) {
  support::VolumeDescription description = plainStretchVolume();
  // Everything from the special files on, without a gap.
  Setting empty(description);
  ASSERT_EQ(messageOf(empty.prepare()), "");
  const uint32_t front = empty.firstBlock();
  addFileAt(description, "A", {{front, 10}});
  addFileAt(description, "B", {{front + 10, 5}, {1500, 5}});
  addFileAt(description, "C", {{front + 15, 5}});
  Setting setting(description);
  const auto expected = setting.prepare();
  ASSERT_EQ(messageOf(expected), "");
  EXPECT_EQ(setting.firstBlock(), front + 10);
  // The rest of B and all of C; the piece at which it starts counts as done.
  EXPECT_EQ(**expected, 10u);
}

TEST(HFSPlusDefragPreparation, AProfileStartsWhereItsOrderIsNotKept) {
  support::VolumeDescription description = plainStretchVolume();
  Setting empty(description);
  ASSERT_EQ(messageOf(empty.prepare()), "");
  const uint32_t front = empty.firstBlock();
  const uint32_t a = addFileAt(description, "A", {{front, 10}});
  const uint32_t b = addFileAt(description, "B", {{front + 10, 5}});
  const uint32_t c = addFileAt(description, "C", {{front + 15, 5}});
  const uint32_t nothing = description.root().addFile("Nothing").id;
  // The special files at the front are nobody's in the profile.
  {
    Setting setting(description);
    setting.profile.emplace();
    setting.profile->add(a, kHFSDataForkType);
    ASSERT_EQ(messageOf(setting.prepare()), "");
    EXPECT_LT(setting.firstBlock(), front);
    EXPECT_EQ(setting.profile->count(), 1u);
  }
  // Members without blocks from there on have no say.
  {
    Setting setting(description);
    setting.profile.emplace();
    setting.profile->add(nothing, kHFSDataForkType);
    ASSERT_EQ(messageOf(setting.prepare()), "");
    EXPECT_FALSE(setting.profile);
    EXPECT_EQ(setting.firstBlock(), front + 20);
  }
  EXPECT_NE(b, c);
}

TEST(HFSPlusDefragPreparation, NothingToDoMeansNoBlockIsWritten) {
  Setting setting(plainStretchVolume());
  const auto expected = setting.prepare();
  ASSERT_EQ(messageOf(expected), "");
  EXPECT_EQ(setting.volume.recording->changes().size(), 0u);
}

TEST(HFSPlusDefragPreparation, ACancelledPreparationSaysSo) {
  support::VolumeDescription description = plainStretchVolume();
  Setting setting(description);
  HFSPlusDefragStretch stretch(*setting.volume, [] { return true; });
  const auto built = stretch.build(0);
  ASSERT_FALSE(built);
  EXPECT_TRUE(built.error().isUserCancelled());
}

}  // namespace
