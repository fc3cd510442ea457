#include "XRDefragPropertyListGuard.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace {

constexpr unsigned kDepthLimit = 16;
constexpr size_t kContainerLimit = 512;
constexpr uint64_t kExpansionLimit = uint64_t{16} << 20;
constexpr uint64_t kBytesPerNode = 64;
constexpr std::string_view kBinaryMagic = "bplist00";

/// A binary property list: the magic, objects, a table of their offsets, and this at the end
/// (big-endian): 6 bytes unused, size of an offset, size of an object number, then three 64-bit
/// numbers: count of objects, number of the root, offset of the table. Every object begins with a
/// byte whose upper half is its type and whose lower half its length, or 15 when an integer object
/// with the length follows.
class BinaryList {
 public:
  explicit BinaryList(std::string_view bytes) : _bytes(bytes) {}

  bool isModest() {
    const size_t trailer = _bytes.size() - kTrailerBytes;
    _offsetBytes = static_cast<size_t>(*integerAt(trailer + 6, 1));
    _referenceBytes = static_cast<size_t>(*integerAt(trailer + 7, 1));
    _objectCount = *integerAt(trailer + 8, 8);
    _table = *integerAt(trailer + 24, 8);
    return isModestObject(*integerAt(trailer + 16, 8), kDepthLimit);
  }

  static constexpr size_t kTrailerBytes = 32;

 private:
  enum Type : uint8_t { kUTF16 = 6, kArray = 0xA, kSet = 0xC, kDictionary = 0xD };

  std::optional<uint64_t> integerAt(uint64_t offset, size_t size) const {
    if (size == 0 || size > 8 || offset > _bytes.size() || size > _bytes.size() - offset) {
      return std::nullopt;
    }
    uint64_t value = 0;
    for (size_t index = 0; index < size; ++index) {
      value = value << 8 | static_cast<uint8_t>(_bytes[static_cast<size_t>(offset) + index]);
    }
    return value;
  }

  /// Reads the length of the object whose first byte stands at `offset`, and moves past it.
  std::optional<uint64_t> lengthAt(uint64_t& offset, uint64_t marker) const {
    ++offset;
    if ((marker & 0xF) != 0xF) {
      return marker & 0xF;
    }
    const auto integerMarker = integerAt(offset, 1);
    if (!integerMarker || *integerMarker >> 4 != 1 || (*integerMarker & 0xF) > 3) {
      return std::nullopt;
    }
    const size_t size = size_t{1} << (*integerMarker & 0xF);
    const auto length = integerAt(offset + 1, size);
    offset += 1 + size;
    return length;
  }

  bool isModestObject(uint64_t object, unsigned depth, bool isKey = false) {
    if (depth == 0 || object >= _objectCount || object > _bytes.size()) {
      return false;
    }
    auto offset = integerAt(_table + object * _offsetBytes, _offsetBytes);
    const auto marker = offset ? integerAt(*offset, 1) : std::nullopt;
    const auto length = marker ? lengthAt(*offset, *marker) : std::nullopt;
    if (!length || *length > _bytes.size()) {
      return false;
    }
    switch (*marker >> 4) {
      case kArray:
      case kSet:
        return spend(0) && areModestObjects(*offset, *length, depth - 1);
      case kDictionary:
        return spend(0) && areModestObjects(*offset, *length, depth - 1, true) &&
               areModestObjects(*offset + *length * _referenceBytes, *length, depth - 1);
      case kUTF16:
        return spend(3 * *length) && !(isKey && holdsNul(*offset, *length, 2));
      default:
        return spend(*length) && !(isKey && holdsNul(*offset, *length, 1));
    }
  }

  /// Whether there is a NUL among characters of one or two bytes, which no key may hold.
  bool holdsNul(uint64_t offset, uint64_t length, size_t size) const {
    for (uint64_t index = 0; index < length; ++index) {
      if (integerAt(offset + index * size, size).value_or(0) == 0) {
        return true;
      }
    }
    return false;
  }

  bool areModestObjects(uint64_t offset, uint64_t count, unsigned depth, bool areKeys = false) {
    for (uint64_t index = 0; index < count; ++index) {
      const auto object = integerAt(offset + index * _referenceBytes, _referenceBytes);
      if (!object || !isModestObject(*object, depth, areKeys)) {
        return false;
      }
    }
    return true;
  }

  bool spend(uint64_t bytes) {
    _expandedBytes += kBytesPerNode + bytes;
    return _expandedBytes <= kExpansionLimit;
  }

  std::string_view _bytes;
  size_t _offsetBytes = 0;
  size_t _referenceBytes = 0;
  uint64_t _objectCount = 0;
  uint64_t _table = 0;
  uint64_t _expandedBytes = 0;
};

size_t occurrences(std::string_view text, std::string_view part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace

bool XRDefragPropertyListGuard::isModestBinary(std::string_view bytes) {
  return bytes.starts_with(kBinaryMagic) &&
         bytes.size() >= kBinaryMagic.size() + BinaryList::kTrailerBytes &&
         BinaryList(bytes).isModest();
}

bool XRDefragPropertyListGuard::isModestXML(std::string_view bytes) {
  const size_t first = bytes.find_first_not_of(" \t\r\n");
  return first != std::string_view::npos && bytes[first] == '<' && !bytes.contains('\0') &&
         occurrences(bytes, "<array") + occurrences(bytes, "<dict") <= kContainerLimit;
}
