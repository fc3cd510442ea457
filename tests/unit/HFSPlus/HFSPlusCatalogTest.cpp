#include "HFSPlus/HFSPlusCatalog.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "LWKit/LWUnicode.hpp"
#include "unit/HFSPlus/MemoryCatalog.hpp"

namespace {

constexpr const char* kInconsistent = "Catalog file is inconsistent.";
constexpr const char* kVolumeInconsistent = "Volume is inconsistent.";
constexpr const char* kPathTooLong =
    "Unicode path conversion failed. A path component exceeded the maximum allowed length.";

template <typename T>
std::string errorOf(const Result<T>& result) {
  return result ? "no error" : result.error().description();
}

/// ID of the item at a path, 0 for none; a failure fails the test.
uint32_t idAt(HFSPlusCatalog& catalog, std::string_view path) {
  const auto record = catalog.copyRecordForPath(path);
  EXPECT_TRUE(record) << errorOf(record);
  return record ? record->itemID() : 0;
}

std::string pathOf(HFSPlusCatalog& catalog, uint32_t cnid) {
  const auto path = catalog.copyPathForCNID(cnid);
  EXPECT_TRUE(path) << errorOf(path);
  return path ? path->value_or("nothing") : "";
}

std::u16string nameOf(const HFSPlusCatalogKey& key) {
  std::u16string name;
  for (size_t unit = 0; unit < key.nodeName.length; unit++) {
    name += char16_t{key.nodeName.unicode[unit]};
  }
  return name;
}

/// The root folder, "/Documents" (20) with "Letters" (21), "note" (22) and "a/b" (23), and "/zoo"
/// (24).
MemoryCatalog smallTree() {
  MemoryCatalog tree;
  tree.addFolder(kHFSRootParentID, u"Disk", kHFSRootFolderID);
  tree.addFolder(2, u"Documents", 20);
  tree.addFolder(20, u"Letters", 21);
  tree.addFile(20, u"note", 22);
  tree.addFile(2, u"a/b", 23);
  tree.addFile(2, u"zoo", 24);
  return tree;
}

TEST(HFSPlusCatalog, FindsFilesAndFoldersByID) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  const auto file = catalog->copyRecordForCNID(22);
  ASSERT_TRUE(file) << errorOf(file);
  EXPECT_EQ(file->type, kHFSPlusFileRecord);
  EXPECT_EQ(file->file().fileID, 22U);
  EXPECT_EQ(file->key.parentID, 20U);
  EXPECT_EQ(nameOf(file->key), u"note");
  EXPECT_EQ(file->key.keyLength, 14U);
  const auto root = catalog->copyRecordForCNID(kHFSRootFolderID);
  ASSERT_TRUE(root) << errorOf(root);
  EXPECT_EQ(root->type, kHFSPlusFolderRecord);
  EXPECT_EQ(root->folder().folderID, 2U);
  EXPECT_EQ(nameOf(root->key), u"Disk");
}

TEST(HFSPlusCatalog, FindsNothingForAnIDWithoutThreadOrRecord) {
  MemoryCatalog tree = smallTree();
  tree.addThread(30, kHFSPlusFileThreadRecord, 20, u"gone");
  tree.build();
  const auto catalog = tree.open();
  for (const uint32_t cnid : {30U, 31U, 1U, 0U, UINT32_MAX}) {
    const auto record = catalog->copyRecordForCNID(cnid);
    ASSERT_TRUE(record) << errorOf(record);
    EXPECT_EQ(record->type, 0) << cnid;
    EXPECT_EQ(record->itemID(), 0U);
  }
}

TEST(HFSPlusCatalog, BuildsPathsFromTheRootFolderDown) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(pathOf(*catalog, 22), "/Documents/note");
  EXPECT_EQ(pathOf(*catalog, 21), "/Documents/Letters");
  EXPECT_EQ(pathOf(*catalog, 24), "/zoo");
  EXPECT_EQ(pathOf(*catalog, 1), "");
  EXPECT_EQ(pathOf(*catalog, 2), "");
}

