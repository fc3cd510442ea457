#include "HFSPlus/HFSPlusByteOrder.hpp"

#include <gtest/gtest.h>
#include <numeric>

namespace {

/// An image in which every byte tells its place (modulo 251, so that pages differ).
template <typename T>
DiskOrder<T> countingImage() {
  DiskOrder<T> image;
  for (size_t i = 0; i < image.bytes.size(); ++i) {
    image.bytes[i] = static_cast<std::byte>(i % 251);
  }
  return image;
}

template <typename T>
void expectRoundTrip() {
  const DiskOrder<T> image = countingImage<T>();
  EXPECT_EQ(toDisk(toHost(image)), image);
}

/// The bytes of a structure in memory that stand for an array "always as on disk".
template <typename Field>
bool isAsOnDisk(const Field& field, size_t offset) {
  const auto bytes = std::bit_cast<std::array<std::byte, sizeof(Field)>>(field);
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] != static_cast<std::byte>((offset + i) % 251)) {
      return false;
    }
  }
  return true;
}

constexpr uint32_t countingWord(uint32_t offset) {
  return (offset << 24) | ((offset + 1) << 16) | ((offset + 2) << 8) | (offset + 3);
}

constexpr uint16_t countingHalf(uint32_t offset) {
  return static_cast<uint16_t>((offset << 8) | (offset + 1));
}

}  // namespace

TEST(HFSPlusByteOrder, EveryStructureComesBackAsItWasRead) {
  expectRoundTrip<HFSPlusExtentRecord>();
  expectRoundTrip<HFSPlusForkData>();
  expectRoundTrip<HFSPlusVolumeHeader>();
  expectRoundTrip<BTHeaderRec>();
  expectRoundTrip<HFSPlusCatalogFile>();
  expectRoundTrip<HFSPlusCatalogFolder>();
}

TEST(HFSPlusByteOrder, AVolumeHeaderIsReadFieldByField) {
  const HFSPlusVolumeHeader header = toHost(countingImage<HFSPlusVolumeHeader>());
  EXPECT_EQ(uint16_t{header.signature}, countingHalf(0));
  EXPECT_EQ(uint16_t{header.version}, countingHalf(2));
  EXPECT_EQ(uint32_t{header.attributes}, countingWord(4));
  EXPECT_EQ(uint32_t{header.blockSize}, countingWord(40));
  EXPECT_EQ(uint32_t{header.totalBlocks}, countingWord(44));
  EXPECT_EQ(uint32_t{header.freeBlocks}, countingWord(48));
  EXPECT_EQ(uint32_t{header.writeCount}, countingWord(68));
  EXPECT_EQ(uint64_t{header.encodingsBitmap},
            (uint64_t{countingWord(72)} << 32) | countingWord(76));
  EXPECT_EQ(uint32_t{header.allocationFile.totalBlocks}, countingWord(124));
  EXPECT_EQ(uint32_t{header.allocationFile.extents[7].blockCount}, countingWord(188));
  EXPECT_EQ(uint64_t{header.extentsFile.logicalSize},
            (uint64_t{countingWord(192)} << 32) | countingWord(196));
}

TEST(HFSPlusByteOrder, FinderInfoIsTheSameInBothOrders) {
  const HFSPlusVolumeHeader header = toHost(countingImage<HFSPlusVolumeHeader>());
  EXPECT_TRUE(isAsOnDisk(header.finderInfo, 80));
}

TEST(HFSPlusByteOrder, ABTreeHeaderKeepsItsReservedFields) {
  const BTHeaderRec header = toHost(countingImage<BTHeaderRec>());
  EXPECT_EQ(uint16_t{header.treeDepth}, countingHalf(0));
  EXPECT_EQ(uint32_t{header.rootNode}, countingWord(2));
  EXPECT_EQ(uint16_t{header.nodeSize}, countingHalf(18));
  EXPECT_EQ(uint32_t{header.freeNodes}, countingWord(26));
  EXPECT_EQ(uint32_t{header.clumpSize}, countingWord(32));
  EXPECT_EQ(uint32_t{header.attributes}, countingWord(38));
  EXPECT_TRUE(isAsOnDisk(uint16_t{header.reserved1}, 30));
  EXPECT_EQ(header.btreeType, 36);
  EXPECT_EQ(header.keyCompareType, 37);
  EXPECT_TRUE(isAsOnDisk(std::array<uint32_t, 16>(header.reserved3), 42));
}

