#include "support/VolumeBuilder.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "support/VolumePresets.hpp"
#include "unit/support/BuiltVolumeChecks.hpp"

using namespace support;

namespace {

void expectSound(const VolumeDescription& description) {
  const auto volume = tryBuildVolume(description);
  ASSERT_TRUE(volume) << volume.error();
  EXPECT_EQ(findingsIn(*volume), "");
  EXPECT_EQ(disagreements(*volume), "");
}

}  // namespace

TEST(VolumeBuilder, AnEmptyVolumeIsSound) {
  expectSound(VolumeDescription());
}

TEST(VolumeBuilder, TheDemoVolumeIsSoundAndFragmented) {
  const BuiltVolume volume = buildVolume(demoVolume(1));
  EXPECT_EQ(findingsIn(volume), "");
  EXPECT_EQ(disagreements(volume), "");
  const auto inPieces = [](const BuiltFork& fork) { return fork.extents.size() > 1; };
  EXPECT_GT(std::ranges::count_if(volume.forks, inPieces), 150);
  const auto overflows = [](const BuiltFork& fork) { return fork.extents.size() > 8; };
  EXPECT_GT(std::ranges::count_if(volume.forks, overflows), 10);
}

TEST(VolumeBuilder, TheSameDescriptionMakesTheSameBytes) {
  EXPECT_EQ(buildVolume(demoVolume(7)).image, buildVolume(demoVolume(7)).image);
  EXPECT_NE(buildVolume(demoVolume(7)).image, buildVolume(demoVolume(8)).image);
}

TEST(VolumeBuilder, GivenExtentsAreKeptExactly) {
  VolumeDescription description;
  description.size = 4 << 20;
  const std::vector<BlockExtent> extents = {{900, 2}, {500, 1}, {501, 3}};
  const uint32_t id = description.root().addFile("a", forkAt(extents, 6 * 4096 - 100)).id;
  const BuiltVolume volume = buildVolume(description);
  ASSERT_NE(volume.fork(id, kDataFork), nullptr);
  EXPECT_EQ(volume.fork(id, kDataFork)->extents, extents);
  EXPECT_EQ(disagreements(volume), "");
}

TEST(VolumeBuilder, AForkComesInAsManyPiecesAsAsked) {
  VolumeDescription description;
  const uint32_t one = description.root().addFile("a", fork(400 * 4096, 100)).id;
  const uint32_t two = description.root().addFile("b", fork(9 * 4096), fork(70000, 9)).id;
  const BuiltVolume volume = buildVolume(description);
  EXPECT_EQ(volume.fork(one, kDataFork)->extents.size(), 100u);
  EXPECT_EQ(volume.fork(two, kDataFork)->extents.size(), 1u);
  EXPECT_EQ(volume.fork(two, kResourceFork)->extents.size(), 9u);
  EXPECT_EQ(findingsIn(volume), "");
}

TEST(VolumeBuilder, AVolumeThatIsTooSmallIsRefused) {
  VolumeDescription description;
  description.size = 1 << 20;
  description.root().addFile("a", fork(2 << 20));
  EXPECT_FALSE(tryBuildVolume(description));
}

TEST(VolumeBuilder, TwoFilesOfOneNameAreRefused) {
  VolumeDescription description;
  description.root().addFile("a");
  description.root().addFile("A");
  EXPECT_FALSE(tryBuildVolume(description));
}

TEST(VolumeBuilder, EveryBlockSizeAndNodeSizeIsSound) {
  for (uint32_t blockSize = 512; blockSize <= 65536; blockSize *= 2) {
    for (uint32_t nodeSize = 512; nodeSize <= 32768; nodeSize *= 8) {
      SCOPED_TRACE(testing::Message() << "blocks " << blockSize << ", nodes " << nodeSize);
      VolumeDescription description;
      description.blockSize = blockSize;
      description.extentsTree.nodeSize = nodeSize;
      description.catalog.nodeSize = std::max(4096u, nodeSize);
      description.attributesTree.nodeSize = description.catalog.nodeSize;
      for (uint32_t i = 0; i < 12; ++i)
        description.root().addFile("file " + std::to_string(i), fork(blockSize * 20 - i, 12));
      expectSound(description);
    }
  }
}

