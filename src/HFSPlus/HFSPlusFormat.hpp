#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// The structures and constants of the published HFS Plus volume format. A structure by its plain
// name is in host byte order; its image as it lies on disk, big-endian, is a DiskOrder<structure>
// (HFSPlusByteOrder.hpp), so that no line leaves the byte order open.

inline constexpr uint16_t kHFSPlusSigWord = 0x482B;  // 'H+'
inline constexpr uint16_t kHFSXSigWord = 0x4858;     // 'HX'
inline constexpr uint16_t kHFSSigWord = 0x4244;      // 'BD', an HFS wrapper
inline constexpr uint16_t kHFSPlusVersion = 4;
inline constexpr uint16_t kHFSXVersion = 5;

inline constexpr uint64_t kHFSPlusVolumeHeaderOffset = 1024;             // bytes from the start
inline constexpr uint64_t kHFSPlusAlternateVolumeHeaderDistance = 1024;  // bytes before its end
inline constexpr uint32_t kHFSPlusBootAreaBytes = 1536;  // boot blocks and volume header

// Bits of HFSPlusVolumeHeader::attributes.
inline constexpr uint32_t kHFSVolumeHardwareLockMask = 1U << 7;
inline constexpr uint32_t kHFSVolumeUnmountedMask = 1U << 8;
inline constexpr uint32_t kHFSVolumeSparedBlocksMask = 1U << 9;
inline constexpr uint32_t kHFSVolumeInconsistentMask = 1U << 11;
inline constexpr uint32_t kHFSVolumeJournaledMask = 1U << 13;
inline constexpr uint32_t kHFSVolumeSoftwareLockMask = 1U << 15;

// Catalog node IDs with a fixed meaning.
inline constexpr uint32_t kHFSRootParentID = 1;
inline constexpr uint32_t kHFSRootFolderID = 2;
inline constexpr uint32_t kHFSExtentsFileID = 3;
inline constexpr uint32_t kHFSCatalogFileID = 4;
inline constexpr uint32_t kHFSBadBlockFileID = 5;
inline constexpr uint32_t kHFSAllocationFileID = 6;
inline constexpr uint32_t kHFSStartupFileID = 7;
inline constexpr uint32_t kHFSAttributesFileID = 8;

inline constexpr uint8_t kHFSDataForkType = 0x00;
inline constexpr uint8_t kHFSResourceForkType = 0xFF;

// Catalog record types.
inline constexpr int16_t kHFSPlusFolderRecord = 1;
inline constexpr int16_t kHFSPlusFileRecord = 2;
inline constexpr int16_t kHFSPlusFolderThreadRecord = 3;
inline constexpr int16_t kHFSPlusFileThreadRecord = 4;

// B-tree node kinds.
inline constexpr int8_t kBTLeafNode = -1;
inline constexpr int8_t kBTIndexNode = 0;
inline constexpr int8_t kBTHeaderNode = 1;
inline constexpr int8_t kBTMapNode = 2;

// BTHeaderRec::keyCompareType and ::attributes.
inline constexpr uint8_t kHFSCaseFolding = 0xCF;
inline constexpr uint8_t kHFSBinaryCompare = 0xBC;
inline constexpr uint32_t kBTBigKeysMask = 1U << 1;

inline constexpr size_t kHFSPlusExtentDensity = 8;  // descriptors in an extent record
inline constexpr size_t kHFSPlusMaxNameUnits = 255;

// The format aligns fields to two bytes.
#pragma pack(push, 2)

struct HFSPlusExtentDescriptor {
  uint32_t startBlock;  // allocation blocks
  uint32_t blockCount;
  friend bool operator==(const HFSPlusExtentDescriptor&, const HFSPlusExtentDescriptor&) = default;
};

using HFSPlusExtentRecord = std::array<HFSPlusExtentDescriptor, kHFSPlusExtentDensity>;

struct HFSPlusForkData {
  uint64_t logicalSize;  // bytes
  uint32_t clumpSize;
  uint32_t totalBlocks;
  HFSPlusExtentRecord extents;
};

