#include "support/AttributeRecords.hpp"

#include <algorithm>
#include <tuple>

namespace support {

namespace {

constexpr size_t kEmptyKeySize = 14;
constexpr size_t kInlineHeaderSize = 16;
constexpr size_t kForkHeaderSize = 8;

const ItemDescription& described(const CatalogItem& item) {
  if (item.folder != nullptr)
    return *item.folder;
  return *item.file;
}

}  // namespace

AttributeRecords::AttributeRecords(const std::vector<CatalogItem>& items,
                                   const std::vector<AttributeFork>& attributeForks,
                                   const std::vector<BuiltFork>& forks)
    : _forks(forks) {
  for (const CatalogItem& item : items) {
    for (const AttributeDescription& attribute : described(item).attributes) {
      if (!attribute.hasFork)
        _records.push_back({item.id, &attribute, kNoFork, 0, 0});
    }
  }
  for (const AttributeFork& attributeFork : attributeForks)
    addFork(attributeFork, forks[attributeFork.fork]);
  std::ranges::sort(_records, {}, [](const Record& record) {
    return std::tuple(record.fileID, std::u16string_view(record.attribute->name),
                      record.startBlock);
  });
}

void AttributeRecords::addFork(const AttributeFork& attributeFork, const BuiltFork& fork) {
  const bool known = !fork.extents.empty();
  const size_t extents = known ? fork.extents.size() : attributeFork.attribute->fork.fragments;
  uint32_t startBlock = 0;
  for (size_t i = 0; i == 0 || i < extents; ++i) {
    if (i % kExtentsInRecord == 0)
      _records.push_back(
          {attributeFork.fileID, attributeFork.attribute, attributeFork.fork, startBlock, i});
    startBlock += known ? fork.extents[i].count : 1;
  }
}

size_t AttributeRecords::keySize(size_t index) const {
  return kEmptyKeySize + 2 * _records[index].attribute->name.size();
}

size_t AttributeRecords::recordSize(size_t index) const {
  const Record& record = _records[index];
  if (record.fork == kNoFork)
    return keySize(index) + kInlineHeaderSize + dividedUp(record.attribute->bytes.size(), 2) * 2;
  const size_t body = record.firstExtent == 0 ? kForkDataSize : 8 * kExtentsInRecord;
  return keySize(index) + kForkHeaderSize + body;
}

void AttributeRecords::write(size_t index, std::span<std::byte> into) const {
  const Record& record = _records[index];
  const std::u16string& name = record.attribute->name;
  ByteWriter writer(into);
  writer.u16(static_cast<uint16_t>(keySize(index) - 2))
      .u16(0)
      .u32(record.fileID)
      .u32(record.startBlock)
      .u16(static_cast<uint16_t>(name.size()))
      .units(name);
  if (record.fork == kNoFork) {
    const Bytes& value = record.attribute->bytes;
    writer.u32(kInlineAttribute).u64(0).u32(static_cast<uint32_t>(value.size())).bytes(value);
    return;
  }
  const BuiltFork& fork = _forks[record.fork];
  if (record.firstExtent == 0) {
    writeForkData(writer.u32(kForkAttribute).u32(0), fork, 0);
    return;
  }
  writer.u32(kExtentsAttribute).u32(0);
  const size_t end = std::min(fork.extents.size(), record.firstExtent + kExtentsInRecord);
  for (size_t i = record.firstExtent; i < end; ++i)
    writer.u32(fork.extents[i].start).u32(fork.extents[i].count);
}

}  // namespace support