TEST(VolumeBuilder, AVolumeInAWrapperIsSound) {
  VolumeDescription description;
  description.wrapper = true;
  description.root().addFile("a", fork(100000, 5));
  const BuiltVolume volume = buildVolume(description);
  EXPECT_GT(volume.volumeStart, 1536u);
  EXPECT_EQ(findingsIn(volume), "");
  EXPECT_EQ(disagreements(volume), "");
}

TEST(VolumeBuilder, AJournalIsOnePieceThatItsInfoBlockNames) {
  VolumeDescription description;
  description.addJournal(300000);
  description.root().addFile("a", fork(100000, 5));
  const BuiltVolume volume = buildVolume(description);
  EXPECT_EQ(findingsIn(volume), "");
  const auto id = volume.idOfPath("/.journal");
  ASSERT_TRUE(id);
  EXPECT_EQ(volume.fork(*id, kDataFork)->extents.size(), 1u);
}

TEST(VolumeBuilder, SpecialFilesComeInPiecesAndOverflow) {
  VolumeDescription description = piecesVolume(3);
  const BuiltVolume volume = buildVolume(description);
  EXPECT_EQ(findingsIn(volume), "");
  EXPECT_EQ(disagreements(volume), "");
  EXPECT_GT(volume.fork(kCatalogFileID, kDataFork)->extents.size(), 8u);
  EXPECT_GT(volume.fork(kAttributesFileID, kDataFork)->extents.size(), 8u);
  EXPECT_GT(volume.fork(kStartupFileID, kDataFork)->extents.size(), 8u);
  EXPECT_GT(volume.fork(kExtentsFileID, kDataFork)->extents.size(), 1u);
  EXPECT_EQ(volume.fork(kAllocationFileID, kDataFork)->extents.size(), 1u);
}

TEST(VolumeBuilder, TheAllocationFileComesInPieces) {
  VolumeDescription description;
  description.blockSize = 512;
  description.size = 16 << 20;
  description.allocationFragments = 5;
  const BuiltVolume volume = buildVolume(description);
  EXPECT_EQ(volume.fork(kAllocationFileID, kDataFork)->extents.size(), 5u);
  EXPECT_EQ(findingsIn(volume), "");
}

TEST(VolumeBuilder, OverflowRecordsFillSeveralIndexLevels) {
  VolumeDescription description;
  description.blockSize = 512;
  description.extentsTree.nodeSize = 512;
  description.extentsTree.fill = 0.5;
  description.root().addFile("a", fork(20000 * 512, 10000));
  description.root().addFile("b", {}, fork(9000 * 512, 4000));
  const BuiltVolume volume = buildVolume(description);
  EXPECT_EQ(findingsIn(volume), "");
  EXPECT_EQ(disagreements(volume), "");
  // The header record stands at the start of node 0; its first word is the depth.
  const Bytes tree = bytesInImage(volume, *volume.fork(kExtentsFileID, kDataFork));
  EXPECT_GE(static_cast<int>(tree[15]), 4);
}

TEST(VolumeBuilder, ATreeOfManyFreeNodesHasMapNodes) {
  for (const NodeOrder order : {NodeOrder::packed, NodeOrder::spread, NodeOrder::scattered}) {
    VolumeDescription description;
    description.extentsTree.nodeSize = 512;
    description.extentsTree.totalNodes = 20000;
    description.extentsTree.order = order;
    description.catalog.totalNodes = 4000;
    description.catalog.order = order;
    description.catalog.fill = 0.5;
    for (uint32_t i = 0; i < 300; ++i)
      description.root().addFile("file " + std::to_string(i), fork(30 * 4096, 20));
    expectSound(description);
    description.catalog.junkInFreeNodes = true;
    expectSound(description);
  }
}

