#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <utility>
#include <vector>

/// The metadata bytes that have left their caches and wait for the volume's next flush.
///
/// Between two flushes no metadata reaches the device: a node or bitmap chunk that is written back
/// lands here, keyed by its file and its byte offset in that file, because the file itself may move
/// before the flush. Reads of the file see the held bytes on top of the device's.
///
/// A file always writes whole units (nodes, chunks) at the same boundaries, so two held pieces of a
/// file are the same piece or do not overlap.
class HFSPlusHeldWrites {
 public:
  struct Key {
    uint32_t fileID;
    uint64_t offset;  // bytes from the file's start
    friend auto operator<=>(const Key&, const Key&) = default;
  };
  using Map = std::map<Key, std::vector<std::byte>>;

  /// Keeps a copy of the bytes, in place of what was held there.
  void hold(uint32_t fileID, uint64_t offset, std::span<const std::byte> bytes);

  /// Whether one held piece covers the whole range; if so it is copied into `bytes`.
  bool copyWhole(uint32_t fileID, uint64_t offset, std::span<std::byte> bytes) const;

  /// Lays every held byte of the range over `bytes`, which hold what the device has.
  void overlay(uint32_t fileID, uint64_t offset, std::span<std::byte> bytes) const;

  /// All pieces, by file and offset.
  const Map& pieces() const { return _pieces; }
  bool empty() const { return _pieces.empty(); }
  /// Bytes held in all.
  uint64_t byteCount() const { return _byteCount; }

  /// Forgets everything.
  void clear();

 private:
  Map _pieces;
  uint64_t _byteCount = 0;
};
