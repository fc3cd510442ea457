#include <gtest/gtest.h>

#include <map>
#include <ostream>

#include "support/VolumeCheckerBytes.hpp"
#include "support/VolumeSurgeon.hpp"
#include "unit/support/SampleVolumes.hpp"

using namespace volumecheck;

namespace {

constexpr std::size_t kForkExtents = 16;
constexpr std::size_t kDataFork = 88;

// One way to break one rule, and the finding that must come of it.
struct Damage {
  FindingKind kind;
  const char* what;
  void (*inflict)(VolumeSurgeon&);
  AlternateRule alternate = AlternateRule::MayLag;
};

std::ostream& operator<<(std::ostream& out, const Damage& damage) {
  return out << damage.what;
}

bool isOverflowOf(Bytes key, std::uint32_t cnid, std::uint32_t atLeast) {
  return u32At(key, 4) == cnid && u8At(key, 2) == 0 && u32At(key, 8) >= atLeast;
}

VolumeSurgeon::Record overflow(VolumeSurgeon& volume, std::uint32_t atLeast = 0) {
  const std::uint32_t cnid = volume.cnid("/pieces 1");
  return volume.find(kExtentsFileID, 1,
                     [=](Bytes key, Bytes) { return isOverflowOf(key, cnid, atLeast); });
}

VolumeSurgeon::Record indexRecord(VolumeSurgeon& volume, std::uint32_t treeID) {
  return volume.find(treeID, 2, [](Bytes, Bytes) { return true; });
}

VolumeSurgeon::Record attribute(VolumeSurgeon& volume, std::uint32_t type) {
  return volume.find(kAttributesFileID, 1,
                     [type](Bytes, Bytes data) { return u32At(data, 0) == type; });
}

std::size_t journalInfo(VolumeSurgeon& volume) {
  return volume.forkByte(volume.cnid("/.journal_info_block"), 0);
}

std::size_t journal(VolumeSurgeon& volume) {
  return volume.forkByte(volume.cnid("/.journal"), 0);
}

const std::string kPrivateFolder = std::string("/") + std::string(4, '\0') + "HFS+ Private Data";

std::string inodePath(VolumeSurgeon& volume) {
  for (const CatalogItem& item : volume.truth().items) {
    if (item.path.starts_with(kPrivateFolder + "/iNode")) {
      return item.path;
    }
  }
  return {};
}

std::uint32_t firstLeaf(VolumeSurgeon& volume, std::uint32_t treeID) {
  return static_cast<std::uint32_t>(volume.get(volume.treeHeader(treeID, 10), 4));
}

using Kind = FindingKind;
using Surgeon = VolumeSurgeon;

const Damage kDamages[] = {
    {Kind::NotAVolume, "NoSignature", [](Surgeon& v) { v.setHeader(0, 2, 0); }},
    {Kind::HeaderInvalid, "OddBlockSize", [](Surgeon& v) { v.setHeader(40, 4, 4097); }},
    {Kind::HeaderInvalid, "MoreBlocksThanBytes", [](Surgeon& v) { v.addHeader(44, 4, 1); }},
    {Kind::HeaderInvalid, "FewerBlocksThanBytes", [](Surgeon& v) { v.addHeader(44, 4, -1); }},
    {Kind::HeaderInvalid, "NextAllocationOutside",
     [](Surgeon& v) { v.setHeader(52, 4, 0xFFFFFF); }},
    {Kind::HeaderVersion, "UnknownVersion", [](Surgeon& v) { v.setHeader(2, 2, 9); }},
    {Kind::AlternateHeaderMissing, "AlternateWithoutSignature",
     [](Surgeon& v) { v.set(v.alternateHeader(), 2, 0); }},
    {Kind::AlternateHeaderDiffers, "AlternateHasOldCatalogExtents",
     [](Surgeon& v) { v.add(v.alternateHeader() + 272 + kForkExtents, 4, 1); }},
    {Kind::AlternateHeaderLags, "AlternateHasOldFileCount",
     [](Surgeon& v) { v.add(v.alternateHeader() + 32, 4, 1); }, AlternateRule::MustAgree},
    {Kind::NotCleanlyUnmounted, "StillMounted", [](Surgeon& v) { v.addHeader(4, 4, -0x100); }},
    {Kind::MarkedInconsistent, "InconsistentBit", [](Surgeon& v) { v.addHeader(4, 4, 0x800); }},
    {Kind::ReservedAttributeBits, "ReservedBit", [](Surgeon& v) { v.addHeader(4, 4, 1); }},
    {Kind::FileCount, "OneFileTooMany", [](Surgeon& v) { v.addHeader(32, 4, 1); }},
    {Kind::FolderCount, "OneFolderTooFew", [](Surgeon& v) { v.addHeader(36, 4, -1); }},
    {Kind::FreeBlocks, "OneFreeBlockTooMany", [](Surgeon& v) { v.addHeader(48, 4, 1); }},
    {Kind::NextCatalogID, "NextIDInUse", [](Surgeon& v) { v.addHeader(64, 4, -5); }},
    {Kind::EncodingsBitmap, "NoRoman", [](Surgeon& v) { v.setHeader(72, 8, 2); }},
    {Kind::WrapperInvalid, "WrapperOfNothing",
     [](Surgeon& v) {
       v.set(1024, 2, 0x4244);
       v.set(1024 + 20, 4, 512);
       v.set(1024 + 124, 2, 0x482B);
       v.set(1024 + 126, 4, 0x0001FFFF);
     }},
    {Kind::ExtentOutOfRange, "ExtentPastTheEnd",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").data + kDataFork + kForkExtents, 4, 3333); }},
    {Kind::BlockOwnedTwice, "TwoFilesInOnePlace",
     [](Surgeon& v) {
       v.set(v.catalogRecord("/four").data + kDataFork + kForkExtents, 4,
             v.get(v.catalogRecord("/tagged").data + kDataFork + kForkExtents, 4));
     }},
    {Kind::BlockOwnedButClear, "OwnedBlockFree",
     [](Surgeon& v) {
       v.setBitmap(v.truth().findFork(v.cnid("/four"), ForkType::Data)->extents[2].startBlock,
                   false);
     }},
    {Kind::BlockOwnedButClear, "BootBlockFree", [](Surgeon& v) { v.setBitmap(0, false); }},
    {Kind::BlockOwnedButClear, "LastBlockFree", [](Surgeon& v) { v.setBitmap(3332, false); }},
    {Kind::BlockSetButUnowned, "FreeBlockSet",
     [](Surgeon& v) { v.setBitmap(v.firstFreeBlock(), true); }},
    {Kind::BitmapTail, "BitPastTheEnd", [](Surgeon& v) { v.setBitmap(3333, true); }},
    {Kind::BitmapTail, "BitFarPastTheEnd", [](Surgeon& v) { v.setBitmap(3333 + 100, true); }},
    {Kind::BitmapTooSmall, "ShortBitmap", [](Surgeon& v) { v.setHeader(112, 8, 400); }},
    {Kind::TreeHeader, "MaxKeyLength",
     [](Surgeon& v) { v.add(v.treeHeader(kCatalogFileID, 20), 2, 2); }},
    {Kind::TreeHeader, "BadlyClosed",
     [](Surgeon& v) { v.add(v.treeHeader(kExtentsFileID, 38), 4, 1); }},
    {Kind::TreeHeader, "KeyComparison",
     [](Surgeon& v) { v.set(v.treeHeader(kCatalogFileID, 37), 1, 0xBC); }},
    {Kind::TreeFileSize, "NodeCount",
     [](Surgeon& v) { v.add(v.treeHeader(kCatalogFileID, 22), 4, -1); }},
    {Kind::TreeDepth, "DepthTooGreat",
     [](Surgeon& v) { v.add(v.treeHeader(kCatalogFileID, 0), 2, 1); }},
    {Kind::TreeNodeKind, "LeafSaysIndex",
     [](Surgeon& v) { v.set(v.leaf(kCatalogFileID).nodeOffset + 8, 1, 0); }},
    {Kind::TreeNodeHeight, "LeafHeight",
     [](Surgeon& v) { v.set(v.leaf(kCatalogFileID).nodeOffset + 9, 1, 2); }},
    {Kind::TreeNodeReserved, "ReservedWord",
     [](Surgeon& v) { v.set(v.leaf(kExtentsFileID).nodeOffset + 12, 2, 1); }},
    {Kind::TreeLinks, "ForwardLinkCut",
     [](Surgeon& v) { v.set(v.node(kCatalogFileID, firstLeaf(v, kCatalogFileID)), 4, 0); }},
    {Kind::TreeLinks, "BackwardLinkAstray",
     [](Surgeon& v) { v.set(v.node(kExtentsFileID, firstLeaf(v, kExtentsFileID)) + 4, 4, 1); }},
    {Kind::TreeChildPointer, "ChildOutside",
     [](Surgeon& v) { v.set(indexRecord(v, kCatalogFileID).data, 4, 0xFFFFFF); }},
    {Kind::TreeNodeReachedTwice, "TwoParents",
     [](Surgeon& v) {
       const auto second = v.find(kCatalogFileID, 2, [first = true](Bytes, Bytes) mutable {
         return !std::exchange(first, false);
       });
       v.set(second.data, 4, v.get(indexRecord(v, kCatalogFileID).data, 4));
     }},
    {Kind::TreeRecordOffsets, "OffsetsCross",
     [](Surgeon& v) {
       v.set(v.recordOffset(kCatalogFileID, v.leaf(kCatalogFileID).node, 1), 2, 14);
     }},
    {Kind::TreeRecordOffsets, "OddOffset",
     [](Surgeon& v) {
       v.add(v.recordOffset(kExtentsFileID, v.leaf(kExtentsFileID).node, 1), 2, 1);
     }},
    {Kind::TreeRecordSize, "FileSaysFolder",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").data, 2, 1); }},
    {Kind::TreeKey, "ShortKey", [](Surgeon& v) { v.set(v.leaf(kCatalogFileID).key, 2, 2); }},
    {Kind::TreeKey, "KeyBeyondRecord",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").key, 2, 514); }},
    {Kind::TreeKeyOrder, "KeysOutOfOrder",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").key + 2, 4, 1); }},
    {Kind::TreeKeyOrder, "EqualKeys",
     [](Surgeon& v) {
       const auto first = overflow(v, 1);
       const auto second = overflow(v, static_cast<std::uint32_t>(v.get(first.key + 8, 4)) + 1);
       v.set(second.key + 8, 4, v.get(first.key + 8, 4));
     }},
    {Kind::TreeIndexKey, "StaleIndexKey",
     [](Surgeon& v) { v.add(indexRecord(v, kExtentsFileID).key + 8, 4, -1); }},
    {Kind::TreeEmptyNode, "EmptyLeaf",
     [](Surgeon& v) { v.set(v.leaf(kExtentsFileID).nodeOffset + 10, 2, 0); }},
    {Kind::TreeLeafRecords, "LeafRecordCount",
     [](Surgeon& v) { v.add(v.treeHeader(kExtentsFileID, 6), 4, 1); }},
    {Kind::TreeFirstLastLeaf, "FirstLeaf",
     [](Surgeon& v) { v.add(v.treeHeader(kCatalogFileID, 10), 4, 1); }},
    {Kind::TreeFirstLastLeaf, "LastLeaf",
     [](Surgeon& v) { v.set(v.treeHeader(kExtentsFileID, 14), 4, 1); }},
    {Kind::TreeFreeNodes, "FreeNodeCount",
     [](Surgeon& v) { v.add(v.treeHeader(kCatalogFileID, 26), 4, -1); }},
    {Kind::TreeMapNode, "MapGoesOnInALeaf",
     [](Surgeon& v) { v.set(v.node(kCatalogFileID, 0), 4, v.leaf(kCatalogFileID).node); }},
    {Kind::TreeMapTail, "MapBitPastTheEnd",
     [](Surgeon& v) {
       v.setMapBit(kExtentsFileID,
                   static_cast<std::uint32_t>(v.get(v.treeHeader(kExtentsFileID, 22), 4)), true);
     }},
    {Kind::TreeNodeNotInMap, "UsedNodeMarkedFree",
     [](Surgeon& v) { v.setMapBit(kCatalogFileID, v.leaf(kCatalogFileID).node, false); }},
    {Kind::TreeMapNodeUnreached, "FreeNodeMarkedUsed",
     [](Surgeon& v) { v.setMapBit(kExtentsFileID, v.freeNode(kExtentsFileID), true); }},
    {Kind::TreeUnusedNodeNotZero, "LeftoverInFreeNode",
     [](Surgeon& v) {
       v.setHeader(4, 4, v.get(1024 + 4, 4) | 0x80000000);
       v.set(v.node(kExtentsFileID, v.freeNode(kExtentsFileID)) + 100, 1, 7);
     }},
    {Kind::CatalogRecordType, "UnknownRecordType",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").data, 2, 9); }},
    {Kind::CatalogRootFolder, "NoRootFolder",
     [](Surgeon& v) { v.set(v.catalogRecord("/").data + 8, 4, 4000); }},
    {Kind::CatalogDuplicateID, "TwoFilesOfOneID",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").data + 8, 4, v.cnid("/tagged")); }},
    {Kind::CatalogReservedID, "ReservedID",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").data + 8, 4, 9); }},
    {Kind::CatalogParent, "FolderRenumbered",
     [](Surgeon& v) { v.set(v.catalogRecord("/folder").data + 8, 4, 4000); }},
    {Kind::CatalogUnreachable, "FolderInItself",
     [](Surgeon& v) {
       v.set(v.catalogRecord("/folder/inner").key + 2, 4, v.cnid("/folder/inner"));
     }},
    {Kind::CatalogFolderThread, "FolderThreadGone",
     [](Surgeon& v) { v.set(v.thread("/folder").data, 2, 9); }},
    {Kind::CatalogFileThread, "FileThreadGone",
     [](Surgeon& v) { v.set(v.thread("/four").data, 2, 9); }},
    {Kind::CatalogThreadMismatch, "ThreadNamesAnotherParent",
     [](Surgeon& v) { v.add(v.thread("/four").data + 4, 4, 1); }},
    {Kind::CatalogThreadMismatch, "ThreadNamesAnotherName",
     [](Surgeon& v) { v.add(v.thread("/four").data + 10, 2, 1); }},
    {Kind::CatalogThreadOrphan, "ThreadWithoutRecord",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").data + 8, 4, 4000); }},
    {Kind::CatalogThreadFlag, "ThreadFlagMissing",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").data + 2, 2, 0); }},
    {Kind::CatalogValence, "Valence",
     [](Surgeon& v) { v.add(v.catalogRecord("/folder").data + 4, 4, 1); }},
    {Kind::CatalogSubfolderCount, "SubfolderCount",
     [](Surgeon& v) {
       v.set(v.catalogRecord("/folder").data + 2, 2, 0x0010);
       v.set(v.catalogRecord("/folder").data + 84, 4, 7);
     }},
    {Kind::CatalogName, "NoName",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").key + 6, 2, 0); }},
    {Kind::CatalogNameNotDecomposed, "PrecomposedName",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").key + 8, 2, 0x00E9); }},
    {Kind::HardLinkTarget, "LinkToNowhere",
     [](Surgeon& v) { v.set(v.catalogRecord("/link a").data + 44, 4, 9999); }},
    {Kind::HardLinkCount, "LinkCount",
     [](Surgeon& v) { v.add(v.catalogRecord(inodePath(v)).data + 44, 4, 1); }},
    {Kind::HardLinkFork, "LinkWithContent",
     [](Surgeon& v) { v.set(v.catalogRecord("/link a").data + kDataFork, 8, 1); }},
    {Kind::ForkBlockCount, "BlockCountTooGreat",
     [](Surgeon& v) { v.add(v.catalogRecord("/four").data + kDataFork + 12, 4, 1); }},
    {Kind::ForkBlockCount, "BlockCountTooSmall",
     [](Surgeon& v) { v.add(v.catalogRecord("/four").data + kDataFork + 12, 4, -1); }},
    {Kind::ForkSize, "SizeBeyondBlocks",
     [](Surgeon& v) { v.add(v.catalogRecord("/four").data + kDataFork, 8, 1); }},
    {Kind::ForkEmptyDescriptor, "HoleInTheExtents",
     [](Surgeon& v) { v.set(v.catalogRecord("/four").data + kDataFork + kForkExtents + 8, 8, 0); }},
    {Kind::ForkEmptyDescriptor, "JunkAfterTheExtents",
     [](Surgeon& v) {
       v.set(v.catalogRecord("/four").data + kDataFork + kForkExtents + 56, 4, 77);
     }},
    {Kind::OverflowKey, "PadByte", [](Surgeon& v) { v.set(overflow(v).key + 3, 1, 1); }},
    {Kind::OverflowKey, "ForkType", [](Surgeon& v) { v.set(overflow(v).key + 2, 1, 7); }},
    {Kind::OverflowOrphan, "OverflowOfNobody",
     [](Surgeon& v) { v.set(overflow(v).key + 4, 4, 4000); }},
    {Kind::OverflowStart, "StartBlock", [](Surgeon& v) { v.add(overflow(v, 20).key + 8, 4, 1); }},
    {Kind::OverflowEmptyRecord, "EmptyRecord", [](Surgeon& v) { v.set(overflow(v).data, 8, 0); }},
    {Kind::OverflowUnneeded, "RoomBefore",
     [](Surgeon& v) {
       v.set(v.catalogRecord("/pieces 1").data + kDataFork + kForkExtents + 56, 8, 0);
     }},
    {Kind::OverflowMissing, "RecordMissing",
     [](Surgeon& v) { v.set(overflow(v, 56).key + 4, 4, 4000); }},
    {Kind::OverflowBeyondTotal, "RecordBeyondTheFork",
     [](Surgeon& v) { v.set(v.catalogRecord("/pieces 1").data + kDataFork + 12, 4, 8); }},
    {Kind::AttributeRecord, "UnknownAttribute",
     [](Surgeon& v) { v.set(attribute(v, 0x10).data, 4, 0x77); }},
    {Kind::AttributeRecord, "InlineSize",
     [](Surgeon& v) { v.add(attribute(v, 0x10).data + 12, 4, 5); }},
    {Kind::AttributeOrphan, "AttributeOfNobody",
     [](Surgeon& v) { v.set(attribute(v, 0x10).key + 4, 4, 4000); }},
    {Kind::AttributeExtents, "AttributeStart",
     [](Surgeon& v) { v.add(attribute(v, 0x30).key + 8, 4, 1); }},
    {Kind::JournalInfo, "JournalFlags", [](Surgeon& v) { v.set(journalInfo(v), 4, 3); }},
    {Kind::JournalInfo, "JournalElsewhere", [](Surgeon& v) { v.add(journalInfo(v) + 36, 8, 512); }},
    {Kind::JournalInfo, "JournalInfoBlockElsewhere", [](Surgeon& v) { v.addHeader(12, 4, 1); }},
    {Kind::JournalHeader, "JournalMagic", [](Surgeon& v) { v.set(journal(v), 4, 0); }},
    {Kind::JournalChecksum, "JournalChecksum", [](Surgeon& v) { v.add(journal(v) + 36, 4, 1); }},
    {Kind::JournalNotEmpty, "JournalNotEmpty",
     [](Surgeon& v) {
       // The middle byte of `end`, which moves it by at least a sector in either byte order.
       const std::size_t end = journal(v) + 16;
       const bool little = v.get(journal(v), 4) != 0x4A4E4C78;
       v.add(end + (little ? 1 : 6), 1, 4);
     }},
    {Kind::HotFiles, "HotFilesMagic",
     [](Surgeon& v) { v.set(v.forkByte(v.cnid("/.hotfiles.btree"), 120), 4, 0); }},
};

class EveryDamage : public testing::TestWithParam<Damage> {};

TEST_P(EveryDamage, IsFound) {
  static const std::vector<std::uint8_t> kSound = sampleVolume();
  VolumeSurgeon volume(kSound);
  ASSERT_FALSE(testing::Test::HasFailure());
  GetParam().inflict(volume);
  CheckOptions options;
  options.alternate = GetParam().alternate;
  const CheckResult result = volume.check(options);
  EXPECT_TRUE(result.has(GetParam().kind)) << "no " << nameOf(GetParam().kind) << " among:\n"
                                           << result.report();
}

INSTANTIATE_TEST_SUITE_P(VolumeChecker, EveryDamage, testing::ValuesIn(kDamages),
                         [](const auto& damage) { return std::string(damage.param.what); });

// Devices that fail are not to be had in memory.
TEST(VolumeChecker, HasADamageForEveryKindOfFinding) {
  std::map<FindingKind, int> damages;
  for (const Damage& damage : kDamages) {
    damages[damage.kind] += 1;
  }
  for (const FindingKind kind : allFindingKinds()) {
    EXPECT_TRUE(damages.contains(kind) || kind == FindingKind::ReadFailed) << nameOf(kind);
  }
}

}  // namespace
