#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace support {

using Bytes = std::vector<std::byte>;

/// Writes big-endian values one after another into a buffer of fixed size, as they lie on disk.
class ByteWriter {
 public:
  explicit ByteWriter(std::span<std::byte> into) : _into(into) {}

  ByteWriter& u8(uint8_t value) { return put(value, 1); }
  ByteWriter& u16(uint16_t value) { return put(value, 2); }
  ByteWriter& u32(uint32_t value) { return put(value, 4); }
  ByteWriter& u64(uint64_t value) { return put(value, 8); }

  ByteWriter& units(std::u16string_view units) {
    for (const char16_t unit : units)
      u16(unit);
    return *this;
  }

  ByteWriter& bytes(std::span<const std::byte> bytes) {
    assert(_at + bytes.size() <= _into.size());
    std::ranges::copy(bytes, _into.subspan(_at).begin());
    _at += bytes.size();
    return *this;
  }

  ByteWriter& zeros(size_t count) {
    assert(_at + count <= _into.size());
    std::ranges::fill(_into.subspan(_at, count), std::byte{0});
    _at += count;
    return *this;
  }

  /// Continues at byte `offset`; what is skipped keeps its bytes.
  ByteWriter& seek(size_t offset) {
    assert(offset <= _into.size());
    _at = offset;
    return *this;
  }

  size_t position() const { return _at; }

 private:
  ByteWriter& put(uint64_t value, size_t width) {
    assert(_at + width <= _into.size());
    for (size_t i = 0; i < width; ++i)
      _into[_at + i] = static_cast<std::byte>(value >> (8 * (width - 1 - i)));
    _at += width;
    return *this;
  }

  std::span<std::byte> _into;
  size_t _at = 0;
};

}  // namespace support