TEST(HFSPlusByteOrder, AFileRecordKeepsWhatOthersOwn) {
  const HFSPlusCatalogFile file = toHost(countingImage<HFSPlusCatalogFile>());
  EXPECT_EQ(uint16_t{file.flags}, countingHalf(2));
  EXPECT_TRUE(isAsOnDisk(uint32_t{file.reserved1}, 4));
  EXPECT_EQ(uint32_t{file.fileID}, countingWord(8));
  EXPECT_EQ(uint32_t{file.backupDate}, countingWord(28));
  EXPECT_EQ(uint32_t{file.bsdInfo.ownerID}, countingWord(32));
  EXPECT_EQ(file.bsdInfo.adminFlags, 40);
  EXPECT_EQ(file.bsdInfo.ownerFlags, 41);
  EXPECT_EQ(uint16_t{file.bsdInfo.fileMode}, countingHalf(42));
  EXPECT_EQ(uint32_t{file.bsdInfo.special}, countingWord(44));
  EXPECT_EQ(uint32_t{file.userInfo.fdType}, countingWord(48));
  EXPECT_EQ(static_cast<uint16_t>(file.userInfo.fdLocation.h), countingHalf(60));
  EXPECT_TRUE(isAsOnDisk(int16_t{file.userInfo.opaque}, 62));
  EXPECT_TRUE(isAsOnDisk(file.finderInfo, 64));
  EXPECT_EQ(uint32_t{file.textEncoding}, countingWord(80));
  EXPECT_EQ(uint32_t{file.reserved2}, countingWord(84));
  EXPECT_EQ(uint32_t{file.dataFork.clumpSize}, countingWord(96));
  EXPECT_EQ(uint32_t{file.resourceFork.totalBlocks}, countingWord(180));
}

TEST(HFSPlusByteOrder, AFolderRecordKeepsWhatOthersOwn) {
  const HFSPlusCatalogFolder folder = toHost(countingImage<HFSPlusCatalogFolder>());
  EXPECT_EQ(uint32_t{folder.valence}, countingWord(4));
  EXPECT_EQ(uint32_t{folder.folderID}, countingWord(8));
  EXPECT_EQ(folder.bsdInfo.adminFlags, 40);
  EXPECT_EQ(folder.bsdInfo.ownerFlags, 41);
  EXPECT_EQ(static_cast<uint16_t>(folder.userInfo.frRect.top), countingHalf(48));
  EXPECT_EQ(static_cast<uint16_t>(folder.userInfo.frRect.right), countingHalf(54));
  EXPECT_EQ(uint16_t{folder.userInfo.frFlags}, countingHalf(56));
  EXPECT_EQ(static_cast<uint16_t>(folder.userInfo.frLocation.v), countingHalf(58));
  EXPECT_TRUE(isAsOnDisk(int16_t{folder.userInfo.opaque}, 62));
  EXPECT_TRUE(isAsOnDisk(folder.finderInfo, 64));
  EXPECT_EQ(uint32_t{folder.folderCount}, countingWord(84));
}

TEST(HFSPlusByteOrder, AKeyWithoutANameHasOnlyItsNumbersConverted) {
  auto image = countingImage<HFSPlusCatalogKey>();
  writeBigEndian<uint16_t>(&image.bytes[6], 0);
  const HFSPlusCatalogKey key = toHost(image);
  EXPECT_EQ(uint16_t{key.keyLength}, countingHalf(0));
  EXPECT_EQ(uint32_t{key.parentID}, countingWord(2));
  EXPECT_EQ(uint16_t{key.nodeName.length}, 0);
  EXPECT_TRUE(isAsOnDisk(key.nodeName.unicode, 8));
  EXPECT_EQ(toDisk(key), image);
}

TEST(HFSPlusByteOrder, AKeyHasAsManyUnitsConvertedAsItsNameHas) {
  auto image = countingImage<HFSPlusCatalogKey>();
  writeBigEndian<uint16_t>(&image.bytes[6], 2);
  const HFSPlusCatalogKey key = toHost(image);
  EXPECT_EQ(key.nodeName.unicode[0], countingHalf(8));
  EXPECT_EQ(key.nodeName.unicode[1], countingHalf(10));
  EXPECT_TRUE(isAsOnDisk(key.nodeName.unicode[2], 12));
  EXPECT_EQ(toDisk(key), image);
}

TEST(HFSPlusByteOrder, AKeyWithAnImpossibleLengthStaysInsideItself) {
  auto image = countingImage<HFSPlusCatalogKey>();
  writeBigEndian<uint16_t>(&image.bytes[6], 0xFFFF);
  const HFSPlusCatalogKey key = toHost(image);
  EXPECT_EQ(uint16_t{key.nodeName.length}, 0xFFFF);
  EXPECT_EQ(key.nodeName.unicode[254], static_cast<uint16_t>((516 % 251) << 8 | (517 % 251)));
  EXPECT_EQ(toDisk(key), image);
}

TEST(HFSPlusByteOrder, IntegersAreReadAndWrittenAtAnyAddress) {
  std::array<std::byte, 9> bytes{};
  writeBigEndian<uint64_t>(&bytes[1], 0x0102030405060708);
  for (size_t i = 1; i < bytes.size(); ++i) {
    EXPECT_EQ(bytes[i], static_cast<std::byte>(i));
  }
  EXPECT_EQ(readBigEndian<uint16_t>(&bytes[1]), 0x0102);
  EXPECT_EQ(readBigEndian<uint32_t>(&bytes[3]), 0x03040506U);
  EXPECT_EQ(readBigEndian<int16_t>(&bytes[0]), 1);
}
