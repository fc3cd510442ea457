#pragma once

#include <cstdint>
#include <vector>

#include "support/BTreeWriter.hpp"
#include "support/BuiltVolume.hpp"
#include "support/CatalogRecords.hpp"

namespace support {

/// An attribute with a fork of its own: which fork of all that is.
struct AttributeFork {
  uint32_t fileID = 0;
  uint32_t fork = kNoFork;
  const AttributeDescription* attribute = nullptr;
};

/// The records of the attributes file, in key order: inline values, fork data and further extents.
class AttributeRecords : public RecordSource {
 public:
  /// Keeps a reference to `forks`, whose extents decide how many records there are. While the
  /// extents are not known yet, the planned number of fragments does.
  AttributeRecords(const std::vector<CatalogItem>& items,
                   const std::vector<AttributeFork>& attributeForks,
                   const std::vector<BuiltFork>& forks);

  size_t count() const override { return _records.size(); }
  size_t keySize(size_t index) const override;
  size_t recordSize(size_t index) const override;
  void write(size_t index, std::span<std::byte> into) const override;

  static constexpr uint16_t kMaxKeyLength = 266;

 private:
  struct Record {
    uint32_t fileID;
    const AttributeDescription* attribute;
    uint32_t fork;  // kNoFork for inline values
    uint32_t startBlock;
    size_t firstExtent;  // 0 for the attribute's first record
  };

  void addFork(const AttributeFork& attributeFork, const BuiltFork& fork);

  const std::vector<BuiltFork>& _forks;
  std::vector<Record> _records;
};

}  // namespace support
