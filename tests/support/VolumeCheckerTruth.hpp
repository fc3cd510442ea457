#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/VolumeCheckerHash.hpp"
#include "support/VolumeCheckerSource.hpp"

namespace volumecheck {

constexpr std::uint32_t kRootParentID = 1;
constexpr std::uint32_t kRootFolderID = 2;
constexpr std::uint32_t kExtentsFileID = 3;
constexpr std::uint32_t kCatalogFileID = 4;
constexpr std::uint32_t kBadBlockFileID = 5;
constexpr std::uint32_t kAllocationFileID = 6;
constexpr std::uint32_t kStartupFileID = 7;
constexpr std::uint32_t kAttributesFileID = 8;
constexpr std::uint32_t kFirstUserID = 16;

enum class ForkType : std::uint8_t { Data = 0x00, Attribute = 0x01, Resource = 0xFF };

// A fork as the volume header, a file record or an attribute record describes it.
struct ForkData {
  std::uint64_t logicalSize = 0;
  std::uint32_t clumpSize = 0;
  std::uint32_t totalBlocks = 0;
  Extent extents[8];
};

ForkData forkDataFrom(Bytes bytes);

struct Fork {
  std::uint32_t cnid = 0;
  ForkType type = ForkType::Data;
  std::string path;           // special files: "(HFS+ Catalog File)" and so on
  std::string attributeName;  // attribute forks only
  std::uint64_t logicalSize = 0;
  std::uint32_t totalBlocks = 0;
  std::vector<Extent> extents;        // those of the overflow file (or attribute records) included
  std::uint32_t overflowRecords = 0;  // records beyond the first eight extents
  std::uint32_t overflowLeafNodes = 0;  // leaf nodes that these records lie in
  std::uint32_t strayRecords = 0;       // overflow records beyond `totalBlocks`, not part of it
  bool sound = true;                    // the extents lie in the volume and cover the fork
  bool hashed = false;                  // `hash` is that of the fork's `logicalSize` bytes
  Hash128 hash;
};

enum class RecordType : std::uint16_t { Folder = 1, File = 2, FolderThread = 3, FileThread = 4 };

// A folder or file record of the catalog.
struct CatalogItem {
  RecordType type = RecordType::File;
  std::uint32_t cnid = 0;
  std::uint32_t parentID = 0;
  std::u16string name;
  std::string path;  // "/a/b", the root folder is "/"; "/" inside names shown as ":"
  std::uint16_t flags = 0;
  std::uint32_t valence = 0;         // folders: as stored
  std::uint32_t subfolderCount = 0;  // folders: as stored
  std::uint32_t special = 0;         // inode number, link count or device
  std::uint32_t fileType = 0;
  std::uint32_t fileCreator = 0;
  std::uint32_t linkTarget = 0;  // hard links: the CNID of the file or folder linked to
  std::uint32_t leafNode = 0;    // the number of the catalog node that holds the record
  bool hasThread = false;
};

// A catalog leaf record, threads included, without where it puts its forks.
struct RecordPrint {
  std::uint32_t parentID = 0;
  std::u16string name;
  Hash128 hash;  // key and record with the fork extents blanked
};

struct HeaderTruth {
  std::uint16_t signature = 0, version = 0;
  std::uint32_t attributes = 0, lastMountedVersion = 0, journalInfoBlock = 0;
  std::uint32_t createDate = 0, modifyDate = 0, backupDate = 0, checkedDate = 0;
  std::uint32_t fileCount = 0, folderCount = 0, blockSize = 0, totalBlocks = 0, freeBlocks = 0;
  std::uint32_t nextAllocation = 0, rsrcClumpSize = 0, dataClumpSize = 0, nextCatalogID = 0;
  std::uint32_t writeCount = 0;
  std::uint64_t encodingsBitmap = 0;
  Hash128 finderInfo;
  ForkData allocationFile, extentsFile, catalogFile, attributesFile, startupFile;
};

HeaderTruth headerFrom(Bytes bytes);

struct JournalTruth {
  bool present = false;  // the header says journaled and the info block could be read
  std::uint32_t flags = 0;
  std::uint64_t offset = 0, size = 0;
  bool empty = false;
};

struct TreeTruth {
  std::uint32_t nodeSize = 0, totalNodes = 0, freeNodes = 0, leafRecords = 0, depth = 0;
};

// Everything a volume holds, as the checker read it.
struct VolumeTruth {
  bool hfsx = false;
  bool caseSensitive = false;
  std::uint64_t volumeOffset = 0;  // of the volume in its file (not 0 inside an HFS wrapper)
  std::uint64_t volumeSize = 0;
  HeaderTruth header;
  std::vector<Fork> forks;           // by CNID, type, attribute name
  std::vector<CatalogItem> items;    // in the order of the catalog
  std::vector<RecordPrint> records;  // in the order of the catalog
  Hash128 attributesHash;            // every attribute record, with the extents blanked
  std::vector<Extent> badBlocks;
  std::vector<Extent> freeRuns;  // runs of clear bits in the bitmap, if asked for
  std::uint64_t clearBits = 0;
  JournalTruth journal;
  TreeTruth extentsTree, catalogTree, attributesTree;

  // None when there is no such fork (empty forks of existing files are there).
  const Fork* findFork(std::uint32_t cnid, ForkType type) const;
  const CatalogItem* findItem(const std::string& path) const;
};

}  // namespace volumecheck
