#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusFormat.hpp"

/// Everything that one flush is about to write, complete before any of it is written: the pieces of
/// special files, at the places where their forks have them now, and the headers.
///
/// Pieces do not overlap. A plan refers to bytes that somebody else holds until it is told to keep
/// copies of its own.
class HFSPlusFlushPlan {
 public:
  enum class Kind { SpecialFile, Header };

  struct Piece {
    uint64_t offset;  // bytes from the volume's start
    std::span<const std::byte> bytes;
    Kind kind;
  };

  /// Adds bytes that stay where they are until the plan is carried out or keeps copies.
  void add(uint64_t offset, std::span<const std::byte> bytes, Kind kind);

  /// Adds the headers: the primary at its place and, for an offset other than 0, the alternate.
  /// `host` is the header that the plan leaves behind, `disk` what is written.
  void addHeaders(const HFSPlusVolumeHeader& host, const DiskOrder<HFSPlusVolumeHeader>& disk,
                  uint64_t alternateOffset);

  /// Puts the pieces in the order of their offsets, in which they are to be written.
  void sort();

  /// Replaces every borrowed byte by a copy.
  void keepCopies();

  const std::vector<Piece>& pieces() const { return _pieces; }
  bool empty() const { return _pieces.empty(); }
  /// Bytes in all.
  uint64_t byteCount() const { return _byteCount; }
  bool writesAlternate() const { return _writesAlternate; }
  bool writesHeader() const { return _writesHeader; }
  /// The host header that the plan leaves behind; meaningful when it writes the header.
  const HFSPlusVolumeHeader& hostHeader() const { return _hostHeader; }

 private:
  std::vector<Piece> _pieces;
  uint64_t _byteCount = 0;
  bool _writesHeader = false;
  bool _writesAlternate = false;
  HFSPlusVolumeHeader _hostHeader{};
  std::vector<std::vector<std::byte>> _copies;
};
