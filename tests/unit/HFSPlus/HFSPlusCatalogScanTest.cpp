#include "HFSPlus/HFSPlusCatalogScan.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <thread>

#include "LWKit/LWToolTask.hpp"
#include "unit/HFSPlus/MemoryCatalog.hpp"

namespace {

using Method = HFSPlusCatalogScanMethod;

constexpr const char* kInconsistent = "Catalog file is inconsistent.";

/// Notes the IDs that it is shown.
struct Shown : HFSPlusCatalogScanDelegate {
  std::vector<uint32_t> ids;
  int started = 0;
  int finished = 0;
  std::function<Result<>()> onFile;
  bool wantsPaths = false;

  bool asksForPaths() const override { return wantsPaths; }
  void scanCatalogFilesWillStart() override {
    EXPECT_TRUE(ids.empty());
    started++;
  }
  Result<> scanCatalogFile(const DiskOrder<HFSPlusCatalogFile>& file,
                           const HFSPlusCatalogKeyView& key) override {
    EXPECT_EQ(started, 1);
    EXPECT_EQ(finished, 0);
    EXPECT_EQ(key.parentID, 2U);
    ids.push_back(toHost(file).fileID);
    return onFile ? onFile() : Result<>();
  }
  void scanCatalogFilesDidFinish() override { finished++; }
};

/// Files 16 to 15 + count and as many folders in the root folder, a record to a leaf.
MemoryCatalog treeOfFiles(uint32_t count) {
  MemoryCatalog tree;
  tree.recordsPerLeaf = 1;
  tree.addFolder(kHFSRootParentID, u"Disk", 2);
  for (uint32_t index = 0; index < count; index++) {
    const std::u16string name = {static_cast<char16_t>(u'a' + index)};
    tree.addFile(2, name, 16 + index);
    tree.addFolder(2, name + u"folder", 100 + index);
  }
  return tree;
}

/// A task whose work is the test's.
class TestTask : public LWToolTask {
 public:
  explicit TestTask(std::function<void()> work) : _work(std::move(work)) { setName("TEST"); }

  static void run(std::function<void()> work) {
    const auto task = std::make_shared<TestTask>(std::move(work));
    ASSERT_TRUE(task->start());
    task->join();
  }

