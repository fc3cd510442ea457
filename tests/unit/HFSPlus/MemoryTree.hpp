#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusBTreeFile.hpp"
#include "HFSPlus/HFSPlusHeldWrites.hpp"
#include "HFSPlus/HFSPlusVolumeAccess.hpp"

/// A volume in memory that holds one file, a B-tree without records, from its first byte on.
class MemoryTreeVolume : public HFSPlusVolumeAccess {
 public:
  MemoryTreeVolume(uint32_t fileID, uint32_t nodeSize, uint32_t totalNodes);

  uint32_t nodeSize() const { return _nodeSize; }
  std::span<std::byte> node(uint32_t index) {
    return std::span(_bytes).subspan(size_t{index} * _nodeSize, _nodeSize);
  }
  /// The header record on disk, changed by `edit`.
  template <typename Edit>
  void editHeader(Edit&& edit) {
    DiskOrder<BTHeaderRec> disk;
    std::memcpy(&disk, &_bytes[sizeof(BTNodeDescriptor)], sizeof disk);
    BTHeaderRec header = toHost(disk);
    edit(header);
    disk = toDisk(header);
    std::memcpy(&_bytes[sizeof(BTNodeDescriptor)], &disk, sizeof disk);
  }
  void setUsed(uint32_t index, bool used);

  /// Puts the held writes where they belong; the nodes written, in order.
  std::vector<uint32_t> writeHeld();
  /// The nodes that are held.
  std::vector<uint32_t> heldNodes() const;

  struct Read {
    uint64_t offset;
    uint64_t size;
    friend bool operator==(const Read&, const Read&) = default;
  };
  std::vector<Read> reads;             // since somebody cleared them
  std::set<uint64_t> unreadableNodes;  // reads that touch one fail

  std::vector<std::byte>& bytes() { return _bytes; }
  HFSPlusForkData& forkData() { return _forkData; }

  Result<> readVolume(std::span<std::byte> bytes, uint64_t offset) override;
  const HFSPlusVolumeHeader& hostVolumeHeader() const override { return _header; }
  const HFSPlusForkData* hostForkData(uint32_t fileID) const override {
    return fileID == _fileID ? &_forkData : nullptr;
  }
  Result<HFSPlusTranslation> translateOffset(uint64_t offset, uint32_t fileID, uint8_t forkType,
                                             const HFSPlusForkData& forkData) override;
  HFSPlusHeldWrites& heldWrites() override { return _heldWrites; }
  uint32_t blockSizeOfDevice() const override { return 512; }
  bool isHFSX() const override { return false; }
  void updateFreeBlocks(int64_t) override {}

 private:
  std::byte& _mapByte(uint32_t index);

  uint32_t _fileID;
  uint32_t _nodeSize;
  std::vector<std::byte> _bytes;
  HFSPlusForkData _forkData{};
  HFSPlusVolumeHeader _header{};
  HFSPlusHeldWrites _heldWrites;
};

/// A B-tree that opens what it is given and lets tests reach everything.
class PlainTree : public HFSPlusBTreeFile {
 public:
  static Result<std::unique_ptr<PlainTree>> open(HFSPlusVolumeAccess& volume, uint32_t fileID) {
    std::unique_ptr<PlainTree> tree(new PlainTree(volume, fileID));
    TRY(tree->openBTree());
    return tree;
  }
  XRDefragError inconsistent() const override {
    return XRDefragError::localized("Plain tree is inconsistent.");
  }

  using HFSPlusBTreeFile::decrementTreeDepth;
  using HFSPlusBTreeFile::incrementTreeDepth;
  using HFSPlusBTreeFile::newNodeWithIndex;
  using HFSPlusBTreeFile::setFirstLeafNode;
  using HFSPlusBTreeFile::setLastLeafNode;
  Result<> moreLeafRecords() { return incrementLeafRecordCount(); }
  Result<> fewerLeafRecords() { return decrementLeafRecordCount(); }

 private:
  using HFSPlusBTreeFile::HFSPlusBTreeFile;
};

/// A tree opened on a volume; the test fails if that fails.
std::unique_ptr<PlainTree> openPlainTree(MemoryTreeVolume& volume);

/// The message of a failed result; empty after success.
template <typename T>
std::string messageOf(const Result<T>& result) {
  return result ? std::string() : result.error().description();
}
