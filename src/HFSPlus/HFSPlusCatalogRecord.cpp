#include "HFSPlus/HFSPlusCatalogRecord.hpp"

namespace {

constexpr size_t kKeyLengthBytes = 2;      // the key's length field, which does not count itself
constexpr size_t kEmptyNameKeyLength = 6;  // parent ID and name length
constexpr size_t kMaxKeyLength = kEmptyNameKeyLength + 2 * kHFSPlusMaxNameUnits;
constexpr size_t kThreadTargetOffset = 4;  // a thread record's type and two reserved bytes

/// A parent ID, a name length and the name. Both keys and thread records hold these three.
std::optional<HFSPlusCatalogKeyView> parentAndName(std::span<const std::byte> bytes) {
  if (bytes.size() < kEmptyNameKeyLength) {
    return std::nullopt;
  }
  const size_t units = readBigEndian<uint16_t>(bytes.data() + 4);
  if (units > kHFSPlusMaxNameUnits || bytes.size() < kEmptyNameKeyLength + 2 * units) {
    return std::nullopt;
  }
  return HFSPlusCatalogKeyView{readBigEndian<uint32_t>(bytes.data()),
                               bytes.subspan(kEmptyNameKeyLength, 2 * units)};
}

}  // namespace

std::optional<HFSPlusCatalogRecordView> HFSPlusCatalogRecordView::of(
    std::span<const std::byte> record) {
  if (record.size() < kKeyLengthBytes) {
    return std::nullopt;
  }
  const size_t keyLength = readBigEndian<uint16_t>(record.data());
  // Keys are of whole units; what follows an odd one would lie where nobody looks for it.
  if (keyLength > kMaxKeyLength || keyLength % 2 != 0 ||
      record.size() < kKeyLengthBytes + keyLength) {
    return std::nullopt;
  }
  const auto key = parentAndName(record.subspan(kKeyLengthBytes, keyLength));
  if (!key) {
    return std::nullopt;
  }
  return HFSPlusCatalogRecordView{*key, record.subspan(kKeyLengthBytes + keyLength)};
}

std::optional<uint32_t> HFSPlusCatalogRecordView::childNode() const {
  if (data.size() < sizeof(uint32_t)) {
    return std::nullopt;
  }
  return readBigEndian<uint32_t>(data.data());
}

std::optional<HFSPlusCatalogKeyView> HFSPlusCatalogRecordView::threadTarget() const {
  if (!isThread() || data.size() < kThreadTargetOffset) {
    return std::nullopt;
  }
  return parentAndName(data.subspan(kThreadTargetOffset));
}
