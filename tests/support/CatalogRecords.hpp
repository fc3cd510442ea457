#pragma once

#include <cstdint>
#include <vector>

#include "support/BTreeWriter.hpp"
#include "support/BuiltVolume.hpp"

namespace support {

constexpr uint32_t kNoFork = UINT32_MAX;

/// A file or folder with its place in the tree and its forks in the list of all forks.
struct CatalogItem {
  uint32_t id = 0;
  uint32_t parentID = 0;
  const std::u16string* name = nullptr;
  const FileDescription* file = nullptr;      // one of these two
  const FolderDescription* folder = nullptr;  // is set
  uint32_t dataFork = kNoFork;
  uint32_t resourceFork = kNoFork;
};

/// All items of a description, the root folder first, in no particular order.
std::vector<CatalogItem> catalogItems(const VolumeDescription& description);

/// The records of the catalog: the items' own records and their threads, in key order.
class CatalogRecords : public RecordSource {
 public:
  /// Keeps references to all three.
  CatalogRecords(const VolumeDescription& description, const std::vector<CatalogItem>& items,
                 const std::vector<BuiltFork>& forks);

  size_t count() const override { return _records.size(); }
  size_t keySize(size_t index) const override;
  size_t recordSize(size_t index) const override;
  void write(size_t index, std::span<std::byte> into) const override;

  /// A description of two items with the same ID, or of the same name in one folder; empty if there
  /// are none.
  std::string conflict() const;

 private:
  struct Record {
    uint32_t item;
    bool isThread;
  };

  bool lessByName(uint32_t a, uint32_t b) const;
  int compareNames(const std::u16string& a, const std::u16string& b) const;
  void writeKey(ByteWriter& writer, const Record& record) const;
  void writeThread(ByteWriter& writer, const CatalogItem& item) const;
  void writeFolder(ByteWriter& writer, const CatalogItem& item) const;
  void writeFile(ByteWriter& writer, const CatalogItem& item) const;
  void writeFork(ByteWriter& writer, const ForkDescription& fork, uint32_t index) const;
  uint32_t dateOf(const CatalogItem& item) const;

  const VolumeDescription& _description;
  const std::vector<CatalogItem>& _items;
  const std::vector<BuiltFork>& _forks;
  std::vector<Record> _records;
  std::string _conflict;
};

/// Writes a fork's 80 bytes, with as many extents as they hold.
void writeForkData(ByteWriter& writer, const BuiltFork& fork, uint32_t clumpSize);

}  // namespace support
