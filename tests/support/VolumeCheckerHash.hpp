#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "support/VolumeCheckerBytes.hpp"

namespace volumecheck {

struct Hash128 {
  std::uint64_t high = 0;
  std::uint64_t low = 0;

  bool operator==(const Hash128&) const = default;
  // 32 hexadecimal digits.
  std::string hex() const;
};

// A fast 128-bit fingerprint of a byte stream (not a cryptographic one: nobody here forges files).
// The stream is cut into pieces of 4 KiB; each piece that is not all zeros adds a mixture of its
// own fingerprint and its position, so that a hole costs nothing and counts exactly like written
// zeros.
class StreamHasher {
 public:
  static constexpr std::size_t kPieceSize = 4096;

  void update(Bytes bytes);
  // Counts `count` zero bytes without looking at them.
  void skipZeros(std::uint64_t count);
  // The fingerprint of everything so far, its length included. Ends the stream.
  Hash128 finish();

 private:
  void _addPiece(const std::uint8_t* piece);

  std::array<std::uint8_t, kPieceSize> _piece{};
  std::size_t _filled = 0;
  std::uint64_t _length = 0;
  std::uint64_t _pieceIndex = 0;
  Hash128 _sum;
};

Hash128 hashOf(Bytes bytes);

}  // namespace volumecheck
