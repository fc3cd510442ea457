#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "XRDefragError.hpp"

/// The metadata bytes that have left their caches and wait for the volume's next flush.
///
/// Between two flushes no metadata reaches the device: a node or bitmap chunk that is written back
/// lands here, keyed by its file and its byte offset in that file, because the file itself may move
/// before the flush. Reads of the file see the held bytes on top of the device's.
///
/// A file always writes whole units (nodes, chunks) at the same boundaries, so two held pieces of a
/// file are the same piece or do not overlap. Of a unit mostly a few bytes have changed; the flush
/// writes the sectors that differ from the device's, which is why those are known here.
class HFSPlusHeldWrites {
 public:
  struct Key {
    uint32_t fileID;
    uint64_t offset;  // bytes from the file's start
    friend auto operator<=>(const Key&, const Key&) = default;
  };
  /// Bytes of a unit that the device may have otherwise.
  struct Change {
    size_t offset;  // in the unit
    std::span<const std::byte> bytes;
  };
  /// A unit of a file as it is to be.
  struct Piece {
    std::vector<std::byte> bytes;
    std::vector<bool> changed;  // by sector

    /// What has changed, in runs of sectors as long as possible.
    std::vector<Change> changes() const;
  };
  using Map = std::map<Key, Piece>;

  /// The sectors of today's disks, whatever size they tell: a power failure may spoil the whole of
  /// one that was being written, and what the flush writes is what its record can write again.
  static constexpr size_t kSectorBytes = 4096;

  /// Keeps a copy of the bytes, in place of what was held there. `before` is what the device has in
  /// that place if nothing is held there, and of the same size; or empty when nobody knows.
  void hold(uint32_t fileID, uint64_t offset, std::span<const std::byte> bytes,
            std::span<const std::byte> before = {});

  /// Remembers that bytes which are to be replaced could not be read.
  void noteUnreadable(XRDefragError error) { _unreadable = std::move(error); }
  /// That error, once; nothing if there was none since the last time or since clear().
  std::optional<XRDefragError> takeUnreadable() { return std::exchange(_unreadable, std::nullopt); }

  /// Whether one held piece covers the whole range; if so it is copied into `bytes`.
  bool copyWhole(uint32_t fileID, uint64_t offset, std::span<std::byte> bytes) const;

  /// Lays every held byte of the range over `bytes`, which hold what the device has.
  void overlay(uint32_t fileID, uint64_t offset, std::span<std::byte> bytes) const;

  /// All pieces, by file and offset.
  const Map& pieces() const { return _pieces; }
  bool empty() const { return _pieces.empty(); }
  /// Bytes held in all, changed or not.
  uint64_t byteCount() const { return _byteCount; }

  /// Forgets everything.
  void clear();

 private:
  Map _pieces;
  uint64_t _byteCount = 0;
  std::optional<XRDefragError> _unreadable;
};
