#include "HFSPlus/HFSPlusCatalog.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "LWKit/LWUnicode.hpp"
#include "support/doubles/TestRandom.hpp"
#include "unit/HFSPlus/MemoryCatalog.hpp"

namespace {

constexpr const char* kInconsistent = "Catalog file is inconsistent.";
constexpr const char* kVolumeInconsistent = "Volume is inconsistent.";
constexpr const char* kPathTooLong =
    "Unicode path conversion failed. A path component exceeded the maximum allowed length.";

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

TEST(HFSPlusCatalog, ARecordsNameIsComparedAsTheVolumeComparesNames) {
  for (const bool binaryNames : {false, true}) {
    MemoryCatalog tree = smallTree();
    tree.hfsx = tree.binaryNames = binaryNames;
    tree.build();
    const auto catalog = tree.open();
    const auto record = catalog->copyRecordForPath("/Documents/Letters");
    ASSERT_TRUE(record) << errorOf(record);
    EXPECT_TRUE(catalog->isNamed(*record, u"Letters"));
    EXPECT_EQ(catalog->isNamed(*record, u"lettERS"), !binaryNames);
    EXPECT_FALSE(catalog->isNamed(*record, u"Letter"));
    EXPECT_FALSE(catalog->isNamed(*record, u"Documents"));
  }
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

TEST(HFSPlusCatalog, ARecordOfATypeThatNobodyKnowsIsNoItem) {
  MemoryCatalog tree = smallTree();
  std::vector<std::byte> unknown(248);
  writeBigEndian(unknown.data(), int16_t{5});
  tree.addRecord(2, u"odd", unknown);
  tree.addThread(60, kHFSPlusFileThreadRecord, 2, u"odd");
  tree.build();
  const auto catalog = tree.open();
  for (const auto& record : {catalog->copyRecordForCNID(60), catalog->copyRecordForPath("/odd")}) {
    ASSERT_TRUE(record) << errorOf(record);
    EXPECT_EQ(record->type, 0);
  }
  HFSPlusFolderDelegate delegate;
  EXPECT_TRUE(catalog->iterateFolderID(2, delegate));
  EXPECT_EQ(errorOf(catalog->updateForkExtents({}, 60, kHFSDataForkType, false)),
            kVolumeInconsistent);
}

// Random trees

TEST(HFSPlusCatalog, FindsEverythingInRandomTreesOfManyLevels) {
  const auto seed = testSeed();
  SCOPED_TRACE(seedText(seed));
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

TEST(HFSPlusCatalog, RandomDamageEndsEveryOperationOneWayOrAnother) {
  const auto seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  size_t failures = 0;
  for (int round = 0; round < 3000; round++) {
    MemoryCatalog tree = smallTree();
    tree.recordsPerLeaf = 1 + random() % 3;
    tree.build();
    for (uint32_t hit = 1 + random() % 8; hit > 0; hit--) {
      // Mostly where links, counts, keys and offsets are.
      const auto node = tree.node(1 + static_cast<uint32_t>(random()) % (tree.totalNodes() - 1));
      const size_t at = random() % 3 == 0 ? node.size() - 1 - random() % 16 : random() % 60;
      node[at] = random() % 2 == 0 ? static_cast<std::byte>(random() % 16)
                                   : static_cast<std::byte>(random());
    }
    const auto catalog = tree.open();
    HFSPlusFolderDelegate delegate;
    for (const uint32_t cnid : {2U, 20U, 22U, 24U}) {
      failures += catalog->copyRecordForCNID(cnid) ? 0 : 1;
      failures += catalog->copyPathForCNID(cnid) ? 0 : 1;
      failures += catalog->iterateFolderID(cnid, delegate) ? 0 : 1;
      failures += catalog->updateForkExtents({}, cnid, kHFSDataForkType, true) ? 0 : 1;
    }
    failures += catalog->copyRecordForPath("/Documents/note") ? 0 : 1;
    failures += catalog->copyRecordForPath("/a:b") ? 0 : 1;
  }
  EXPECT_GT(failures, 1000U);
}

}  // namespace

TEST(HFSPlusCatalog, AFileThatWasFoundIsFoundAgainInOneNode) {
  MemoryCatalog tree = smallTree();
  tree.recordsPerLeaf = 1;
  tree.recordsPerIndexNode = 2;
  tree.build();
  const auto catalog = tree.open();
  const auto bytesToFind = [&] {
    EXPECT_TRUE(catalog->discardChanges());
    tree.takeBytesRead();
    EXPECT_EQ(catalog->copyRecordForCNID(22)->file().fileID, 22U);
    return tree.takeBytesRead();
  };
  EXPECT_GT(bytesToFind(), tree.nodeSize);
  EXPECT_EQ(bytesToFind(), tree.nodeSize);
}

TEST(HFSPlusCatalog, APlaceWhereTheFileIsNoLongerIsForgotten) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  ASSERT_EQ(catalog->copyRecordForCNID(22)->file().fileID, 22U);
  // The thread leads to another file's record now.
  writeBigEndian(tree.recordData(20, u"note").data() + offsetof(HFSPlusCatalogFile, fileID),
                 uint32_t{99});
  ASSERT_TRUE(catalog->discardChanges());
  EXPECT_EQ(catalog->copyRecordForCNID(22)->file().fileID, 99U);
  EXPECT_EQ(catalog->copyRecordForCNID(22)->file().fileID, 99U);
}

TEST(HFSPlusCatalog, APlaceWithoutTheFoldersThreadIsForgotten) {
  MemoryCatalog tree = smallTree();
  tree.build();
  const auto catalog = tree.open();
  const auto place = tree.place(21, u"");
  const auto leaf = catalog->cachedNodeWithIndex(place.node).value();
  for (uint32_t record = 0; record <= leaf->recordCount(); record++) {
    catalog->places().add(21, {place.node, record});
    EXPECT_EQ(catalog->copyPathForCNID(21).value(), "/Documents/Letters") << record;
  }
}
