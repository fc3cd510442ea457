#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusFormat.hpp"

// The records of the extents overflow tree as bytes of its nodes, big-endian:
//   leaf   keyLength:2 forkType:1 pad:1 fileID:4 startBlock:4, eight times startBlock:4
//   blockCount:4 index  the same key, childNode:4

inline constexpr uint16_t kHFSPlusExtentKeyLength = 10;  // without the length itself
inline constexpr size_t kHFSPlusExtentKeyBytes = sizeof(HFSPlusExtentKey);
inline constexpr size_t kHFSPlusExtentLeafRecordSize =
    kHFSPlusExtentKeyBytes + sizeof(HFSPlusExtentRecord);
inline constexpr size_t kHFSPlusExtentIndexRecordSize = kHFSPlusExtentKeyBytes + sizeof(uint32_t);

using HFSPlusExtentLeafRecord = std::array<std::byte, kHFSPlusExtentLeafRecordSize>;
using HFSPlusExtentIndexRecord = std::array<std::byte, kHFSPlusExtentIndexRecordSize>;

inline HFSPlusExtentKey HFSPlusMakeExtentKey(uint32_t fileID, uint8_t forkType,
                                             uint32_t startBlock) {
  return {kHFSPlusExtentKeyLength, forkType, 0, fileID, startBlock};
}

/// The key of a record of at least 12 bytes, in host order.
inline HFSPlusExtentKey HFSPlusExtentKeyOfRecord(std::span<const std::byte> record) {
  return {readBigEndian<uint16_t>(&record[offsetof(HFSPlusExtentKey, keyLength)]),
          std::to_integer<uint8_t>(record[offsetof(HFSPlusExtentKey, forkType)]),
          std::to_integer<uint8_t>(record[offsetof(HFSPlusExtentKey, pad)]),
          readBigEndian<uint32_t>(&record[offsetof(HFSPlusExtentKey, fileID)]),
          readBigEndian<uint32_t>(&record[offsetof(HFSPlusExtentKey, startBlock)])};
}

/// The extents of a leaf record, in host order.
inline HFSPlusExtentRecord HFSPlusExtentsOfRecord(std::span<const std::byte> record) {
  DiskOrder<HFSPlusExtentRecord> disk;
  std::memcpy(&disk, record.subspan(kHFSPlusExtentKeyBytes, sizeof disk).data(), sizeof disk);
  return toHost(disk);
}

/// A leaf record from a key and extents in host order.
inline HFSPlusExtentLeafRecord HFSPlusMakeExtentLeafRecord(const HFSPlusExtentKey& key,
                                                           const HFSPlusExtentRecord& host) {
  HFSPlusExtentLeafRecord record;
  writeBigEndian(&record[offsetof(HFSPlusExtentKey, keyLength)], key.keyLength);
  record[offsetof(HFSPlusExtentKey, forkType)] = std::byte{key.forkType};
  record[offsetof(HFSPlusExtentKey, pad)] = std::byte{key.pad};
  writeBigEndian(&record[offsetof(HFSPlusExtentKey, fileID)], key.fileID);
  writeBigEndian(&record[offsetof(HFSPlusExtentKey, startBlock)], key.startBlock);
  const DiskOrder<HFSPlusExtentRecord> disk = toDisk(host);
  std::memcpy(&record[kHFSPlusExtentKeyBytes], &disk, sizeof disk);
  return record;
}

/// An index record that leads to a child, from the child's first record.
inline HFSPlusExtentIndexRecord HFSPlusMakeExtentIndexRecord(std::span<const std::byte> firstRecord,
                                                             uint32_t childNode) {
  HFSPlusExtentIndexRecord record;
  std::memcpy(record.data(), firstRecord.first(kHFSPlusExtentKeyBytes).data(),
              kHFSPlusExtentKeyBytes);
  writeBigEndian(&record[kHFSPlusExtentKeyBytes], childNode);
  return record;
}
