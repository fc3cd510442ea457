#include "HFSPlus/HFSPlusHeldWrites.hpp"

#include <algorithm>
#include <iterator>

#include "LWKit/LWDebug.hpp"

void HFSPlusHeldWrites::hold(uint32_t fileID, uint64_t offset, std::span<const std::byte> bytes) {
  if (bytes.empty()) {
    return;
  }
  const auto next = _pieces.lower_bound({.fileID = fileID, .offset = offset});
  if (next != _pieces.end() && next->first == Key{.fileID = fileID, .offset = offset}) {
    LW_ASSERT(next->second.size() == bytes.size());
    std::ranges::copy(bytes, next->second.begin());
    return;
  }
  LW_ASSERT(next == _pieces.end() || next->first.fileID != fileID ||
            next->first.offset - offset >= bytes.size());
  if (next != _pieces.begin()) {
    const auto& [key, previous] = *std::prev(next);
    LW_ASSERT(key.fileID != fileID || offset - key.offset >= previous.size());
  }
  _pieces.emplace_hint(next, Key{.fileID = fileID, .offset = offset},
                       std::vector<std::byte>(bytes.begin(), bytes.end()));
  _byteCount += bytes.size();
}

bool HFSPlusHeldWrites::copyWhole(uint32_t fileID, uint64_t offset,
                                  std::span<std::byte> bytes) const {
  auto piece = _pieces.upper_bound({.fileID = fileID, .offset = offset});
  if (piece == _pieces.begin()) {
    return false;
  }
  --piece;
  const auto& [key, held] = *piece;
  const uint64_t skipped = offset - key.offset;
  if (key.fileID != fileID || skipped > held.size() || bytes.size() > held.size() - skipped) {
    return false;
  }
  std::copy_n(held.begin() + static_cast<ptrdiff_t>(skipped), bytes.size(), bytes.begin());
  return true;
}

void HFSPlusHeldWrites::overlay(uint32_t fileID, uint64_t offset,
                                std::span<std::byte> bytes) const {
  auto piece = _pieces.upper_bound({.fileID = fileID, .offset = offset});
  if (piece != _pieces.begin()) {
    --piece;  // it may begin before the range and reach into it
  }
  const uint64_t end = offset + bytes.size();
  for (; piece != _pieces.end(); ++piece) {
    const auto& [key, held] = *piece;
    if (key.fileID > fileID || (key.fileID == fileID && key.offset >= end)) {
      return;
    }
    const uint64_t first = std::max(offset, key.offset);
    const uint64_t last = std::min(end, key.offset + held.size());
    if (key.fileID == fileID && first < last) {
      std::copy(held.begin() + static_cast<ptrdiff_t>(first - key.offset),
                held.begin() + static_cast<ptrdiff_t>(last - key.offset),
                bytes.begin() + static_cast<ptrdiff_t>(first - offset));
    }
  }
}

void HFSPlusHeldWrites::clear() {
  _pieces.clear();
  _byteCount = 0;
}
