#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace volumecheck {

using Bytes = std::span<const std::uint8_t>;

// Big-endian fields of a byte range. A field that does not lie inside the range reads as zero, so
// that no damaged length can lead a reader outside its buffer.
inline std::uint64_t bigEndian(Bytes bytes, std::size_t offset, std::size_t width) {
  if (offset > bytes.size() || width > bytes.size() - offset) {
    return 0;
  }
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    value = (value << 8) | bytes[offset + i];
  }
  return value;
}

inline std::uint8_t u8At(Bytes bytes, std::size_t offset) {
  return static_cast<std::uint8_t>(bigEndian(bytes, offset, 1));
}
inline std::uint16_t u16At(Bytes bytes, std::size_t offset) {
  return static_cast<std::uint16_t>(bigEndian(bytes, offset, 2));
}
inline std::uint32_t u32At(Bytes bytes, std::size_t offset) {
  return static_cast<std::uint32_t>(bigEndian(bytes, offset, 4));
}
inline std::uint64_t u64At(Bytes bytes, std::size_t offset) {
  return bigEndian(bytes, offset, 8);
}

// The part of `bytes` from `offset` on, at most `size` long; empty when it starts outside.
inline Bytes sliceOf(Bytes bytes, std::size_t offset, std::size_t size) {
  if (offset >= bytes.size()) {
    return {};
  }
  return bytes.subspan(offset, size < bytes.size() - offset ? size : bytes.size() - offset);
}

// True when every byte is zero.
bool allZero(Bytes bytes);

}  // namespace volumecheck