struct HFSPlusVolumeHeader {
  uint16_t signature;
  uint16_t version;
  uint32_t attributes;
  uint32_t lastMountedVersion;
  uint32_t journalInfoBlock;
  uint32_t createDate;
  uint32_t modifyDate;
  uint32_t backupDate;
  uint32_t checkedDate;
  uint32_t fileCount;
  uint32_t folderCount;
  uint32_t blockSize;
  uint32_t totalBlocks;
  uint32_t freeBlocks;
  uint32_t nextAllocation;
  uint32_t rsrcClumpSize;
  uint32_t dataClumpSize;
  uint32_t nextCatalogID;
  uint32_t writeCount;
  uint64_t encodingsBitmap;
  std::array<uint8_t, 32> finderInfo;  // always as on disk
  HFSPlusForkData allocationFile;
  HFSPlusForkData extentsFile;
  HFSPlusForkData catalogFile;
  HFSPlusForkData attributesFile;
  HFSPlusForkData startupFile;
};

struct BTNodeDescriptor {
  uint32_t fLink;
  uint32_t bLink;
  int8_t kind;
  uint8_t height;
  uint16_t numRecords;
  uint16_t reserved;
};

struct BTHeaderRec {
  uint16_t treeDepth;
  uint32_t rootNode;
  uint32_t leafRecords;
  uint32_t firstLeafNode;
  uint32_t lastLeafNode;
  uint16_t nodeSize;
  uint16_t maxKeyLength;
  uint32_t totalNodes;
  uint32_t freeNodes;
  uint16_t reserved1;  // always as on disk
  uint32_t clumpSize;
  uint8_t btreeType;
  uint8_t keyCompareType;
  uint32_t attributes;
  std::array<uint32_t, 16> reserved3;  // always as on disk
};

struct HFSUniStr255 {
  uint16_t length;  // UTF-16 units
  std::array<uint16_t, kHFSPlusMaxNameUnits> unicode;
};

struct HFSPlusCatalogKey {
  uint16_t keyLength;
  uint32_t parentID;
  HFSUniStr255 nodeName;
};

struct HFSPlusExtentKey {
  uint16_t keyLength;  // always 10
  uint8_t forkType;
  uint8_t pad;
  uint32_t fileID;
  uint32_t startBlock;  // allocation blocks from the fork's start
};

struct HFSPlusAttrKey {
  uint16_t keyLength;
  uint16_t pad;
  uint32_t fileID;
  uint32_t startBlock;
  uint16_t attrNameLen;  // UTF-16 units
  std::array<uint16_t, 127> attrName;
};

struct HotFileKey {
  uint16_t keyLength;  // always 10
  uint8_t forkType;
  uint8_t pad;
  uint32_t temperature;
  uint32_t fileID;
};

struct HFSPlusBSDInfo {
  uint32_t ownerID;
  uint32_t groupID;
  uint8_t adminFlags;
  uint8_t ownerFlags;
  uint16_t fileMode;
  uint32_t special;  // inode number, link count or raw device
};

struct FndrPoint {
  int16_t v;
  int16_t h;
};

struct FndrFileInfo {
  uint32_t fdType;
  uint32_t fdCreator;
  uint16_t fdFlags;
  FndrPoint fdLocation;
  int16_t opaque;  // always as on disk
};

struct FndrRect {
  int16_t top;
  int16_t left;
  int16_t bottom;
  int16_t right;
};

struct FndrDirInfo {
  FndrRect frRect;
  uint16_t frFlags;
  FndrPoint frLocation;
  int16_t opaque;  // always as on disk
};

struct FndrOpaqueInfo {
  std::array<int8_t, 16> opaque;  // always as on disk
};

struct HFSPlusCatalogFolder {
  int16_t recordType;
  uint16_t flags;
  uint32_t valence;
  uint32_t folderID;
  uint32_t createDate;
  uint32_t contentModDate;
  uint32_t attributeModDate;
  uint32_t accessDate;
  uint32_t backupDate;
  HFSPlusBSDInfo bsdInfo;
  FndrDirInfo userInfo;
  FndrOpaqueInfo finderInfo;
  uint32_t textEncoding;
  uint32_t folderCount;
};

