#include "HFSPlus/HFSPlusCatalogPlaces.hpp"

namespace {

constexpr uint32_t kCellCount = 262144;

}  // namespace

std::optional<HFSPlusCatalogPlaces::Place> HFSPlusCatalogPlaces::find(uint32_t cnid) const {
  if (!_cells) {
    return std::nullopt;
  }
  const Cell& cell = _cells[cnid % kCellCount];
  if (cell.cnid != cnid || cell.node == 0 || !cell.hasThread) {
    return std::nullopt;
  }
  return Place{cell.node, cell.record};
}

void HFSPlusCatalogPlaces::add(uint32_t cnid, const Place& place) {
  if (Cell* cell = _cell(cnid)) {
    *cell = {.cnid = cnid,
             .key = 0,
             .node = place.node,
             .record = static_cast<uint16_t>(place.record),
             .hasThread = true};
  }
}

void HFSPlusCatalogPlaces::addRecord(uint32_t cnid, const Place& place, uint64_t keyFingerprint) {
  if (Cell* cell = _cellOfKey(cnid, keyFingerprint)) {
    cell->node = place.node;
    cell->record = static_cast<uint16_t>(place.record);
  }
}

void HFSPlusCatalogPlaces::addThread(uint32_t cnid, uint64_t keyFingerprint) {
  if (Cell* cell = _cellOfKey(cnid, keyFingerprint)) {
    cell->hasThread = true;
  }
}

/// None when memory is short.
HFSPlusCatalogPlaces::Cell* HFSPlusCatalogPlaces::_cell(uint32_t cnid) {
  if (!_cells) {
    // Memory in which nothing is remembered stays the system's.
    _cells.reset(static_cast<Cell*>(std::calloc(kCellCount, sizeof(Cell))));
  }
  return _cells ? &_cells[cnid % kCellCount] : nullptr;
}

/// The ID's cell, emptied of what belongs to another ID or key.
HFSPlusCatalogPlaces::Cell* HFSPlusCatalogPlaces::_cellOfKey(uint32_t cnid,
                                                             uint64_t keyFingerprint) {
  Cell* cell = _cell(cnid);
  const auto key = static_cast<uint32_t>(keyFingerprint);
  if (cell != nullptr && (cell->cnid != cnid || cell->key != key)) {
    *cell = {.cnid = cnid, .key = key, .node = 0, .record = 0, .hasThread = false};
  }
  return cell;
}