TEST(HFSPlusCatalog, SpecialFilesHaveFixedTextsAndReadNothing) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  tree.takeBytesRead();
  EXPECT_EQ(pathOf(*catalog, 3), "(HFS+ Extents File)");
  EXPECT_EQ(pathOf(*catalog, 4), "(HFS+ Catalog File)");
  EXPECT_EQ(pathOf(*catalog, 5), "(HFS+ Bad Block File)");
  EXPECT_EQ(pathOf(*catalog, 6), "(HFS+ Allocation File)");
  EXPECT_EQ(pathOf(*catalog, 7), "(HFS+ Startup File)");
  EXPECT_EQ(pathOf(*catalog, 8), "(HFS+ Attributes File)");
  EXPECT_EQ(tree.takeBytesRead(), 0U);
}

TEST(HFSPlusCatalog, AnItemOrParentWithoutThreadHasNoPath) {
  MemoryCatalog tree = smallTree();
  tree.addThread(40, kHFSPlusFileThreadRecord, 41, u"orphan");
  tree.build();
  const auto catalog = tree.open();
  for (const uint32_t cnid : {40U, 99U}) {
    const auto path = catalog->copyPathForCNID(cnid);
    ASSERT_TRUE(path) << errorOf(path);
    EXPECT_FALSE(path->has_value());
  }
}

TEST(HFSPlusCatalog, ASlashInANameIsAColonInItsPathAndBack) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(pathOf(*catalog, 23), "/a:b");
  const auto record = catalog->copyRecordForPath("/a:b");
  ASSERT_TRUE(record) << errorOf(record);
  EXPECT_EQ(record->itemID(), 23U);
  EXPECT_EQ(nameOf(record->key), u"a/b");
}

TEST(HFSPlusCatalog, FindsItemsByPath) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(idAt(*catalog, "/Documents/note"), 22U);
  EXPECT_EQ(idAt(*catalog, "Documents//note/"), 22U);
  EXPECT_EQ(idAt(*catalog, "/DOCUMENTS/Note"), 22U);
  EXPECT_EQ(idAt(*catalog, "/Documents/Letters"), 21U);
  EXPECT_EQ(idAt(*catalog, ""), 0U);
  EXPECT_EQ(idAt(*catalog, "///"), 0U);
}

TEST(HFSPlusCatalog, AMissingFirstComponentFindsNothing) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(idAt(*catalog, "/nowhere/note"), 0U);
  EXPECT_EQ(idAt(*catalog, "/b:a"), 0U);
}

TEST(HFSPlusCatalog, AMissingLaterComponentLeavesTheDeepestOneFound) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(idAt(*catalog, "/Documents/Letters/x/y"), 21U);
  EXPECT_EQ(idAt(*catalog, "/Documents/note/below"), 22U);
  EXPECT_EQ(idAt(*catalog, "/Documents/x/note"), 20U);
}

TEST(HFSPlusCatalog, AMissingLaterComponentWithAColonLeavesNothing) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(idAt(*catalog, "/Documents/x:y"), 0U);
}

TEST(HFSPlusCatalog, BinaryOrderTellsNamesApartByCase) {
  MemoryCatalog tree;
  tree.hfsx = tree.binaryNames = true;
  tree.addFolder(kHFSRootParentID, u"Disk", 2);
  tree.addFile(2, u"A", 16);
  tree.addFile(2, u"a", 17);
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(idAt(*catalog, "/A"), 16U);
  EXPECT_EQ(idAt(*catalog, "/a"), 17U);
  EXPECT_LT(catalog->compare(keyView(2, diskName(u"A")), keyView(2, diskName(u"a"))), 0);
}

TEST(HFSPlusCatalog, WithoutTheSignatureOfHFSXNamesFoldWhateverTheHeaderRecordSays) {
  MemoryCatalog tree = smallTree();
  tree.build();
  tree.node(0)[sizeof(BTNodeDescriptor) + offsetof(BTHeaderRec, keyCompareType)] =
      std::byte{kHFSBinaryCompare};
  const auto catalog = tree.open();
  EXPECT_EQ(idAt(*catalog, "/ZOO"), 24U);
  EXPECT_EQ(catalog->compare(keyView(2, diskName(u"A")), keyView(2, diskName(u"a"))), 0);
}

