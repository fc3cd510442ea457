#include "HFSPlus/HFSPlusHeldWrites.hpp"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "LWKit/LWDebug.hpp"

namespace {

/// Marks the sectors in which two images of a unit differ.
void markChanges(std::span<const std::byte> bytes, std::span<const std::byte> before,
                 std::vector<bool>& changed) {
  for (size_t sector = 0; sector < changed.size(); ++sector) {
    const size_t offset = sector * HFSPlusHeldWrites::kSectorBytes;
    const size_t size = std::min(HFSPlusHeldWrites::kSectorBytes, bytes.size() - offset);
    if (std::memcmp(&bytes[offset], &before[offset], size) != 0) {
      changed[sector] = true;
    }
  }
}

}  // namespace

auto HFSPlusHeldWrites::Piece::changes() const -> std::vector<Change> {
  std::vector<Change> runs;
  const auto next = [&](size_t from, bool value) {
    const auto found =
        std::find(changed.begin() + static_cast<ptrdiff_t>(from), changed.end(), value);
    return static_cast<size_t>(found - changed.begin());
  };
  for (size_t sector = next(0, true); sector < changed.size();) {
    const size_t end = next(sector, false);
    const size_t offset = sector * kSectorBytes;
    const size_t size = std::min(end * kSectorBytes, bytes.size()) - offset;
    runs.push_back({offset, std::span(bytes).subspan(offset, size)});
    sector = next(end, true);
  }
  return runs;
}

void HFSPlusHeldWrites::hold(uint32_t fileID, uint64_t offset, std::span<const std::byte> bytes,
                             std::span<const std::byte> before) {
  if (bytes.empty()) {
    return;
  }
  LW_ASSERT(before.empty() || before.size() == bytes.size());
  const auto next = _pieces.lower_bound({.fileID = fileID, .offset = offset});
  if (next != _pieces.end() && next->first == Key{.fileID = fileID, .offset = offset}) {
    Piece& held = next->second;
    LW_ASSERT(held.bytes.size() == bytes.size());
    markChanges(bytes, held.bytes, held.changed);
    std::ranges::copy(bytes, held.bytes.begin());
    return;
  }
  LW_ASSERT(next == _pieces.end() || next->first.fileID != fileID ||
            next->first.offset - offset >= bytes.size());
  if (next != _pieces.begin()) {
    const auto& [key, previous] = *std::prev(next);
    LW_ASSERT(key.fileID != fileID || offset - key.offset >= previous.bytes.size());
  }
  Piece piece{.bytes{bytes.begin(), bytes.end()},
              .changed = std::vector<bool>((bytes.size() + kSectorBytes - 1) / kSectorBytes,
                                           before.empty())};
  if (!before.empty()) {
    markChanges(bytes, before, piece.changed);
  }
  _pieces.emplace_hint(next, Key{.fileID = fileID, .offset = offset}, std::move(piece));
  _byteCount += bytes.size();
}

bool HFSPlusHeldWrites::copyWhole(uint32_t fileID, uint64_t offset,
                                  std::span<std::byte> bytes) const {
  auto piece = _pieces.upper_bound({.fileID = fileID, .offset = offset});
  if (piece == _pieces.begin()) {
    return false;
  }
  --piece;
  const Key& key = piece->first;
  const std::vector<std::byte>& held = piece->second.bytes;
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
    const Key& key = piece->first;
    const std::vector<std::byte>& held = piece->second.bytes;
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
  _unreadable.reset();
}