struct HFSPlusCatalogFile {
  int16_t recordType;
  uint16_t flags;
  uint32_t reserved1;  // always as on disk
  uint32_t fileID;
  uint32_t createDate;
  uint32_t contentModDate;
  uint32_t attributeModDate;
  uint32_t accessDate;
  uint32_t backupDate;
  HFSPlusBSDInfo bsdInfo;
  FndrFileInfo userInfo;
  FndrOpaqueInfo finderInfo;
  uint32_t textEncoding;
  uint32_t reserved2;
  HFSPlusForkData dataFork;
  HFSPlusForkData resourceFork;
};

#pragma pack(pop)

static_assert(sizeof(HFSPlusExtentRecord) == 64);

static_assert(sizeof(HFSPlusExtentDescriptor) == 8);
static_assert(offsetof(HFSPlusExtentDescriptor, startBlock) == 0);
static_assert(offsetof(HFSPlusExtentDescriptor, blockCount) == 4);

static_assert(sizeof(HFSPlusForkData) == 80);
static_assert(offsetof(HFSPlusForkData, logicalSize) == 0);
static_assert(offsetof(HFSPlusForkData, clumpSize) == 8);
static_assert(offsetof(HFSPlusForkData, totalBlocks) == 12);
static_assert(offsetof(HFSPlusForkData, extents) == 16);

static_assert(sizeof(HFSPlusVolumeHeader) == 512);
static_assert(offsetof(HFSPlusVolumeHeader, signature) == 0);
static_assert(offsetof(HFSPlusVolumeHeader, version) == 2);
static_assert(offsetof(HFSPlusVolumeHeader, attributes) == 4);
static_assert(offsetof(HFSPlusVolumeHeader, lastMountedVersion) == 8);
static_assert(offsetof(HFSPlusVolumeHeader, journalInfoBlock) == 12);
static_assert(offsetof(HFSPlusVolumeHeader, createDate) == 16);
static_assert(offsetof(HFSPlusVolumeHeader, modifyDate) == 20);
static_assert(offsetof(HFSPlusVolumeHeader, backupDate) == 24);
static_assert(offsetof(HFSPlusVolumeHeader, checkedDate) == 28);
static_assert(offsetof(HFSPlusVolumeHeader, fileCount) == 32);
static_assert(offsetof(HFSPlusVolumeHeader, folderCount) == 36);
static_assert(offsetof(HFSPlusVolumeHeader, blockSize) == 40);
static_assert(offsetof(HFSPlusVolumeHeader, totalBlocks) == 44);
static_assert(offsetof(HFSPlusVolumeHeader, freeBlocks) == 48);
static_assert(offsetof(HFSPlusVolumeHeader, nextAllocation) == 52);
static_assert(offsetof(HFSPlusVolumeHeader, rsrcClumpSize) == 56);
static_assert(offsetof(HFSPlusVolumeHeader, dataClumpSize) == 60);
static_assert(offsetof(HFSPlusVolumeHeader, nextCatalogID) == 64);
static_assert(offsetof(HFSPlusVolumeHeader, writeCount) == 68);
static_assert(offsetof(HFSPlusVolumeHeader, encodingsBitmap) == 72);
static_assert(offsetof(HFSPlusVolumeHeader, finderInfo) == 80);
static_assert(offsetof(HFSPlusVolumeHeader, allocationFile) == 112);
static_assert(offsetof(HFSPlusVolumeHeader, extentsFile) == 192);
static_assert(offsetof(HFSPlusVolumeHeader, catalogFile) == 272);
static_assert(offsetof(HFSPlusVolumeHeader, attributesFile) == 352);
static_assert(offsetof(HFSPlusVolumeHeader, startupFile) == 432);