TEST(HFSPlusCatalog, HFSXWithCaseFoldingTakesBothCasesForTheSame) {
  MemoryCatalog tree = smallTree();
  tree.hfsx = true;
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(idAt(*catalog, "/ZOO"), 24U);
}

TEST(HFSPlusCatalog, KeysOrderByParentFirst) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  const auto a = diskName(u"a");
  const auto z = diskName(u"z");
  EXPECT_LT(catalog->compare(keyView(2, z), keyView(3, a)), 0);
  EXPECT_GT(catalog->compare(keyView(0x80000000, a), keyView(3, z)), 0);
  EXPECT_EQ(catalog->compare(keyView(7, a), keyView(7, a)), 0);
  EXPECT_LT(catalog->compare(keyView(7, {}), keyView(7, a)), 0);
}

TEST(HFSPlusCatalog, ComposedTextFindsDecomposedNames) {
  MemoryCatalog tree;
  tree.addFolder(kHFSRootParentID, u"Disk", 2);
  tree.addFile(2, u"e\u0301te\u0301", 16);
  tree.addFile(2, u"\u1112\u1161\u11AB", 17);
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(idAt(*catalog, "/\u00E9t\u00E9"), 16U);
  EXPECT_EQ(idAt(*catalog, "/\uD55C"), 17U);
  EXPECT_EQ(pathOf(*catalog, 16), "/e\u0301te\u0301");
}

TEST(HFSPlusCatalog, AComponentOf256UnitsIsTooLong) {
  MemoryCatalog tree;
  tree.nodeSize = 4096;
  tree.addFolder(kHFSRootParentID, u"Disk", 2);
  tree.addFile(2, std::u16string(255, u'x'), 16);
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(idAt(*catalog, "/" + std::string(255, 'x')), 16U);
  EXPECT_EQ(errorOf(catalog->copyRecordForPath("/" + std::string(256, 'x'))), kPathTooLong);
}

TEST(HFSPlusCatalog, AComponentThatCannotBeANameSaysWhy) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  std::string composed = "/";
  for (int letter = 0; letter < 200; letter++) {
    composed += "\u00E9";
  }
  EXPECT_EQ(errorOf(catalog->copyRecordForPath(composed)),
            "Unicode path conversion failed. An error 36 occurred.");
  EXPECT_EQ(errorOf(catalog->copyRecordForPath("/a\xFF")),
            "Unicode path conversion failed. An error 84 occurred.");
}

/// A chain of folders 100, 101, … with names of the given lengths.
MemoryCatalog chainOfFolders(std::initializer_list<size_t> nameLengths) {
  MemoryCatalog tree;
  tree.nodeSize = 4096;
  tree.addFolder(kHFSRootParentID, u"Disk", 2);
  uint32_t id = 100;
  uint32_t parent = 2;
  for (const size_t length : nameLengths) {
    tree.addFolder(parent, std::u16string(length, u'n'), id);
    parent = id++;
  }
  tree.build();
  return tree;
}

TEST(HFSPlusCatalog, APathOf1023UnitsIsTheLongest) {
  MemoryCatalog fits = chainOfFolders({255, 255, 255, 254});
  EXPECT_EQ(pathOf(*fits.open(), 103).size(), 1023U);
  MemoryCatalog tooLong = chainOfFolders({255, 255, 255, 255});
  const auto catalog = tooLong.open();
  EXPECT_EQ(errorOf(catalog->copyPathForCNID(103)), kPathTooLong);
  EXPECT_EQ(pathOf(*catalog, 102).size(), 768U);
}

TEST(HFSPlusCatalog, ParentsThatGoInCirclesAreInconsistent) {
  MemoryCatalog tree = smallTree();
  tree.addFolder(51, u"one", 50);
  tree.addFolder(50, u"two", 51);
  tree.addFolder(52, u"own", 52);
  tree.build();
  const auto catalog = tree.open();
  EXPECT_EQ(errorOf(catalog->copyPathForCNID(50)), kInconsistent);
  EXPECT_EQ(errorOf(catalog->copyPathForCNID(51)), kInconsistent);
  EXPECT_EQ(errorOf(catalog->copyPathForCNID(52)), kInconsistent);
}

// Damaged trees

