#include "HFSPlus/HFSPlusFlushPlan.hpp"

#include <algorithm>

void HFSPlusFlushPlan::add(uint64_t offset, std::span<const std::byte> bytes, Kind kind) {
  _pieces.push_back({.offset = offset, .bytes = bytes, .kind = kind});
  _byteCount += bytes.size();
}

void HFSPlusFlushPlan::addHeaders(const HFSPlusVolumeHeader& host,
                                  const DiskOrder<HFSPlusVolumeHeader>& disk,
                                  uint64_t alternateOffset) {
  _hostHeader = host;
  const std::vector<std::byte>& bytes = _copies.emplace_back(disk.bytes.begin(), disk.bytes.end());
  add(kHFSPlusVolumeHeaderOffset, bytes, Kind::Header);
  _writesHeader = true;
  if (alternateOffset != 0) {
    add(alternateOffset, bytes, Kind::Header);
    _writesAlternate = true;
  }
}

void HFSPlusFlushPlan::sort() {
  std::ranges::sort(_pieces, {}, &Piece::offset);
}

void HFSPlusFlushPlan::keepCopies() {
  std::vector<std::vector<std::byte>> copies;
  copies.reserve(_pieces.size());
  for (Piece& piece : _pieces) {
    piece.bytes = copies.emplace_back(piece.bytes.begin(), piece.bytes.end());
  }
  _copies = std::move(copies);
}
