#pragma once

#include <cstddef>
#include <cstdint>

/// The numbers of the HFS Plus format that the volume builder writes. They stand here a second time
/// on purpose: the builder shares nothing with the program, so that neither can hide the other's
/// mistakes.
namespace support {

/// A run of allocation blocks.
struct BlockExtent {
  uint32_t start = 0;
  uint32_t count = 0;
  friend bool operator==(const BlockExtent&, const BlockExtent&) = default;
};

constexpr uint32_t kRootParentID = 1;
constexpr uint32_t kRootFolderID = 2;
constexpr uint32_t kExtentsFileID = 3;
constexpr uint32_t kCatalogFileID = 4;
constexpr uint32_t kBadBlocksFileID = 5;
constexpr uint32_t kAllocationFileID = 6;
constexpr uint32_t kStartupFileID = 7;
constexpr uint32_t kAttributesFileID = 8;
constexpr uint32_t kFirstUserID = 16;

constexpr uint8_t kDataFork = 0x00;
constexpr uint8_t kResourceFork = 0xFF;
constexpr size_t kExtentsInRecord = 8;
constexpr size_t kForkDataSize = 80;

constexpr size_t kVolumeHeaderOffset = 1024;
constexpr size_t kVolumeHeaderSize = 512;
constexpr size_t kReservedFrontBytes = kVolumeHeaderOffset + kVolumeHeaderSize;
constexpr size_t kReservedBackBytes = 1024;

constexpr uint16_t kSignatureHFS = 0x4244;
constexpr uint16_t kSignatureHFSPlus = 0x482B;
constexpr uint16_t kSignatureHFSX = 0x4858;

constexpr uint32_t kVolumeHardwareLock = 1u << 7;
constexpr uint32_t kVolumeUnmounted = 1u << 8;
constexpr uint32_t kVolumeSparedBlocks = 1u << 9;
constexpr uint32_t kVolumeInconsistent = 1u << 11;
constexpr uint32_t kVolumeJournaled = 1u << 13;
constexpr uint32_t kVolumeSoftwareLock = 1u << 15;
constexpr uint32_t kVolumeUnusedNodesZeroed = 1u << 31;

constexpr uint16_t kFolderRecord = 1;
constexpr uint16_t kFileRecord = 2;
constexpr uint16_t kFolderThreadRecord = 3;
constexpr uint16_t kFileThreadRecord = 4;
constexpr size_t kFolderRecordSize = 88;
constexpr size_t kFileRecordSize = 248;
constexpr size_t kMaxNameUnits = 255;

constexpr uint16_t kThreadExistsFlag = 0x0002;
constexpr uint16_t kHasAttributesFlag = 0x0004;
constexpr uint16_t kHasFolderCountFlag = 0x0010;
constexpr uint16_t kHasLinkChainFlag = 0x0020;

constexpr size_t kNodeDescriptorSize = 14;
constexpr size_t kHeaderRecordSize = 106;
constexpr size_t kUserRecordSize = 128;
constexpr size_t kUserRecordOffset = 120;
constexpr size_t kHeaderMapOffset = 248;
constexpr int8_t kLeafNode = -1;
constexpr int8_t kIndexNode = 0;
constexpr int8_t kHeaderNode = 1;
constexpr int8_t kMapNode = 2;

constexpr uint32_t kTreeBigKeys = 2;
constexpr uint32_t kTreeVariableIndexKeys = 4;
constexpr uint8_t kCaseFolding = 0xCF;
constexpr uint8_t kBinaryCompare = 0xBC;
constexpr uint8_t kUserTree = 128;

constexpr uint32_t kInlineAttribute = 0x10;
constexpr uint32_t kForkAttribute = 0x20;
constexpr uint32_t kExtentsAttribute = 0x30;

constexpr uint32_t fourCharCode(const char (&text)[5]) {
  uint32_t code = 0;
  for (size_t i = 0; i < 4; ++i)
    code = code << 8 | static_cast<uint8_t>(text[i]);
  return code;
}

/// How many units of `unit` it takes to cover `amount`.
constexpr uint64_t dividedUp(uint64_t amount, uint64_t unit) {
  return amount / unit + (amount % unit != 0);
}

}  // namespace support
