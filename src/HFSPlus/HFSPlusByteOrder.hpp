#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "HFSPlus/HFSPlusFormat.hpp"

/// The bytes of a structure as they lie on disk. Has no alignment, so it may be laid over any
/// position of a node whose bounds have been checked.
template <typename T>
struct DiskOrder {
  std::array<std::byte, sizeof(T)> bytes;
  friend bool operator==(const DiskOrder&, const DiskOrder&) = default;
};

/// A structure inside another one, where it lies.
template <typename Part, typename Whole>
[[nodiscard]] inline const DiskOrder<Part>& partOf(const DiskOrder<Whole>& whole, size_t offset) {
  return reinterpret_cast<const DiskOrder<Part>&>(whole.bytes[offset]);
}

/// A big-endian integer at an unaligned address.
template <typename T>
[[nodiscard]] inline T readBigEndian(const std::byte* bytes) {
  T value;
  std::memcpy(&value, bytes, sizeof value);
  return std::endian::native == std::endian::little ? std::byteswap(value) : value;
}

/// Stores an integer big-endian at an unaligned address.
template <typename T>
inline void writeBigEndian(std::byte* bytes, T value) {
  if (std::endian::native == std::endian::little) {
    value = std::byteswap(value);
  }
  std::memcpy(bytes, &value, sizeof value);
}

// One pair of conversions a structure. Fields that the structure marks "always as on disk" are
// copied unchanged, so that they come back from memory as they were read.
[[nodiscard]] HFSPlusExtentRecord toHost(const DiskOrder<HFSPlusExtentRecord>& disk);
[[nodiscard]] DiskOrder<HFSPlusExtentRecord> toDisk(const HFSPlusExtentRecord& host);
[[nodiscard]] HFSPlusForkData toHost(const DiskOrder<HFSPlusForkData>& disk);
[[nodiscard]] DiskOrder<HFSPlusForkData> toDisk(const HFSPlusForkData& host);
[[nodiscard]] HFSPlusVolumeHeader toHost(const DiskOrder<HFSPlusVolumeHeader>& disk);
[[nodiscard]] DiskOrder<HFSPlusVolumeHeader> toDisk(const HFSPlusVolumeHeader& host);
[[nodiscard]] BTHeaderRec toHost(const DiskOrder<BTHeaderRec>& disk);
[[nodiscard]] DiskOrder<BTHeaderRec> toDisk(const BTHeaderRec& host);
[[nodiscard]] HFSPlusCatalogFile toHost(const DiskOrder<HFSPlusCatalogFile>& disk);
[[nodiscard]] DiskOrder<HFSPlusCatalogFile> toDisk(const HFSPlusCatalogFile& host);
[[nodiscard]] HFSPlusCatalogFolder toHost(const DiskOrder<HFSPlusCatalogFolder>& disk);
[[nodiscard]] DiskOrder<HFSPlusCatalogFolder> toDisk(const HFSPlusCatalogFolder& host);

/// Converts only the units that the name's length says it has; a length above 255 counts as 255.
[[nodiscard]] HFSPlusCatalogKey toHost(const DiskOrder<HFSPlusCatalogKey>& disk);
[[nodiscard]] DiskOrder<HFSPlusCatalogKey> toDisk(const HFSPlusCatalogKey& host);