static_assert(sizeof(BTNodeDescriptor) == 14);
static_assert(offsetof(BTNodeDescriptor, fLink) == 0);
static_assert(offsetof(BTNodeDescriptor, bLink) == 4);
static_assert(offsetof(BTNodeDescriptor, kind) == 8);
static_assert(offsetof(BTNodeDescriptor, height) == 9);
static_assert(offsetof(BTNodeDescriptor, numRecords) == 10);
static_assert(offsetof(BTNodeDescriptor, reserved) == 12);

static_assert(sizeof(BTHeaderRec) == 106);
static_assert(offsetof(BTHeaderRec, treeDepth) == 0);
static_assert(offsetof(BTHeaderRec, rootNode) == 2);
static_assert(offsetof(BTHeaderRec, leafRecords) == 6);
static_assert(offsetof(BTHeaderRec, firstLeafNode) == 10);
static_assert(offsetof(BTHeaderRec, lastLeafNode) == 14);
static_assert(offsetof(BTHeaderRec, nodeSize) == 18);
static_assert(offsetof(BTHeaderRec, maxKeyLength) == 20);
static_assert(offsetof(BTHeaderRec, totalNodes) == 22);
static_assert(offsetof(BTHeaderRec, freeNodes) == 26);
static_assert(offsetof(BTHeaderRec, reserved1) == 30);
static_assert(offsetof(BTHeaderRec, clumpSize) == 32);
static_assert(offsetof(BTHeaderRec, btreeType) == 36);
static_assert(offsetof(BTHeaderRec, keyCompareType) == 37);
static_assert(offsetof(BTHeaderRec, attributes) == 38);
static_assert(offsetof(BTHeaderRec, reserved3) == 42);

static_assert(sizeof(HFSUniStr255) == 512);
static_assert(offsetof(HFSUniStr255, length) == 0);
static_assert(offsetof(HFSUniStr255, unicode) == 2);

static_assert(sizeof(HFSPlusCatalogKey) == 518);
static_assert(offsetof(HFSPlusCatalogKey, keyLength) == 0);
static_assert(offsetof(HFSPlusCatalogKey, parentID) == 2);
static_assert(offsetof(HFSPlusCatalogKey, nodeName) == 6);

static_assert(sizeof(HFSPlusExtentKey) == 12);
static_assert(offsetof(HFSPlusExtentKey, keyLength) == 0);
static_assert(offsetof(HFSPlusExtentKey, forkType) == 2);
static_assert(offsetof(HFSPlusExtentKey, pad) == 3);
static_assert(offsetof(HFSPlusExtentKey, fileID) == 4);
static_assert(offsetof(HFSPlusExtentKey, startBlock) == 8);

static_assert(sizeof(HFSPlusAttrKey) == 268);
static_assert(offsetof(HFSPlusAttrKey, keyLength) == 0);
static_assert(offsetof(HFSPlusAttrKey, pad) == 2);
static_assert(offsetof(HFSPlusAttrKey, fileID) == 4);
static_assert(offsetof(HFSPlusAttrKey, startBlock) == 8);
static_assert(offsetof(HFSPlusAttrKey, attrNameLen) == 12);
static_assert(offsetof(HFSPlusAttrKey, attrName) == 14);

static_assert(sizeof(HotFileKey) == 12);
static_assert(offsetof(HotFileKey, keyLength) == 0);
static_assert(offsetof(HotFileKey, forkType) == 2);
static_assert(offsetof(HotFileKey, pad) == 3);
static_assert(offsetof(HotFileKey, temperature) == 4);
static_assert(offsetof(HotFileKey, fileID) == 8);

static_assert(sizeof(HFSPlusBSDInfo) == 16);
static_assert(offsetof(HFSPlusBSDInfo, ownerID) == 0);
static_assert(offsetof(HFSPlusBSDInfo, groupID) == 4);
static_assert(offsetof(HFSPlusBSDInfo, adminFlags) == 8);
static_assert(offsetof(HFSPlusBSDInfo, ownerFlags) == 9);
static_assert(offsetof(HFSPlusBSDInfo, fileMode) == 10);
static_assert(offsetof(HFSPlusBSDInfo, special) == 12);

