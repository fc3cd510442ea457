#include <gtest/gtest.h>

#include <algorithm>

#include "HFSPlus/HFSPlusCatalog.hpp"
#include "unit/HFSPlus/MemoryCatalog.hpp"

// Listing folders and rewriting extents; lookups are in HFSPlusCatalogTest.

namespace {

constexpr const char* kInconsistent = "Catalog file is inconsistent.";
constexpr const char* kVolumeInconsistent = "Volume is inconsistent.";

// Folders

/// Notes what it is shown.
struct Listing : HFSPlusFolderDelegate {
  std::vector<std::string> shown;
  size_t stopAfter = SIZE_MAX;

  void iterateFolderWillStart() override { shown.push_back("start"); }
  Result<> iterateFolderFile(const DiskOrder<HFSPlusCatalogFile>& file,
                             const HFSPlusCatalogKeyView& key) override {
    return note("file", toHost(file).fileID, key);
  }
  Result<> iterateFolderFolder(const DiskOrder<HFSPlusCatalogFolder>& folder,
                               const HFSPlusCatalogKeyView& key) override {
    return note("folder", toHost(folder).folderID, key);
  }
  void iterateFolderDidFinish() override { shown.push_back("finish"); }

  Result<> note(const char* kind, uint32_t id, const HFSPlusCatalogKeyView& key) {
    std::string name;
    for (size_t unit = 0; unit < key.nameUnits.size(); unit += 2) {
      name += static_cast<char>(key.nameUnits[unit + 1]);
    }
    shown.push_back(LWFormat("%s %u %u %s", kind, key.parentID, id, name));
    if (shown.size() > stopAfter) {
      return std::unexpected(XRDefragError::withFormat("enough"));
    }
    return {};
  }
};

TEST(HFSPlusCatalog, ListsTheChildrenOfAFolderInOrder) {
  for (const size_t recordsPerLeaf : {1U, 2U, 100U}) {
    MemoryCatalog tree = smallTree();
    tree.recordsPerLeaf = recordsPerLeaf;
    tree.build();
    const auto catalog = tree.open();
    Listing root;
    ASSERT_TRUE(catalog->iterateFolderID(2, root));
    EXPECT_EQ(root.shown,
              (std::vector<std::string>{"start", "file 2 23 a/b", "folder 2 20 Documents",
                                        "file 2 24 zoo", "finish"}));
    Listing empty;
    ASSERT_TRUE(catalog->iterateFolderID(21, empty));
    EXPECT_EQ(empty.shown, (std::vector<std::string>{"start", "finish"}));
  }
}

TEST(HFSPlusCatalog, AFileOrAMissingFolderHasNoChildren) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  for (const uint32_t cnid : {22U, 99U}) {
    Listing listing;
    EXPECT_TRUE(catalog->iterateFolderID(cnid, listing));
    EXPECT_EQ(listing.shown, (std::vector<std::string>{"start", "finish"}));
  }
}

TEST(HFSPlusCatalog, AListingStopsWhenTheDelegateSaysSo) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  Listing listing;
  listing.stopAfter = 2;
  EXPECT_EQ(errorOf(catalog->iterateFolderID(2, listing)), "enough");
  EXPECT_EQ(listing.shown.size(), 4U);
  EXPECT_EQ(listing.shown.back(), "finish");
}

TEST(HFSPlusCatalog, AFolderMayComeLastInTheCatalog) {
  MemoryCatalog tree;
  tree.addFolder(kHFSRootParentID, u"Disk", 2);
  tree.addFolder(2, u"last", 20);
  tree.build();
  const auto catalog = tree.open();
  Listing listing;
  EXPECT_TRUE(catalog->iterateFolderID(20, listing));
  EXPECT_EQ(listing.shown, (std::vector<std::string>{"start", "finish"}));
}

TEST(HFSPlusCatalog, AListingThatRunsOutOfLeavesIsInconsistent) {
  MemoryCatalog tree = smallTree();
  tree.recordsPerLeaf = 1;
  tree.build();
  writeBigEndian(tree.node(tree.place(2, u"a/b").node).data(), uint32_t{0});
  Listing listing;
  EXPECT_EQ(errorOf(tree.open()->iterateFolderID(2, listing)), kInconsistent);
  EXPECT_EQ(listing.shown.back(), "finish");
}

TEST(HFSPlusCatalog, ALeafChainThatBitesItsTailIsInconsistent) {
  MemoryCatalog tree = smallTree();
  tree.recordsPerLeaf = 1;
  tree.build();
  const uint32_t zoo = tree.place(2, u"zoo").node;
  writeBigEndian(tree.node(zoo).data(), tree.place(2, u"a/b").node);
  Listing listing;
  EXPECT_EQ(errorOf(tree.open()->iterateFolderID(2, listing)), kInconsistent);
  EXPECT_EQ(listing.shown.back(), "finish");
}

TEST(HFSPlusCatalog, ALeafChainThatLeavesTheLeavesIsInconsistent) {
  MemoryCatalog tree = smallTree();
  tree.recordsPerLeaf = 1;
  tree.build();
  writeBigEndian(tree.node(tree.place(2, u"zoo").node).data(), tree.rootNode());
  Listing listing;
  EXPECT_EQ(errorOf(tree.open()->iterateFolderID(2, listing)), kInconsistent);
}

