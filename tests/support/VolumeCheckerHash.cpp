#include "support/VolumeCheckerHash.hpp"

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <cstdio>
#include <cstring>

namespace volumecheck {

namespace {

constexpr std::size_t kLanes = 8;
constexpr std::uint64_t kOdd1 = 0x9E3779B97F4A7C15;
constexpr std::uint64_t kOdd2 = 0xC2B2AE3D27D4EB4F;

// A bijection on 64 bits in which every input bit reaches every output bit.
std::uint64_t scramble(std::uint64_t value) {
  value ^= value >> 33;
  value *= 0xFF51AFD7ED558CCD;
  value ^= value >> 33;
  value *= 0xC4CEB9FE1A85EC53;
  return value ^ (value >> 33);
}

// Every lane step is a bijection of the lane for a given word and of the word for a given lane, so
// a change in one word never gets lost on the way.
Hash128 hashPiece(const std::uint8_t* piece) {
  std::array<std::uint64_t, kLanes> lanes{};
  for (std::size_t i = 0; i < kLanes; ++i) {
    lanes[i] = scramble(kOdd1 * (i + 1));
  }
  for (std::size_t at = 0; at < StreamHasher::kPieceSize; at += kLanes * sizeof(std::uint64_t)) {
    for (std::size_t i = 0; i < kLanes; ++i) {
      std::uint64_t word = 0;
      std::memcpy(&word, piece + at + i * sizeof word, sizeof word);
      lanes[i] = std::rotl((lanes[i] ^ word) * kOdd2, 29) * kOdd1;
    }
  }
  Hash128 hash{kOdd1, kOdd2};
  for (const std::uint64_t lane : lanes) {
    hash.high = scramble(hash.high ^ lane) * kOdd2;
    hash.low = scramble(hash.low + std::rotl(lane, 31)) * kOdd1;
  }
  return hash;
}

}  // namespace

std::string Hash128::hex() const {
  std::array<char, 33> text{};
  std::snprintf(text.data(), text.size(), "%016" PRIx64 "%016" PRIx64, high, low);
  return text.data();
}

void StreamHasher::_addPiece(const std::uint8_t* piece) {
  const std::uint64_t index = _pieceIndex++;
  if (piece[0] == 0 && std::memcmp(piece, piece + 1, kPieceSize - 1) == 0) {
    return;
  }
  const Hash128 hash = hashPiece(piece);
  _sum.high += scramble(hash.high + index * kOdd1) ^ hash.low;
  _sum.low += scramble(hash.low ^ scramble(index + kOdd2)) + hash.high;
}

void StreamHasher::update(Bytes bytes) {
  _length += bytes.size();
  while (!bytes.empty()) {
    if (_filled == 0 && bytes.size() >= kPieceSize) {
      _addPiece(bytes.data());
      bytes = bytes.subspan(kPieceSize);
      continue;
    }
    const std::size_t part = std::min(kPieceSize - _filled, bytes.size());
    std::memcpy(_piece.data() + _filled, bytes.data(), part);
    _filled += part;
    bytes = bytes.subspan(part);
    if (_filled == kPieceSize) {
      _addPiece(_piece.data());
      _filled = 0;
    }
  }
}

void StreamHasher::skipZeros(std::uint64_t count) {
  static constexpr std::array<std::uint8_t, kPieceSize> kZeros{};
  const std::uint64_t untilPieceEnd = (kPieceSize - _filled) % kPieceSize;
  const std::uint64_t first = std::min(count, untilPieceEnd);
  update(Bytes(kZeros).first(first));
  count -= first;
  _length += count - count % kPieceSize;
  _pieceIndex += count / kPieceSize;
  update(Bytes(kZeros).first(count % kPieceSize));
}

Hash128 StreamHasher::finish() {
  if (_filled != 0) {
    std::memset(_piece.data() + _filled, 0, kPieceSize - _filled);
    _addPiece(_piece.data());
    _filled = 0;
  }
  return {scramble(_sum.high ^ scramble(_length)), scramble(_sum.low + _length * kOdd2)};
}

Hash128 hashOf(Bytes bytes) {
  StreamHasher hasher;
  hasher.update(bytes);
  return hasher.finish();
}

}  // namespace volumecheck