static_assert(sizeof(FndrPoint) == 4);
static_assert(offsetof(FndrPoint, v) == 0);
static_assert(offsetof(FndrPoint, h) == 2);

static_assert(sizeof(FndrFileInfo) == 16);
static_assert(offsetof(FndrFileInfo, fdType) == 0);
static_assert(offsetof(FndrFileInfo, fdCreator) == 4);
static_assert(offsetof(FndrFileInfo, fdFlags) == 8);
static_assert(offsetof(FndrFileInfo, fdLocation) == 10);
static_assert(offsetof(FndrFileInfo, opaque) == 14);

static_assert(sizeof(FndrRect) == 8);
static_assert(offsetof(FndrRect, top) == 0);
static_assert(offsetof(FndrRect, left) == 2);
static_assert(offsetof(FndrRect, bottom) == 4);
static_assert(offsetof(FndrRect, right) == 6);

static_assert(sizeof(FndrDirInfo) == 16);
static_assert(offsetof(FndrDirInfo, frRect) == 0);
static_assert(offsetof(FndrDirInfo, frFlags) == 8);
static_assert(offsetof(FndrDirInfo, frLocation) == 10);
static_assert(offsetof(FndrDirInfo, opaque) == 14);

static_assert(sizeof(FndrOpaqueInfo) == 16);
static_assert(offsetof(FndrOpaqueInfo, opaque) == 0);

static_assert(sizeof(HFSPlusCatalogFolder) == 88);
static_assert(offsetof(HFSPlusCatalogFolder, recordType) == 0);
static_assert(offsetof(HFSPlusCatalogFolder, flags) == 2);
static_assert(offsetof(HFSPlusCatalogFolder, valence) == 4);
static_assert(offsetof(HFSPlusCatalogFolder, folderID) == 8);
static_assert(offsetof(HFSPlusCatalogFolder, createDate) == 12);
static_assert(offsetof(HFSPlusCatalogFolder, contentModDate) == 16);
static_assert(offsetof(HFSPlusCatalogFolder, attributeModDate) == 20);
static_assert(offsetof(HFSPlusCatalogFolder, accessDate) == 24);
static_assert(offsetof(HFSPlusCatalogFolder, backupDate) == 28);
static_assert(offsetof(HFSPlusCatalogFolder, bsdInfo) == 32);
static_assert(offsetof(HFSPlusCatalogFolder, userInfo) == 48);
static_assert(offsetof(HFSPlusCatalogFolder, finderInfo) == 64);
static_assert(offsetof(HFSPlusCatalogFolder, textEncoding) == 80);
static_assert(offsetof(HFSPlusCatalogFolder, folderCount) == 84);

static_assert(sizeof(HFSPlusCatalogFile) == 248);
static_assert(offsetof(HFSPlusCatalogFile, recordType) == 0);
static_assert(offsetof(HFSPlusCatalogFile, flags) == 2);
static_assert(offsetof(HFSPlusCatalogFile, reserved1) == 4);
static_assert(offsetof(HFSPlusCatalogFile, fileID) == 8);
static_assert(offsetof(HFSPlusCatalogFile, createDate) == 12);
static_assert(offsetof(HFSPlusCatalogFile, contentModDate) == 16);
static_assert(offsetof(HFSPlusCatalogFile, attributeModDate) == 20);
static_assert(offsetof(HFSPlusCatalogFile, accessDate) == 24);
static_assert(offsetof(HFSPlusCatalogFile, backupDate) == 28);
static_assert(offsetof(HFSPlusCatalogFile, bsdInfo) == 32);
static_assert(offsetof(HFSPlusCatalogFile, userInfo) == 48);
static_assert(offsetof(HFSPlusCatalogFile, finderInfo) == 64);
static_assert(offsetof(HFSPlusCatalogFile, textEncoding) == 80);
static_assert(offsetof(HFSPlusCatalogFile, reserved2) == 84);
static_assert(offsetof(HFSPlusCatalogFile, dataFork) == 88);
static_assert(offsetof(HFSPlusCatalogFile, resourceFork) == 168);