/// Every operation that descends the tree.
void expectEveryLookupToFail(HFSPlusCatalog& catalog, const char* message) {
  HFSPlusFolderDelegate delegate;
  EXPECT_EQ(errorOf(catalog.copyRecordForCNID(22)), message);
  EXPECT_EQ(errorOf(catalog.copyRecordForPath("/Documents")), message);
  EXPECT_EQ(errorOf(catalog.copyPathForCNID(22)), message);
  EXPECT_EQ(errorOf(catalog.iterateFolderID(22, delegate)), message);
  EXPECT_EQ(errorOf(catalog.updateForkExtents({}, 22, kHFSDataForkType, false)), message);
}

TEST(HFSPlusCatalog, ATreeWithoutRootIsInconsistent) {
  MemoryCatalog tree;
  tree.build();
  expectEveryLookupToFail(*tree.open(), kInconsistent);
}

TEST(HFSPlusCatalog, ANodeThatIsNeitherIndexNorLeafIsInconsistent) {
  MemoryCatalog tree = smallTree();
  tree.recordsPerLeaf = 100;
  tree.build();
  for (uint32_t node = 1; node < tree.totalNodes(); node++) {
    tree.node(node)[8] = std::byte{2};
  }
  expectEveryLookupToFail(*tree.open(), kInconsistent);
}

TEST(HFSPlusCatalog, AnIndexNodeBelowItselfIsInconsistent) {
  MemoryCatalog tree = smallTree();
  tree.recordsPerLeaf = 1;
  tree.build();
  const auto root = tree.node(tree.rootNode());
  for (uint32_t record = 0; record < readBigEndian<uint16_t>(&root[10]); record++) {
    writeBigEndian(tree.recordData({tree.rootNode(), record}).data(), tree.rootNode());
  }
  expectEveryLookupToFail(*tree.open(), kInconsistent);
}

TEST(HFSPlusCatalog, AnIndexNodeWithoutRecordsIsInconsistent) {
  MemoryCatalog tree = smallTree();
  tree.recordsPerLeaf = 1;
  tree.build();
  const auto root = tree.node(tree.rootNode());
  writeBigEndian(&root[10], uint16_t{0});
  writeBigEndian(&root[tree.nodeSize - 2], uint16_t{14});
  expectEveryLookupToFail(*tree.open(), kInconsistent);
}

TEST(HFSPlusCatalog, AChildBeyondTheFileIsOutOfRange) {
  MemoryCatalog tree = smallTree();
  tree.recordsPerLeaf = 1;
  tree.build();
  const auto root = tree.node(tree.rootNode());
  for (uint32_t record = 0; record < readBigEndian<uint16_t>(&root[10]); record++) {
    writeBigEndian(tree.recordData({tree.rootNode(), record}).data(), uint32_t{0xFFFFFFF0});
  }
  expectEveryLookupToFail(*tree.open(), "B-Tree node 4294967280 is out of range.");
}

/// What may be wrong with a key.
struct KeyDamage {
  const char* what;
  size_t offset;
  uint16_t value;
};

class HFSPlusCatalogKeys : public testing::TestWithParam<KeyDamage> {};

TEST_P(HFSPlusCatalogKeys, BrokenKeysAreInconsistent) {
  MemoryCatalog tree = smallTree();
  tree.recordsPerLeaf = 100;
  tree.nodeSize = 4096;
  tree.build();
  for (uint32_t record = 0; record < 12; record++) {
    writeBigEndian(tree.record({tree.firstLeaf(), record}).subspan(GetParam().offset).data(),
                   GetParam().value);
  }
  expectEveryLookupToFail(*tree.open(), kInconsistent);
}

INSTANTIATE_TEST_SUITE_P(
    Each, HFSPlusCatalogKeys,
    testing::Values(KeyDamage{"LengthZero", 0, 0}, KeyDamage{"TooShort", 0, 4},
                    KeyDamage{"Odd", 0, 9}, KeyDamage{"BeyondTheRecord", 0, 514},
                    KeyDamage{"BeyondTheNode", 0, 0xFFFE}, KeyDamage{"NameBeyondTheKey", 6, 200},
                    KeyDamage{"NameTooLong", 6, 256}, KeyDamage{"NameLengthWraps", 6, 0x8000}),
    [](const auto& test) { return std::string(test.param.what); });

