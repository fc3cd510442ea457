#include "support/OverflowRecords.hpp"

#include <algorithm>
#include <tuple>

namespace support {

void OverflowRecords::addFork(uint32_t fileID, uint8_t forkType,
                              std::span<const BlockExtent> extents, size_t skip) {
  uint32_t startBlock = 0;
  for (size_t i = 0; i < extents.size(); ++i) {
    if (i >= skip && (i - skip) % kExtentsInRecord == 0) {
      const size_t count = std::min(kExtentsInRecord, extents.size() - i);
      addRecord(fileID, forkType, startBlock, extents.subspan(i, count));
    }
    startBlock += extents[i].count;
  }
}

void OverflowRecords::addRecord(uint32_t fileID, uint8_t forkType, uint32_t startBlock,
                                std::span<const BlockExtent> extents) {
  Record& record = _records.emplace_back(Record{fileID, forkType, startBlock, {}});
  std::ranges::copy(extents, record.extents.begin());
}

void OverflowRecords::sort() {
  std::ranges::sort(_records, {}, [](const Record& record) {
    return std::tuple(record.fileID, record.forkType, record.startBlock);
  });
}

void OverflowRecords::write(size_t index, std::span<std::byte> into) const {
  const Record& record = _records[index];
  ByteWriter writer(into);
  writer.u16(kKeyLength).u8(record.forkType).u8(0).u32(record.fileID).u32(record.startBlock);
  for (const BlockExtent& extent : record.extents)
    writer.u32(extent.start).u32(extent.count);
}

}  // namespace support