TEST(VolumeBuilder, ABadBlocksFileOfTheOverflowFileAloneIsSound) {
  VolumeDescription description;
  description.root().addFile("a", fork(100 * 4096, 10));
  std::vector<BlockExtent> bad;
  for (uint32_t i = 0; i < 11; ++i)
    bad.push_back({60 + 5 * i, 1 + i % 3});
  description.addBadBlocks(bad, BadBlocksPlace::overflowOnly);
  const BuiltVolume volume = buildVolume(description);
  EXPECT_EQ(volume.fork(kBadBlocksFileID, kDataFork)->extents, bad);
  EXPECT_EQ(findingsIn(volume), "");
}

TEST(VolumeBuilder, StateBitsAndVariantsStandInBothHeaders) {
  VolumeDescription description;
  description.attributesSet = kVolumeHardwareLock | kVolumeSoftwareLock | kVolumeInconsistent;
  description.attributesCleared = kVolumeUnmounted;
  description.signature = 0x4242;
  description.version = 9;
  const BuiltVolume volume = buildVolume(description);
  for (const uint64_t at : {uint64_t{1024}, volume.imageSize - 1024}) {
    const auto byte = [&](size_t offset) { return static_cast<int>(volume.image[at + offset]); };
    EXPECT_EQ(byte(0) << 8 | byte(1), 0x4242);
    EXPECT_EQ(byte(3), 9);
    EXPECT_EQ(byte(6), 0x88);
    EXPECT_EQ(byte(7), 0x80);
  }
}

TEST(VolumeBuilder, WrongBitsOfTheBitmapAreExactlyThoseAsked) {
  VolumeDescription description;
  const uint32_t id = description.root().addFile("a", forkAt({{100, 10}}, 40960)).id;
  description.markedWithoutOwner = {{200, 3}};
  description.unmarked = {{104, 2}};
  const BuiltVolume volume = buildVolume(description);
  EXPECT_EQ(volume.fork(id, kDataFork)->totalBlocks, 10u);
  EXPECT_EQ(findingsIn(volume),
            "BlockOwnedButClear: Blocks 104 to 105 (2) are owned, but free in the bitmap.\n"
            "BlockSetButUnowned: Blocks 200 to 202 (3) are set in the bitmap, but nobody owns "
            "them.\n");
}

TEST(VolumeBuilder, RecordsBeyondAForksEndAreTheOnlyFinding) {
  VolumeDescription description;
  description.root().addFile("a", fork(50000)).data.strayRecords = 3;
  const std::string findings = findingsIn(buildVolume(description));
  EXPECT_EQ(std::ranges::count(findings, '\n'), 3);
  EXPECT_EQ(findings.find("OverflowBeyondTotal"), 0u);
}

TEST(VolumeBuilder, NamesOfEveryKindAreFoundByTheirPaths) {
  VolumeDescription description;
  FolderDescription& folder = description.root().addFolder("Földer");
  folder.addFile("a/b", fork(10));
  folder.addFile("com,ma\\slash", fork(10));
  const uint32_t longest = folder.addFile(std::u16string(255, u'y'), fork(10)).id;
  const uint32_t zero = folder.addFile(std::u16string(u"z\0z", 3), fork(10)).id;
  const BuiltVolume volume = buildVolume(description);
  EXPECT_EQ(findingsIn(volume), "");
  EXPECT_TRUE(volume.idOfPath("/Fo\u0308lder/a:b"));
  EXPECT_TRUE(volume.idOfPath("/Fo\u0308lder/com,ma\\slash"));
  EXPECT_EQ(volume.path(longest).size(), std::string("/Fo\u0308lder/").size() + 255);
  EXPECT_EQ(volume.path(zero).size(), std::string("/Fo\u0308lder/").size() + 3);
  EXPECT_FALSE(volume.idOfPath("/a:b"));
  expectSound(namesVolume(5));
}

TEST(VolumeBuilder, BinaryNamesMayDifferInCaseOnly) {
  VolumeDescription description;
  description.hfsx = true;
  description.binaryNames = true;
  for (const char* name : {"a", "A", "b", "B", "aa"})
    description.root().addFile(name, fork(100));
  expectSound(description);
  description.root().addFile("a", fork(100));
  EXPECT_FALSE(tryBuildVolume(description));
}

