#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusHeldWrites.hpp"
#include "HFSPlus/HFSPlusVolumeAccess.hpp"

std::vector<std::byte> diskName(std::u16string_view text);
HFSPlusCatalogKeyView keyView(uint32_t parentID, std::span<const std::byte> name);

/// A volume of nothing but a catalog, in memory: small nodes, every byte within reach.
///
/// Fill it, build(), damage what the test is about, open(). Names are ordered as their letters in
/// lower case, so only ASCII names are in the places where the program looks for them.
class MemoryCatalog : public HFSPlusVolumeAccess {
 public:
  struct Place {
    uint32_t node;
    uint32_t record;
  };

  bool hfsx = false;
  bool binaryNames = false;
  uint32_t nodeSize = 1024;
  /// At most so many records in a leaf, and in an index node.
  size_t recordsPerLeaf = 1000;
  size_t recordsPerIndexNode = 1000;
  /// Nodes behind those in use.
  uint32_t freeNodes = 0;
  /// The first leaf of the chain lies last in the file.
  bool leavesBackward = false;

  void addRecord(uint32_t parentID, std::u16string name, std::vector<std::byte> data);
  void addThread(uint32_t id, int16_t type, uint32_t parentID, std::u16string_view name);
  /// Record and thread.
  void addFolder(uint32_t parentID, std::u16string_view name, uint32_t id);
  void addFile(uint32_t parentID, std::u16string_view name, uint32_t id,
               const HFSPlusForkData& data = {}, const HFSPlusForkData& resource = {});

  void build();

  uint32_t totalNodes() const { return static_cast<uint32_t>(_image.size() / nodeSize); }
  std::span<std::byte> node(uint32_t index);
  std::span<std::byte> record(Place place);
  /// The record's bytes behind its key.
  std::span<std::byte> recordData(Place place);
  /// Where a leaf record lies.
  Place place(uint32_t parentID, std::u16string name) const;
  std::span<std::byte> recordData(uint32_t parentID, std::u16string name) {
    return recordData(place(parentID, std::move(name)));
  }
  uint32_t rootNode() const { return _root; }
  uint32_t firstLeaf() const { return _firstLeaf; }

  /// Opens the catalog; a failure fails the test.
  std::unique_ptr<HFSPlusCatalog> open();

  /// Bytes of the volume that were read since the last time this was asked.
  uint64_t takeBytesRead() { return std::exchange(_bytesRead, 0); }

  Result<> readVolume(std::span<std::byte> bytes, uint64_t offset) override;
  const HFSPlusVolumeHeader& hostVolumeHeader() const override { return _header; }
  const HFSPlusForkData* hostForkData(uint32_t fileID) const override;
  Result<HFSPlusTranslation> translateOffset(uint64_t offset, uint32_t fileID, uint8_t forkType,
                                             const HFSPlusForkData& forkData) override;
  HFSPlusHeldWrites& heldWrites() override { return _heldWrites; }
  uint32_t blockSizeOfDevice() const override { return 512; }
  bool isHFSX() const override { return hfsx; }
  void updateFreeBlocks(int64_t) override {}

 private:
  struct Entry {
    uint32_t parentID;
    std::u16string name;
    std::vector<std::byte> data;
  };
  struct Child {
    uint32_t node;
    const Entry* first;
  };

  std::vector<std::byte> _keyOf(const Entry& entry) const;
  bool _less(const Entry& a, const Entry& b) const;
  void _writeNode(uint32_t index, int8_t kind, uint8_t height, uint32_t fLink, uint32_t bLink,
                  const std::vector<std::vector<std::byte>>& records);
  std::vector<Child> _writeLeaves();
  std::vector<Child> _writeIndexNodes(const std::vector<Child>& children, uint8_t height);
  void _writeHeaderNode(uint16_t depth);

  std::vector<Entry> _entries;
  std::map<std::pair<uint32_t, std::u16string>, Place> _places;
  std::vector<std::byte> _image;
  uint32_t _usedNodes = 1;
  uint32_t _root = 0;
  uint32_t _firstLeaf = 0;
  uint32_t _lastLeaf = 0;
  HFSPlusVolumeHeader _header{};
  HFSPlusForkData _fork{};
  HFSPlusHeldWrites _heldWrites;
  uint64_t _bytesRead = 0;
};

/// The root folder, "/Documents" (20) with "Letters" (21), "note" (22) and "a/b" (23), and "/zoo"
/// (24).
MemoryCatalog smallTree();

/// The message of a failed result.
template <typename T>
std::string errorOf(const Result<T>& result) {
  return result ? "no error" : result.error().description();
}