// Rewriting extents

constexpr HFSPlusExtentRecord kExtents = {
    {{10, 1}, {20, 2}, {30, 3}, {40, 4}, {50, 5}, {60, 6}, {70, 7}, {80, 8}}};

HFSPlusForkData forkOf(uint32_t startBlock) {
  HFSPlusForkData fork{};
  fork.logicalSize = 5000;
  fork.clumpSize = 77;
  fork.totalBlocks = 2;
  fork.extents[0] = {startBlock, 2};
  return fork;
}

TEST(HFSPlusCatalog, RewritesTheExtentsOfOneForkOnly) {
  for (const uint8_t forkType : {kHFSDataForkType, kHFSResourceForkType}) {
    for (const bool setZeroLength : {false, true}) {
      MemoryCatalog tree = smallTree();
      tree.addFile(20, u"target", 70, forkOf(100), forkOf(200));
      tree.build();
      const auto catalog = tree.open();
      ASSERT_TRUE(catalog->updateForkExtents(kExtents, 70, forkType, setZeroLength));
      const auto record = catalog->copyRecordForCNID(70);
      ASSERT_TRUE(record) << errorOf(record);
      const bool isData = forkType == kHFSDataForkType;
      const auto& fork = isData ? record->file().dataFork : record->file().resourceFork;
      const auto& other = isData ? record->file().resourceFork : record->file().dataFork;
      EXPECT_EQ(fork.extents, kExtents);
      EXPECT_EQ(fork.clumpSize, 77U);
      EXPECT_EQ(fork.logicalSize, setZeroLength ? 0U : 5000U);
      EXPECT_EQ(fork.totalBlocks, setZeroLength ? 0U : 2U);
      EXPECT_EQ(other.extents, forkOf(isData ? 200 : 100).extents);
      EXPECT_EQ(other.logicalSize, 5000U);
      EXPECT_EQ(record->file().fileID, 70U);
    }
  }
}

TEST(HFSPlusCatalog, RewrittenExtentsLeaveWithTheNextFlush) {
  MemoryCatalog tree = smallTree();
  tree.addFile(20, u"target", 70, forkOf(100));
  tree.build();
  const auto catalog = tree.open();
  ASSERT_TRUE(catalog->updateForkExtents(kExtents, 70, kHFSDataForkType, false));
  ASSERT_TRUE(catalog->flush());
  ASSERT_EQ(tree.heldWrites().pieces().size(), 1U);
  const auto& [key, bytes] = *tree.heldWrites().pieces().begin();
  const auto place = tree.place(20, u"target");
  EXPECT_EQ(key.offset, uint64_t{place.node} * tree.nodeSize);
  // The held node is the old one but for the eight extents.
  auto expected =
      std::vector<std::byte>(tree.node(place.node).begin(), tree.node(place.node).end());
  const auto start = tree.recordData(place).data() - tree.node(place.node).data() +
                     static_cast<ptrdiff_t>(offsetof(HFSPlusCatalogFile, dataFork) +
                                            offsetof(HFSPlusForkData, extents));
  std::ranges::copy(toDisk(kExtents).bytes, expected.begin() + start);
  EXPECT_EQ(bytes, expected);
}

TEST(HFSPlusCatalog, AnotherForkTypeIsRefusedBeforeAnythingIsRead) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  tree.takeBytesRead();
  EXPECT_EQ(errorOf(catalog->updateForkExtents(kExtents, 22, 1, false)), kVolumeInconsistent);
  EXPECT_EQ(tree.takeBytesRead(), 0U);
}

TEST(HFSPlusCatalog, RewritingAFolderIsRefused) {
  MemoryCatalog tree = smallTree();
  tree.build();
  EXPECT_EQ(errorOf(tree.open()->updateForkExtents(kExtents, 20, kHFSDataForkType, false)),
            kVolumeInconsistent);
}

TEST(HFSPlusCatalog, RewritingAFileThatIsMissingBetweenOthersChangesNothing) {
  MemoryCatalog tree = smallTree();
  tree.addThread(15, kHFSPlusFileThreadRecord, 2, u"gone");
  tree.build();
  const auto catalog = tree.open();
  EXPECT_TRUE(catalog->updateForkExtents(kExtents, 19, kHFSDataForkType, false));
  EXPECT_TRUE(catalog->updateForkExtents(kExtents, 15, kHFSDataForkType, false));
  ASSERT_TRUE(catalog->flush());
  EXPECT_TRUE(tree.heldWrites().empty());
}

TEST(HFSPlusCatalog, RewritingAFileThatWouldComeLastInItsLeafIsRefused) {
  MemoryCatalog tree = smallTree();
  tree.addThread(25, kHFSPlusFileThreadRecord, 90, u"gone");
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(errorOf(catalog->updateForkExtents(kExtents, 80, kHFSDataForkType, false)),
            kVolumeInconsistent);
  EXPECT_EQ(errorOf(catalog->updateForkExtents(kExtents, 25, kHFSDataForkType, false)),
            kVolumeInconsistent);
}

}  // namespace
