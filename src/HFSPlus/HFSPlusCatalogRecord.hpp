#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <variant>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusFormat.hpp"

/// The key of a catalog record where it lies in its node.
struct HFSPlusCatalogKeyView {
  uint32_t parentID;
  std::span<const std::byte> nameUnits;  // big-endian UTF-16 units, at most 255

  /// Bytes of a parent ID and the length of a name.
  static constexpr size_t kMinBytes = 6;
  static constexpr size_t kMaxBytes = kMinBytes + 2 * kHFSPlusMaxNameUnits;

  /// Cuts a parent ID and a name, as they lie in keys and in thread records; nothing when the bytes
  /// do not hold them or the name is too long.
  [[nodiscard]] static inline std::optional<HFSPlusCatalogKeyView> of(
      std::span<const std::byte> bytes);
};

/// A record of a catalog node, cut into its parts and checked to hold them. A view: it lives as
/// long as the node is held.
struct HFSPlusCatalogRecordView {
  HFSPlusCatalogKeyView key;
  std::span<const std::byte> data;  // what follows the key

  /// Cuts a record; nothing when its key does not lie inside it or its name is too long.
  [[nodiscard]] static inline std::optional<HFSPlusCatalogRecordView> of(
      std::span<const std::byte> record);

  /// The record type of a leaf record; 0, which no record has, when there is no room for one.
  int16_t type() const {
    return data.size() < sizeof(int16_t) ? int16_t{0} : readBigEndian<int16_t>(data.data());
  }
  bool isThread() const {
    return type() == kHFSPlusFolderThreadRecord || type() == kHFSPlusFileThreadRecord;
  }

  /// The child's node number of an index record; none when there is no room for one.
  [[nodiscard]] std::optional<uint32_t> childNode() const;
  /// The record as a file record, whatever its type; null when it is too short for one.
  const DiskOrder<HFSPlusCatalogFile>* file() const { return as<HFSPlusCatalogFile>(); }
  /// The record as a folder record, whatever its type; null when it is too short for one.
  const DiskOrder<HFSPlusCatalogFolder>* folder() const { return as<HFSPlusCatalogFolder>(); }
  /// The key of the item that a thread record stands for; none when the record is no thread or does
  /// not hold a whole name.
  [[nodiscard]] std::optional<HFSPlusCatalogKeyView> threadTarget() const;

 private:
  template <typename T>
  const DiskOrder<T>* as() const {
    return data.size() < sizeof(T) ? nullptr : reinterpret_cast<const DiskOrder<T>*>(data.data());
  }
};

/// A catalog entry copied out of its node, in host order.
struct HFSPlusCatalogRecord {
  int16_t type = 0;  // kHFSPlusFolderRecord, kHFSPlusFileRecord, or 0: nothing was found
  HFSPlusCatalogKey key{};
  std::variant<std::monostate, HFSPlusCatalogFolder, HFSPlusCatalogFile> u;

  bool isFolder() const { return type == kHFSPlusFolderRecord; }
  bool isFile() const { return type == kHFSPlusFileRecord; }
  const HFSPlusCatalogFolder& folder() const { return std::get<HFSPlusCatalogFolder>(u); }
  const HFSPlusCatalogFile& file() const { return std::get<HFSPlusCatalogFile>(u); }
  /// Catalog node ID of the folder or file; 0 when nothing was found.
  uint32_t itemID() const { return isFolder() ? folder().folderID : isFile() ? file().fileID : 0; }
};

inline std::optional<HFSPlusCatalogKeyView> HFSPlusCatalogKeyView::of(
    std::span<const std::byte> bytes) {
  if (bytes.size() < kMinBytes) {
    return std::nullopt;
  }
  const size_t units = readBigEndian<uint16_t>(bytes.data() + 4);
  if (units > kHFSPlusMaxNameUnits || bytes.size() < kMinBytes + 2 * units) {
    return std::nullopt;
  }
  return HFSPlusCatalogKeyView{readBigEndian<uint32_t>(bytes.data()),
                               bytes.subspan(kMinBytes, 2 * units)};
}

inline std::optional<HFSPlusCatalogRecordView> HFSPlusCatalogRecordView::of(
    std::span<const std::byte> record) {
  constexpr size_t kLengthBytes = 2;  // the key's length field, which does not count itself
  if (record.size() < kLengthBytes) {
    return std::nullopt;
  }
  const size_t keyLength = readBigEndian<uint16_t>(record.data());
  // Keys are of whole units; what follows an odd one would lie where nobody looks for it.
  if (keyLength > HFSPlusCatalogKeyView::kMaxBytes || keyLength % 2 != 0 ||
      record.size() < kLengthBytes + keyLength) {
    return std::nullopt;
  }
  const auto key = HFSPlusCatalogKeyView::of(record.subspan(kLengthBytes, keyLength));
  if (!key) {
    return std::nullopt;
  }
  return HFSPlusCatalogRecordView{*key, record.subspan(kLengthBytes + keyLength)};
}