 private:
  void runTask() override { _work(); }
  std::function<void()> _work;
};

TEST(HFSPlusCatalogScan, SparseBeginsAboveFiveNodesAUsedNode) {
  EXPECT_EQ(HFSPlusCatalogScanMethodFor(1000, 100), Method::Bulk);
  EXPECT_EQ(HFSPlusCatalogScanMethodFor(1000, 900), Method::Sparse);
  EXPECT_EQ(HFSPlusCatalogScanMethodFor(1000, 800), Method::Bulk);
  EXPECT_EQ(HFSPlusCatalogScanMethodFor(1000, 801), Method::Sparse);
  EXPECT_EQ(HFSPlusCatalogScanMethodFor(1000, 1000), Method::Sparse);
  EXPECT_EQ(HFSPlusCatalogScanMethodFor(0, 0), Method::Sparse);
}

TEST(HFSPlusCatalogScan, ShowsEveryFileOnceAndNothingElse) {
  for (const uint32_t freeNodes : {0U, 1000U}) {
    MemoryCatalog tree = treeOfFiles(10);
    tree.freeNodes = freeNodes;
    tree.build();
    Shown shown;
    EXPECT_EQ(errorOf(HFSPlusScanCatalogFiles(*tree.open(), shown)), "no error");
    EXPECT_EQ(shown.ids, (std::vector<uint32_t>{16, 17, 18, 19, 20, 21, 22, 23, 24, 25}));
    EXPECT_EQ(shown.started, 1);
    EXPECT_EQ(shown.finished, 1);
  }
}

TEST(HFSPlusCatalogScan, BulkFollowsTheDiskAndSparseTheLeaves) {
  for (const uint32_t freeNodes : {0U, 1000U}) {
    MemoryCatalog tree = treeOfFiles(3);
    tree.leavesBackward = true;
    tree.freeNodes = freeNodes;
    tree.build();
    Shown shown;
    EXPECT_EQ(errorOf(HFSPlusScanCatalogFiles(*tree.open(), shown)), "no error");
    EXPECT_EQ(shown.ids, freeNodes == 0 ? (std::vector<uint32_t>{18, 17, 16})
                                        : (std::vector<uint32_t>{16, 17, 18}));
  }
}

TEST(HFSPlusCatalogScan, FoldersThatItCameByAreFoundInOneNode) {
  MemoryCatalog tree = treeOfFiles(8);
  tree.recordsPerIndexNode = 2;
  tree.build();
  const auto catalog = tree.open();
  const auto bytesToFind = [&] {
    EXPECT_TRUE(catalog->discardChanges());
    tree.takeBytesRead();
    EXPECT_EQ(catalog->copyPathForCNID(103).value(), "/dfolder");
    return tree.takeBytesRead();
  };
  Shown shown;
  ASSERT_TRUE(HFSPlusScanCatalogFiles(*catalog, shown));
  EXPECT_GT(bytesToFind(), 2 * tree.nodeSize);
  shown = {};
  shown.wantsPaths = true;
  ASSERT_TRUE(HFSPlusScanCatalogFiles(*catalog, shown));
  EXPECT_EQ(bytesToFind(), tree.nodeSize);
}

TEST(HFSPlusCatalogScan, SparseReadsNoFreeNodes) {
  MemoryCatalog tree = treeOfFiles(3);
  tree.freeNodes = 2000;
  tree.build();
  const auto catalog = tree.open();
  tree.takeBytesRead();
  Shown shown;
  EXPECT_EQ(errorOf(HFSPlusScanCatalogFiles(*catalog, shown)), "no error");
  EXPECT_LE(tree.takeBytesRead(), 20U * tree.nodeSize);
}

TEST(HFSPlusCatalogScan, BulkPassesOverFilesInFreeNodes) {
  MemoryCatalog tree = treeOfFiles(2);
  tree.freeNodes = 3;
  tree.build();
  std::ranges::copy(tree.node(tree.place(2, u"a").node), tree.node(tree.totalNodes() - 1).begin());
  Shown shown;
  EXPECT_EQ(errorOf(HFSPlusScanCatalogFiles(*tree.open(), shown)), "no error");
  EXPECT_EQ(shown.ids, (std::vector<uint32_t>{16, 17}));
}

TEST(HFSPlusCatalogScan, AnEmptyCatalogShowsNothing) {
  MemoryCatalog tree;
  tree.build();
  Shown shown;
  EXPECT_EQ(errorOf(HFSPlusScanCatalogFiles(*tree.open(), shown)), "no error");
  EXPECT_TRUE(shown.ids.empty());
  EXPECT_EQ(shown.finished, 1);
}

TEST(HFSPlusCatalogScan, TheDelegatesErrorEndsTheScan) {
  for (const uint32_t freeNodes : {0U, 1000U}) {
    MemoryCatalog tree = treeOfFiles(5);
    tree.freeNodes = freeNodes;
    tree.build();
    Shown shown;
    shown.onFile = [&]() -> Result<> {
      if (shown.ids.size() == 2) {
        return std::unexpected(XRDefragError::withFormat("enough"));
      }
      return {};
    };
    EXPECT_EQ(errorOf(HFSPlusScanCatalogFiles(*tree.open(), shown)), "enough");
    EXPECT_EQ(shown.ids, (std::vector<uint32_t>{16, 17}));
    EXPECT_EQ(shown.finished, 1);
  }
}

TEST(HFSPlusCatalogScan, ACancelledTasksScanEndsAsCancelledAndStillFinishes) {
  for (const uint32_t freeNodes : {0U, 1000U}) {
    MemoryCatalog tree = treeOfFiles(5);
    tree.freeNodes = freeNodes;
    tree.build();
    TestTask::run([&] {
      LWToolTask::currentToolTask()->abort();
      Shown shown;
      const auto outcome = HFSPlusScanCatalogFiles(*tree.open(), shown);
      ASSERT_FALSE(outcome);
      EXPECT_TRUE(outcome.error().isUserCancelled());
      EXPECT_TRUE(shown.ids.empty());
      EXPECT_EQ(shown.started, 1);
      EXPECT_EQ(shown.finished, 1);
    });
  }
}

TEST(HFSPlusCatalogScan, ACancelledScanEndsBeforeTheNextNode) {
  for (const uint32_t freeNodes : {0U, 1000U}) {
    MemoryCatalog tree = treeOfFiles(6);
    tree.recordsPerLeaf = 5;
    tree.nodeSize = 4096;
    tree.freeNodes = freeNodes;
    tree.build();
    // The first leaf holds the root folder, its thread, and one or two files.
    const uint32_t firstLeaf = tree.place(2, u"a").node;
    uint32_t filesOfFirstLeaf = 0;
    for (char16_t name = u'a'; name < u'a' + 6; name++) {
      filesOfFirstLeaf += tree.place(2, {name}).node == firstLeaf ? 1 : 0;
    }
    TestTask::run([&] {
      Shown shown;
      shown.onFile = []() -> Result<> {
        LWToolTask::currentToolTask()->abort();
        return {};
      };
      const auto outcome = HFSPlusScanCatalogFiles(*tree.open(), shown);
      ASSERT_FALSE(outcome);
      EXPECT_TRUE(outcome.error().isUserCancelled());
      EXPECT_EQ(shown.ids.size(), filesOfFirstLeaf);
    });
  }
}

TEST(HFSPlusCatalogScan, ALeafChainThatBitesItsTailIsInconsistent) {
  MemoryCatalog tree = treeOfFiles(3);
  tree.freeNodes = 100;
  tree.build();
  writeBigEndian(tree.node(tree.place(2, u"b").node).data(), tree.firstLeaf());
  Shown shown;
  EXPECT_EQ(errorOf(HFSPlusScanCatalogFiles(*tree.open(), shown)), kInconsistent);
  EXPECT_EQ(shown.finished, 1);
}

TEST(HFSPlusCatalogScan, ALeafChainThatLeavesTheLeavesIsInconsistent) {
  MemoryCatalog tree = treeOfFiles(3);
  tree.freeNodes = 100;
  tree.build();
  writeBigEndian(tree.node(tree.place(2, u"b").node).data(), tree.rootNode());
  Shown shown;
  EXPECT_EQ(errorOf(HFSPlusScanCatalogFiles(*tree.open(), shown)), kInconsistent);
  EXPECT_EQ(shown.ids, (std::vector<uint32_t>{16, 17}));
}

TEST(HFSPlusCatalogScan, BrokenRecordsAreInconsistent) {
  for (const uint32_t freeNodes : {0U, 1000U}) {
    MemoryCatalog keys = treeOfFiles(3);
    keys.freeNodes = freeNodes;
    keys.build();
    writeBigEndian(keys.record(keys.place(2, u"b")).data(), uint16_t{0xFFFE});
    Shown shown;
    EXPECT_EQ(errorOf(HFSPlusScanCatalogFiles(*keys.open(), shown)), kInconsistent);
    EXPECT_EQ(shown.ids, (std::vector<uint32_t>{16}));
    EXPECT_EQ(shown.finished, 1);

    MemoryCatalog types = treeOfFiles(3);
    types.freeNodes = freeNodes;
    types.build();
    writeBigEndian(types.recordData(2, u"bfolder").data(), kHFSPlusFileRecord);
    Shown more;
    EXPECT_EQ(errorOf(HFSPlusScanCatalogFiles(*types.open(), more)), kInconsistent);
    EXPECT_EQ(more.ids, (std::vector<uint32_t>{16, 17}));
  }
}

/// What a piece of work logs at the debug level, run in a process of its own, since the level is
/// read once a process.
TEST(HFSPlusCatalogScanDeathTest, AThreadTellsOnceHowItScans) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  MemoryCatalog tree = treeOfFiles(3);
  tree.build();
  const auto scanTwice = [&] {
    ::setenv("LWDebugLevel", "DEBUG", 1);
    const auto catalog = tree.open();
    for (int scan = 0; scan < 2; scan++) {
      Shown shown;
      (void)HFSPlusScanCatalogFiles(*catalog, shown);
      std::fprintf(stderr, "scanned\n");
    }
  };
  EXPECT_EXIT(
      {
        TestTask::run(scanTwice);
        std::exit(0);
      },
      testing::ExitedWithCode(0),
      "TEST,DEBUG,Catalog total vs used node ratio is 1\\.0\n.*"
      "TEST,DEBUG,Catalog cache size is 32MiB\n.*"
      "TEST,DEBUG,Catalog file size is [0-9.]+KiB\n.*"
      "TEST,DEBUG,Catalog scan using bulk method\nscanned\nscanned\n$");
}

}  // namespace
