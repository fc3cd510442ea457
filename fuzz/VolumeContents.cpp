#include "VolumeContents.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <set>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusAttributes.hpp"
#include "HFSPlus/HFSPlusBTreeBulkIterator.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusCatalogScan.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusForkWalk.hpp"
#include "LWKit/LWFormat.hpp"

namespace fuzz {

namespace {

// What is looked at of a fork, so that a fork that claims to be endless takes no endless time.
constexpr uint64_t kMostForkBytes = uint64_t{4} << 20;

/// The C++ library's hash, which is fast even in a program that watches itself.
class Hash {
 public:
  void add(std::span<const std::byte> bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    _value = std::rotl(_value, 7) ^ std::hash<std::string_view>()(text);
  }
  uint64_t value() const { return _value; }

 private:
  uint64_t _value = 0;
};

class Reader final : public HFSPlusCatalogScanDelegate {
 public:
  explicit Reader(HFSPlusVolume& volume)
      : _volume(volume), _owned(volume.hostVolumeHeader().totalBlocks) {}

  VolumeContents read() {
    for (const uint32_t fileID : {3U, 4U, 6U, 7U, 8U}) {
      ownExtents(*_volume.hostForkData(fileID), fileID, kHFSDataForkType);
    }
    static_cast<void>(_volume.scanCatalogFiles(*this));
    readLeaves();
    readAttributes();
    for (const std::string& owner : _unsure) {
      _contents.checksums.erase(owner);
    }
    readOwnerless();
    return std::move(_contents);
  }

 private:
  Result<> scanCatalogFile(const DiskOrder<HFSPlusCatalogFile>& file,
                           const HFSPlusCatalogKeyView&) override {
    const HFSPlusCatalogFile host = toHost(file);
    readFork(host.dataFork, host.fileID, kHFSDataForkType);
    readFork(host.resourceFork, host.fileID, kHFSResourceForkType);
    return {};
  }

  /// Files that the map of nodes does not lead to can be found by their names all the same.
  void readLeaves() {
    HFSPlusCatalog& catalog = _volume.catalog();
    uint32_t next = catalog.firstLeafNode();
    for (uint32_t nodes = 0; next != 0 && nodes < catalog.nodeCount(); ++nodes) {
      const auto node = catalog.cachedNodeWithIndex(next);
      if (!node || (*node)->kind() != kBTLeafNode) {
        return;
      }
      for (uint32_t i = 0; i < (*node)->recordCount(); ++i) {
        const auto record = HFSPlusCatalogRecordView::of((*node)->recordDataAtIndex(i));
        if (record && record->type() == kHFSPlusFileRecord && record->file() != nullptr) {
          static_cast<void>(scanCatalogFile(*record->file(), record->key));
        }
      }
      next = (*node)->fLink();
    }
  }

  void own(const HFSPlusExtentDescriptor& extent) {
    const uint64_t end = uint64_t{extent.startBlock} + extent.blockCount;
    for (uint64_t block = extent.startBlock; block < std::min<uint64_t>(end, _owned.size());
         ++block) {
      _owned[block] = true;
    }
  }

  void ownExtents(const HFSPlusForkData& fork, uint32_t fileID, uint8_t forkType) {
    static_cast<void>(
        HFSPlusWalkForkExtents(_volume.extents(), fork, fileID, forkType,
                               [this](const HFSPlusExtentDescriptor& extent) { own(extent); }));
  }

  void take(const std::string& owner, uint64_t checksum) {
    const auto [entry, isNew] = _contents.checksums.emplace(owner, checksum);
    if (!isNew && entry->second != checksum) {
      _unsure.insert(owner);
    }
  }

  void readFork(const HFSPlusForkData& fork, uint32_t fileID, uint8_t forkType) {
    ownExtents(fork, fileID, forkType);
    if (fork.logicalSize == 0) {
      return;
    }
    const std::string owner = LWFormat("fork %u of file %u", forkType, fileID);
    Hash checksum;
    const uint64_t bytes = std::min(fork.logicalSize, kMostForkBytes);
    std::vector<std::byte> content;
    for (uint64_t offset = 0; offset < bytes;) {
      const auto place = _volume.translateOffset(offset, fileID, forkType, fork);
      if (!place) {
        _unsure.insert(owner);
        return;
      }
      const uint64_t length = std::min(place->length, bytes - offset);
      content.resize(offset + length);
      if (!_volume.read(std::span(content).subspan(offset), place->offset)) {
        _unsure.insert(owner);
        return;
      }
      offset += length;
    }
    checksum.add(content);
    take(owner, checksum.value());
  }