TEST(VolumeBuilder, LinksOfBothKindsAreSound) {
  VolumeDescription description;
  FileDescription& inode = description.addInode(fork(20000, 3), fork(700));
  for (uint32_t i = 0; i < 5; ++i)
    description.root().addHardLink("link " + std::to_string(i), inode);
  description.root().addSymbolicLink("symlink", "link 1");
  expectSound(description);
}

TEST(VolumeBuilder, AFolderOfThousandsOfFilesIsSound) {
  VolumeDescription description;
  FolderDescription& folder = description.root().folderAt("a/b/c");
  for (uint32_t i = 0; i < 9000; ++i)
    folder.addFile("file " + std::to_string(i), fork(i % 3 * 100));
  const BuiltVolume volume = buildVolume(description);
  EXPECT_EQ(volume.items.size(), 9003u);
  EXPECT_EQ(findingsIn(volume), "");
}

TEST(VolumeBuilder, AttributesOfEveryKindAreSound) {
  VolumeDescription description;
  FileDescription& file = description.root().addFile("a", fork(9000));
  file.addAttribute("com.example.empty", {});
  file.addAttribute("com.example.odd", Bytes(33, std::byte{7}));
  file.addForkAttribute("com.example.fork", fork(70000, 3));
  file.addForkAttribute("com.example.long", fork(200000, 30));
  description.root().addFolder("b").addAttribute("com.example.x", Bytes(3000, std::byte{1}));
  expectSound(description);
}

TEST(VolumeBuilder, HotFilesAndPlaylistNameTheForks) {
  VolumeDescription description;
  std::vector<HotFile> hot;
  for (uint32_t i = 0; i < 200; ++i) {
    FileDescription& file = description.root().addFile("file " + std::to_string(i), fork(5000));
    hot.push_back({file.id, kDataFork, 1000 - i});
  }
  description.addHotFilesTree(hot, 3);
  PlaylistEntry entry;
  entry.fileID = hot[0].fileID;
  entry.batch = 5;
  const uint32_t id = description.addPlaylist({entry}, true).id;
  const BuiltVolume volume = buildVolume(description);
  EXPECT_EQ(findingsIn(volume), "");
  EXPECT_EQ(disagreements(volume), "");
  const Bytes playlist = bytesInImage(volume, *volume.fork(id, kDataFork));
  ASSERT_EQ(playlist.size(), 32u);
  EXPECT_EQ(playlist[0], std::byte{0xD6});
  EXPECT_EQ(playlist[4], std::byte{1});
  const uint32_t start = volume.fork(hot[0].fileID, kDataFork)->extents[0].start;
  EXPECT_EQ(playlist[13], static_cast<std::byte>(start * 4096 >> 8));
  EXPECT_EQ(playlist[28], std::byte{5});
}

TEST(VolumeBuilder, VolumesAreAsFullAsAsked) {
  for (const uint32_t percent : {1u, 30u, 90u, 99u, 100u}) {
    VolumeDescription description;
    description.fillPercent = percent;
    for (uint32_t i = 0; i < 50; ++i)
      description.root().addFile("file " + std::to_string(i), fork(100000 + i, 7));
    const BuiltVolume volume = buildVolume(description);
    const double used = 100.0 * (volume.totalBlocks - volume.freeBlocks) / volume.totalBlocks;
    EXPECT_NEAR(used, percent, 1.0);
    EXPECT_EQ(findingsIn(volume), "");
  }
}

TEST(VolumeBuilder, AMovedSectorTellsWhoseItIs) {
  std::array<std::byte, 512> sector;
  stampFork(0x0102030405060708, 0x11223344, kResourceFork, 512 * 5, sector);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(sector.data()), 4), "SECT");
  EXPECT_EQ(sector[4], std::byte{0x11});
  EXPECT_EQ(sector[8], std::byte{0x01});
  EXPECT_EQ(sector[16], std::byte{0xFF});
  EXPECT_EQ(sector[31], std::byte{5});
}
