#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <vector>

#include "support/BTreeWriter.hpp"

namespace support {

/// The records of the extents overflow file, in key order once sort() has been called.
class OverflowRecords : public RecordSource {
 public:
  /// Adds the records that a fork's extents need from the `skip`-th on (eight stand elsewhere).
  void addFork(uint32_t fileID, uint8_t forkType, std::span<const BlockExtent> extents,
               size_t skip);

  /// Adds one record as it is.
  void addRecord(uint32_t fileID, uint8_t forkType, uint32_t startBlock,
                 std::span<const BlockExtent> extents);

  void sort();

  size_t count() const override { return _records.size(); }
  size_t keySize(size_t) const override { return kKeySize; }
  size_t recordSize(size_t) const override { return kKeySize + 8 * kExtentsInRecord; }
  void write(size_t index, std::span<std::byte> into) const override;

  static constexpr uint16_t kKeyLength = 10;

 private:
  static constexpr size_t kKeySize = 2 + kKeyLength;

  struct Record {
    uint32_t fileID;
    uint8_t forkType;
    uint32_t startBlock;
    std::array<BlockExtent, kExtentsInRecord> extents;
  };
  std::vector<Record> _records;
};

}  // namespace support