TEST(HFSPlusCatalog, AThreadWithoutAWholeNameIsInconsistent) {
  MemoryCatalog tree = smallTree();
  tree.build();
  writeBigEndian(tree.recordData(22, u"").subspan(8).data(), uint16_t{5});
  const auto catalog = tree.open();
  EXPECT_EQ(errorOf(catalog->copyRecordForCNID(22)), kInconsistent);
  EXPECT_EQ(errorOf(catalog->copyPathForCNID(22)), kInconsistent);
  EXPECT_EQ(errorOf(catalog->updateForkExtents({}, 22, kHFSDataForkType, false)), kInconsistent);
}

TEST(HFSPlusCatalog, ARecordTooShortForItsTypeIsInconsistent) {
  MemoryCatalog tree = smallTree();
  std::vector<std::byte> stub(20);
  writeBigEndian(stub.data(), kHFSPlusFileRecord);
  tree.addRecord(2, u"stub", stub);
  tree.addThread(60, kHFSPlusFileThreadRecord, 2, u"stub");
  writeBigEndian(stub.data(), kHFSPlusFolderRecord);
  tree.addRecord(2, u"stump", stub);
  tree.build();
  const auto catalog = tree.open();
  HFSPlusFolderDelegate delegate;
  EXPECT_EQ(errorOf(catalog->copyRecordForCNID(60)), kInconsistent);
  EXPECT_EQ(errorOf(catalog->copyRecordForPath("/stub")), kInconsistent);
  EXPECT_EQ(errorOf(catalog->copyRecordForPath("/stump")), kInconsistent);
  EXPECT_EQ(errorOf(catalog->iterateFolderID(2, delegate)), kInconsistent);
  EXPECT_EQ(errorOf(catalog->updateForkExtents({}, 60, kHFSDataForkType, false)),
            kVolumeInconsistent);
}

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

TEST(HFSPlusCatalog, AListingThatRunsOutOfLeavesIsInconsistent) {
  MemoryCatalog tree;
  tree.addFolder(kHFSRootParentID, u"Disk", 2);
  tree.addFolder(2, u"last", 20);
  tree.build();
  const auto catalog = tree.open();
  Listing listing;
  EXPECT_EQ(errorOf(catalog->iterateFolderID(20, listing)), kInconsistent);
  EXPECT_EQ(listing.shown, (std::vector<std::string>{"start", "finish"}));
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

// Random trees

TEST(HFSPlusCatalog, FindsEverythingInRandomTreesOfManyLevels) {
  const auto seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 40; round++) {
    MemoryCatalog tree;
    tree.recordsPerLeaf = 1 + random() % 4;
    tree.recordsPerIndexNode = 2 + random() % 4;
    tree.hfsx = tree.binaryNames = random() % 2 == 0;
    tree.addFolder(kHFSRootParentID, u"Disk", 2);
    std::vector<uint32_t> folders = {2};
    std::map<uint32_t, std::string> paths = {{2, ""}};
    std::set<uint32_t> files;
    for (uint32_t id = 16; id < 16 + 1 + random() % 200; id++) {
      const uint32_t parent = folders[random() % folders.size()];
      const std::string name = std::to_string(id % 7) + "Name" + std::to_string(id);
      paths[id] = paths[parent] + "/" + name;
      if (random() % 4 == 0) {
        tree.addFolder(parent, *LWUTF16FromUTF8(name), id);
        folders.push_back(id);
      } else {
        tree.addFile(parent, *LWUTF16FromUTF8(name), id);
        files.insert(id);
      }
    }
    tree.build();
    const auto catalog = tree.open();
    for (const auto& [id, path] : paths) {
      ASSERT_EQ(pathOf(*catalog, id), path);
      const auto record = catalog->copyRecordForCNID(id);
      ASSERT_TRUE(record) << errorOf(record);
      ASSERT_EQ(record->itemID(), id);
      ASSERT_EQ(record->isFile(), files.contains(id));
      if (id != 2) {
        ASSERT_EQ(idAt(*catalog, path), id);
      }
      ASSERT_EQ(catalog->copyRecordForCNID(id + 1000)->type, 0);
    }
  }
}

}  // namespace
