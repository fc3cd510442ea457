#include "HFSPlus/HFSPlusCatalogSurvey.hpp"

#include <functional>
#include <optional>
#include <string_view>

namespace {

constexpr uint64_t kSpread = 0x9E3779B97F4A7C15;  // odd, its bits without order

uint64_t mixed(uint64_t a, uint64_t b) {
  const uint64_t product = (a ^ (b + 1) * kSpread) * kSpread;
  return product ^ product >> 32;
}

uint64_t fingerprintOf(const HFSPlusCatalogKeyView& key) {
  const std::string_view name(reinterpret_cast<const char*>(key.nameUnits.data()),
                              key.nameUnits.size());
  return mixed(std::hash<std::string_view>()(name), key.parentID);
}

}  // namespace

HFSPlusCatalogSurvey::~HFSPlusCatalogSurvey() {
  if (!_catalog.places().isComplete()) {
    _catalog.places().forgetAll();
  }
}

void HFSPlusCatalogSurvey::addNode(const HFSPlusBTreeNode& node) {
  if (node.kind() != kBTLeafNode && node.kind() != kBTIndexNode) {
    return;
  }
  std::optional<HFSPlusCatalogKeyView> previous;
  for (uint32_t index = 0; index < node.recordCount(); index++) {
    const auto record = HFSPlusCatalogRecordView::of(node.recordDataAtIndex(index));
    if (!record || (previous && _catalog.compare(*previous, record->key) >= 0)) {
      _isOrdered = false;
      return;
    }
    _addRecord(*record, node, index);
    previous = record->key;
  }
}

void HFSPlusCatalogSurvey::_addRecord(const HFSPlusCatalogRecordView& record,
                                      const HFSPlusBTreeNode& node, uint32_t index) {
  if (index == 0 && node.index() != _catalog.rootNode()) {
    _nodes += mixed(fingerprintOf(record.key), node.index());
  }
  if (node.kind() == kBTLeafNode) {
    _addLeafRecord(record, node.index(), index);
  } else if (const auto child = record.childNode()) {
    _children += mixed(fingerprintOf(record.key), *child);
  }
}

void HFSPlusCatalogSurvey::_addLeafRecord(const HFSPlusCatalogRecordView& record, uint32_t node,
                                          uint32_t index) {
  if (record.type() == kHFSPlusFileRecord && record.file() != nullptr) {
    const auto cnid =
        readBigEndian<uint32_t>(record.file()->bytes.data() + offsetof(HFSPlusCatalogFile, fileID));
    _catalog.places().addRecord(cnid, {node, index}, fingerprintOf(record.key));
  } else if (record.type() == kHFSPlusFileThreadRecord && record.key.nameUnits.empty()) {
    if (const auto target = record.threadTarget()) {
      _catalog.places().addThread(record.key.parentID, fingerprintOf(*target));
    }
  }
}

void HFSPlusCatalogSurvey::finish() {
  if (_isOrdered && _nodes == _children) {
    _catalog.places().setComplete();
  }
}
