#include "HFSPlus/HFSPlusAttributes.hpp"

#include <gtest/gtest.h>

#include "unit/HFSPlus/MemoryCatalog.hpp"
#include "unit/HFSPlus/MemoryTree.hpp"

namespace {

constexpr uint32_t kNodes = 8;

int32_t compare(uint32_t fileA, const char16_t* nameA, uint32_t blockA, uint32_t fileB,
                const char16_t* nameB, uint32_t blockB) {
  const std::vector<std::byte> unitsA = diskName(nameA);
  const std::vector<std::byte> unitsB = diskName(nameB);
  return HFSPlusAttributes::compare({fileA, blockA, unitsA}, {fileB, blockB, unitsB});
}

}  // namespace

TEST(HFSPlusAttributes, KeysAreOrderedByFileThenNameThenBlock) {
  EXPECT_LT(compare(2, u"z", 9, 0x80000000, u"a", 0), 0);
  EXPECT_GT(compare(3, u"a", 0, 2, u"z", 9), 0);
  EXPECT_LT(compare(2, u"a", 9, 2, u"b", 0), 0);
  EXPECT_GT(compare(2, u"ab", 0, 2, u"a", 9), 0);
  EXPECT_LT(compare(2, u"a", 0, 2, u"a", 0x80000000), 0);
  EXPECT_GT(compare(2, u"a", 1, 2, u"a", 0), 0);
  EXPECT_EQ(compare(2, u"a", 1, 2, u"a", 1), 0);
}

TEST(HFSPlusAttributes, NamesAreComparedAsTheCatalogs) {
  EXPECT_EQ(compare(2, u"com.Example", 0, 2, u"COM.example", 0), 0);
  EXPECT_LT(compare(2, u"com.Example", 0, 2, u"COM.example", 1), 0);
}

TEST(HFSPlusAttributes, AFlushWritesNothingAndSucceeds) {
  MemoryTreeVolume volume(kHFSAttributesFileID, 4096, kNodes);
  const auto attributes = HFSPlusAttributes::open(volume);
  ASSERT_EQ(messageOf(attributes), "");
  EXPECT_EQ((*attributes)->nodeCacheSize(), uint32_t{8} << 20);
  (*attributes)->markNodeAsUsed(5);
  EXPECT_EQ(messageOf((*attributes)->flush()), "");
  EXPECT_TRUE(volume.heldNodes().empty());
}

TEST(HFSPlusAttributes, ABrokenHeaderIsThatOfAnyTree) {
  MemoryTreeVolume volume(kHFSAttributesFileID, 4096, kNodes);
  volume.editHeader([](BTHeaderRec& header) { header.freeNodes = kNodes + 1; });
  EXPECT_EQ(messageOf(HFSPlusAttributes::open(volume)), "B-Tree header is inconsistent.");
}

TEST(HFSPlusAttributes, ANodeWithBrokenOffsetsIsInconsistent) {
  MemoryTreeVolume volume(kHFSAttributesFileID, 4096, kNodes);
  const auto attributes = HFSPlusAttributes::open(volume);
  ASSERT_EQ(messageOf(attributes), "");
  writeBigEndian(&volume.node(3).back() - 1, uint16_t{0xFFFF});
  EXPECT_EQ(messageOf((*attributes)->cachedNodeWithIndex(3)), "Attributes file is inconsistent.");
}
