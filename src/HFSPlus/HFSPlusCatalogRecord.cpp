#include "HFSPlus/HFSPlusCatalogRecord.hpp"

std::optional<uint32_t> HFSPlusCatalogRecordView::childNode() const {
  if (data.size() < sizeof(uint32_t)) {
    return std::nullopt;
  }
  return readBigEndian<uint32_t>(data.data());
}

std::optional<HFSPlusCatalogKeyView> HFSPlusCatalogRecordView::threadTarget() const {
  constexpr size_t kTargetOffset = 4;  // the type and two reserved bytes
  if (!isThread() || data.size() < kTargetOffset) {
    return std::nullopt;
  }
  return HFSPlusCatalogKeyView::of(data.subspan(kTargetOffset));
}
