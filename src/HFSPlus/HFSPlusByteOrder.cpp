#include "HFSPlus/HFSPlusByteOrder.hpp"

#include <algorithm>
#include <span>

namespace {

// Reversing a field's bytes is the same in both directions, so each structure lists its swapped
// fields once; what it does not list keeps its bytes. The structures are packed: a field may be
// named, but no reference to it may be bound.
template <typename T>
constexpr T swapped(T value) {
  return std::endian::native == std::endian::little ? std::byteswap(value) : value;
}
#define SWAP(field) field = swapped(field)

void swapStructure(HFSPlusExtentRecord& record) {
  for (HFSPlusExtentDescriptor& extent : record) {
    SWAP(extent.startBlock);
    SWAP(extent.blockCount);
  }
}

void swapStructure(HFSPlusForkData& fork) {
  SWAP(fork.logicalSize);
  SWAP(fork.clumpSize);
  SWAP(fork.totalBlocks);
  swapStructure(fork.extents);
}

void swapStructure(HFSPlusVolumeHeader& header) {
  SWAP(header.signature);
  SWAP(header.version);
  SWAP(header.attributes);
  SWAP(header.lastMountedVersion);
  SWAP(header.journalInfoBlock);
  SWAP(header.createDate);
  SWAP(header.modifyDate);
  SWAP(header.backupDate);
  SWAP(header.checkedDate);
  SWAP(header.fileCount);
  SWAP(header.folderCount);
  SWAP(header.blockSize);
  SWAP(header.totalBlocks);
  SWAP(header.freeBlocks);
  SWAP(header.nextAllocation);
  SWAP(header.rsrcClumpSize);
  SWAP(header.dataClumpSize);
  SWAP(header.nextCatalogID);
  SWAP(header.writeCount);
  SWAP(header.encodingsBitmap);
  swapStructure(header.allocationFile);
  swapStructure(header.extentsFile);
  swapStructure(header.catalogFile);
  swapStructure(header.attributesFile);
  swapStructure(header.startupFile);
}

void swapStructure(BTHeaderRec& header) {
  SWAP(header.treeDepth);
  SWAP(header.rootNode);
  SWAP(header.leafRecords);
  SWAP(header.firstLeafNode);
  SWAP(header.lastLeafNode);
  SWAP(header.nodeSize);
  SWAP(header.maxKeyLength);
  SWAP(header.totalNodes);
  SWAP(header.freeNodes);
  SWAP(header.clumpSize);
  SWAP(header.attributes);
}

void swapStructure(HFSPlusBSDInfo& info) {
  SWAP(info.ownerID);
  SWAP(info.groupID);
  SWAP(info.fileMode);
  SWAP(info.special);
}

void swapStructure(FndrFileInfo& info) {
  SWAP(info.fdType);
  SWAP(info.fdCreator);
  SWAP(info.fdFlags);
  SWAP(info.fdLocation.v);
  SWAP(info.fdLocation.h);
}

void swapStructure(FndrDirInfo& info) {
  SWAP(info.frRect.top);
  SWAP(info.frRect.left);
  SWAP(info.frRect.bottom);
  SWAP(info.frRect.right);
  SWAP(info.frFlags);
  SWAP(info.frLocation.v);
  SWAP(info.frLocation.h);
}

void swapStructure(HFSPlusCatalogFile& file) {
  SWAP(file.recordType);
  SWAP(file.flags);
  SWAP(file.fileID);
  SWAP(file.createDate);
  SWAP(file.contentModDate);
  SWAP(file.attributeModDate);
  SWAP(file.accessDate);
  SWAP(file.backupDate);
  SWAP(file.textEncoding);
  SWAP(file.reserved2);
  swapStructure(file.bsdInfo);
  swapStructure(file.userInfo);
  swapStructure(file.dataFork);
  swapStructure(file.resourceFork);
}

void swapStructure(HFSPlusCatalogFolder& folder) {
  SWAP(folder.recordType);
  SWAP(folder.flags);
  SWAP(folder.valence);
  SWAP(folder.folderID);
  SWAP(folder.createDate);
  SWAP(folder.contentModDate);
  SWAP(folder.attributeModDate);
  SWAP(folder.accessDate);
  SWAP(folder.backupDate);
  SWAP(folder.textEncoding);
  SWAP(folder.folderCount);
  swapStructure(folder.bsdInfo);
  swapStructure(folder.userInfo);
}

void swapUnits(HFSUniStr255& name, uint16_t length) {
  const size_t count = std::min<size_t>(length, kHFSPlusMaxNameUnits);
  for (uint16_t& unit : std::span(name.unicode).first(count)) {
    unit = swapped(unit);
  }
}

template <typename T>
T hostFrom(const DiskOrder<T>& disk) {
  T structure = std::bit_cast<T>(disk.bytes);
  swapStructure(structure);
  return structure;
}

template <typename T>
DiskOrder<T> diskFrom(T structure) {
  swapStructure(structure);
  return DiskOrder<T>{std::bit_cast<std::array<std::byte, sizeof(T)>>(structure)};
}

}  // namespace

HFSPlusExtentRecord toHost(const DiskOrder<HFSPlusExtentRecord>& disk) {
  return hostFrom(disk);
}
DiskOrder<HFSPlusExtentRecord> toDisk(const HFSPlusExtentRecord& host) {
  return diskFrom(host);
}

HFSPlusForkData toHost(const DiskOrder<HFSPlusForkData>& disk) {
  return hostFrom(disk);
}
DiskOrder<HFSPlusForkData> toDisk(const HFSPlusForkData& host) {
  return diskFrom(host);
}

HFSPlusVolumeHeader toHost(const DiskOrder<HFSPlusVolumeHeader>& disk) {
  return hostFrom(disk);
}
DiskOrder<HFSPlusVolumeHeader> toDisk(const HFSPlusVolumeHeader& host) {
  return diskFrom(host);
}

BTHeaderRec toHost(const DiskOrder<BTHeaderRec>& disk) {
  return hostFrom(disk);
}
DiskOrder<BTHeaderRec> toDisk(const BTHeaderRec& host) {
  return diskFrom(host);
}

HFSPlusCatalogFile toHost(const DiskOrder<HFSPlusCatalogFile>& disk) {
  return hostFrom(disk);
}
DiskOrder<HFSPlusCatalogFile> toDisk(const HFSPlusCatalogFile& host) {
  return diskFrom(host);
}

HFSPlusCatalogFolder toHost(const DiskOrder<HFSPlusCatalogFolder>& disk) {
  return hostFrom(disk);
}
DiskOrder<HFSPlusCatalogFolder> toDisk(const HFSPlusCatalogFolder& host) {
  return diskFrom(host);
}

HFSPlusCatalogKey toHost(const DiskOrder<HFSPlusCatalogKey>& disk) {
  HFSPlusCatalogKey key = std::bit_cast<HFSPlusCatalogKey>(disk.bytes);
  SWAP(key.keyLength);
  SWAP(key.parentID);
  SWAP(key.nodeName.length);
  swapUnits(key.nodeName, key.nodeName.length);  // the count as it is after the swap
  return key;
}

DiskOrder<HFSPlusCatalogKey> toDisk(const HFSPlusCatalogKey& host) {
  HFSPlusCatalogKey key = host;
  swapUnits(key.nodeName, key.nodeName.length);  // the count as it is before the swap
  SWAP(key.keyLength);
  SWAP(key.parentID);
  SWAP(key.nodeName.length);
  return {std::bit_cast<std::array<std::byte, sizeof(HFSPlusCatalogKey)>>(key)};
}