  void readAttributes() {
    HFSPlusAttributes* attributes = _volume.attributes();
    if (attributes == nullptr) {
      return;
    }
    const auto nodes = HFSPlusBTreeBulkIterator::open(*attributes);
    while (nodes) {
      const auto node = (*nodes)->nextCachedNode();
      if (!node || !*node) {
        return;
      }
      for (uint32_t i = 0; (*node)->kind() == kBTLeafNode && i < (*node)->recordCount(); ++i) {
        readAttribute((*node)->recordDataAtIndex(i));
      }
    }
  }

  void readAttribute(std::span<const std::byte> record) {
    constexpr uint32_t kFork = 0x20;
    constexpr uint32_t kMore = 0x30;
    const size_t key = record.size() < 2 ? 0 : 2 + size_t{readBigEndian<uint16_t>(record.data())};
    if (record.size() < key + key % 2 + 4) {
      return;
    }
    const auto data = record.subspan(key + key % 2);
    const auto type = readBigEndian<uint32_t>(data.data());
    const size_t at = type == kFork ? 24 : 8;
    DiskOrder<HFSPlusExtentRecord> disk;
    if ((type != kFork && type != kMore) || data.size() < at + sizeof disk) {
      return;
    }
    std::memcpy(&disk, &data[at], sizeof disk);
    Hash checksum;
    for (const HFSPlusExtentDescriptor& extent : toHost(disk)) {
      if (extent.startBlock == 0 || extent.blockCount == 0) {
        continue;
      }
      own(extent);
      if (uint64_t{extent.startBlock} + extent.blockCount > _owned.size()) {
        return;
      }
      checksum.add(blocks(extent.startBlock, std::min(extent.blockCount, 4096U)));
    }
    take("attribute " + std::string(reinterpret_cast<const char*>(record.data()), key),
         checksum.value());
  }

  std::vector<std::byte> blocks(uint32_t start, uint32_t count) {
    const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
    std::vector<std::byte> bytes(count * blockSize);
    static_cast<void>(_volume.read(bytes, start * blockSize));
    return bytes;
  }

  void readOwnerless() {
    const auto total = static_cast<uint32_t>(_owned.size());
    // The boot area and the alternate header change with every run.
    const uint32_t blockSize = _volume.hostVolumeHeader().blockSize;
    const uint32_t first = (kHFSPlusBootAreaBytes + blockSize - 1) / blockSize;
    const uint32_t last = total - std::min(total, blockSize <= 512 ? 2U : 1U);
    constexpr uint32_t kMostBlocks = 4096;
    for (uint32_t block = first, read = 0; block < last && read < kMostBlocks;) {
      const auto clear = _volume.allocation().isClear(block, last - block);
      if (!clear) {
        return;
      }
      block += *clear;
      if (block < last) {
        if (!_owned[block]) {
          Hash checksum;
          checksum.add(blocks(block, 1));
          _contents.ownerless.emplace(block, checksum.value());
          ++read;
        }
        ++block;
      }
    }
  }

  HFSPlusVolume& _volume;
  std::vector<bool> _owned;
  std::set<std::string> _unsure;
  VolumeContents _contents;
};

}  // namespace

VolumeContents contentsOf(HFSPlusVolume& volume) {
  return Reader(volume).read();
}

std::string ownerOfDataFork(uint32_t fileID) {
  return LWFormat("fork %u of file %u", kHFSDataForkType, fileID);
}

std::string lostContents(const VolumeContents& before, const VolumeContents& after,
                         const std::string& excepted) {
  for (const auto& [owner, checksum] : before.checksums) {
    const auto found = after.checksums.find(owner);
    if (owner != excepted && (found == after.checksums.end() || found->second != checksum)) {
      return owner + (found == after.checksums.end() ? " can no longer be read" : " has changed");
    }
  }
  for (const auto& [block, checksum] : before.ownerless) {
    const auto found = after.ownerless.find(block);
    if (found == after.ownerless.end() || found->second != checksum) {
      return LWFormat("block %u, used by nobody, %s", block,
                      found == after.ownerless.end() ? "is no longer so" : "has changed");
    }
  }
  return {};
}

}  // namespace fuzz
