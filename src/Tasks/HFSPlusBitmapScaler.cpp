#include "Tasks/HFSPlusBitmapScaler.hpp"

#include <algorithm>
#include <utility>

#include "HFSPlus/HFSPlusBitmapBits.hpp"
#include "LWKit/LWDebug.hpp"

namespace {

constexpr unsigned kWordBits = 64;

using DigitPair = std::array<char, 2>;

constexpr std::array<DigitPair, 256> kDigitPairs = [] {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::array<DigitPair, 256> pairs{};
  for (size_t byte = 0; byte < pairs.size(); ++byte) {
    pairs[byte] = {digits[byte >> 4], digits[byte & 15]};
  }
  return pairs;
}();

/// The groups of a byte at scales that divide it, for every byte: one bit a group.
template <unsigned scale>
constexpr std::array<uint8_t, 256> kGroupsOfByte = [] {
  std::array<uint8_t, 256> groups{};
  for (unsigned byte = 0; byte < groups.size(); ++byte) {
    for (unsigned shift = 8; shift > 0; shift -= scale) {
      const unsigned group = byte >> (shift - scale) & ((1U << scale) - 1);
      const bool used = HFSPlusCountBits(group) * 2 >= scale;
      groups[byte] = static_cast<uint8_t>(groups[byte] << 1 | unsigned{used});
    }
  }
  return groups;
}();

}  // namespace

HFSPlusBitmapScaler::HFSPlusBitmapScaler(uint32_t scale, Print print)
    : _scale(scale), _print(std::move(print)), _groupLeft(scale) {
  LW_ASSERT(scale >= 1);
}

void HFSPlusBitmapScaler::add(std::span<const std::byte> bitmap) {
  switch (_scale) {
    case 1:
      return addBytes(bitmap);
    case 2:
      return addByteByByte(bitmap, kGroupsOfByte<2>, 4);
    case 4:
      return addByteByByte(bitmap, kGroupsOfByte<4>, 2);
    case 8:
      return addByteByByte(bitmap, kGroupsOfByte<8>, 1);
    default:
      return _scale < kWordBits ? addWordByWord(bitmap) : addGroupByGroup(bitmap);
  }
}

/// Groups of one bit are the bitmap itself.
void HFSPlusBitmapScaler::addBytes(std::span<const std::byte> bitmap) {
  while (!bitmap.empty()) {
    size_t count = std::min(bitmap.size(), _line.size() - _lineBytes);
    std::ranges::copy(bitmap.first(count), _line.data() + _lineBytes);
    _lineBytes += count;
    bitmap = bitmap.subspan(count);
    if (_lineBytes == _line.size()) {
      printLine();
    }
  }
}

/// Whole groups a byte: looks each byte up.
void HFSPlusBitmapScaler::addByteByByte(std::span<const std::byte> bitmap,
                                        const std::array<uint8_t, 256>& groupsOfByte,
                                        unsigned groupsPerByte) {
  unsigned groups = _groups;
  for (const std::byte byte : bitmap) {
    groups = groups << groupsPerByte | groupsOfByte[std::to_integer<size_t>(byte)];
    if (groups >= kWholeByte) {
      appendByte(groups);
      groups = kNoGroups;
    }
  }
  _groups = groups;
}

/// Several groups a word: shifts them out of it one by one. What changes with every group is kept
/// out of memory meanwhile.
void HFSPlusBitmapScaler::addWordByWord(std::span<const std::byte> bitmap) {
  const uint64_t bits = bitmap.size() * 8;
  unsigned groups = _groups;
  uint32_t groupLeft = _groupLeft;
  auto groupUsed = static_cast<uint32_t>(_groupUsed);
  for (uint64_t first = 0; first < bits; first += kWordBits) {
    uint64_t word = HFSPlusBitmapWord(bitmap, first / kWordBits);
    auto left = static_cast<uint32_t>(std::min<uint64_t>(kWordBits, bits - first));
    while (left >= groupLeft) {
      groupUsed += HFSPlusCountBits(word >> (kWordBits - groupLeft));
      groups = groups << 1 | unsigned{groupUsed * 2 >= _scale};
      if (groups >= kWholeByte) {
        appendByte(groups);
        groups = kNoGroups;
      }
      word <<= groupLeft;
      left -= groupLeft;
      groupLeft = _scale;
      groupUsed = 0;
    }
    if (left > 0) {
      groupUsed += HFSPlusCountBits(word >> (kWordBits - left));
      groupLeft -= left;
    }
  }
  _groups = groups;
  _groupLeft = groupLeft;
  _groupUsed = groupUsed;
}

/// Several words a group.
void HFSPlusBitmapScaler::addGroupByGroup(std::span<const std::byte> bitmap) {
  uint64_t bits = bitmap.size() * 8;
  for (uint64_t first = 0; first < bits;) {
    auto count = static_cast<uint32_t>(std::min<uint64_t>(_groupLeft, bits - first));
    _groupUsed += HFSPlusCountSetBits(bitmap, first, count);
    _groupLeft -= count;
    first += count;
    if (_groupLeft == 0) {
      endGroup();
    }
  }
}

void HFSPlusBitmapScaler::addClear(uint64_t bits) {
  if (_groupLeft < _scale) {
    const auto count = static_cast<uint32_t>(std::min<uint64_t>(_groupLeft, bits));
    _groupLeft -= count;
    bits -= count;
    if (_groupLeft > 0) {
      return;
    }
    endGroup();
  }
  appendClearGroups(bits / _scale);
  _groupLeft -= static_cast<uint32_t>(bits % _scale);
}

void HFSPlusBitmapScaler::appendClearGroups(uint64_t count) {
  for (; count > 0 && _groups != kNoGroups; --count) {
    appendGroup(false);
  }
  for (uint64_t bytes = count / 8; bytes > 0;) {
    const uint64_t fitting = std::min<uint64_t>(bytes, _line.size() - _lineBytes);
    std::fill_n(_line.data() + _lineBytes, fitting, std::byte{0});
    _lineBytes += fitting;
    bytes -= fitting;
    if (_lineBytes == _line.size()) {
      printLine();
    }
  }
  for (count %= 8; count > 0; --count) {
    appendGroup(false);
  }
}

void HFSPlusBitmapScaler::endGroup() {
  appendGroup(_groupUsed * 2 >= _scale);
  _groupLeft = _scale;
  _groupUsed = 0;
}

void HFSPlusBitmapScaler::appendGroup(bool isUsed) {
  _groups = _groups << 1 | unsigned{isUsed};
  if (_groups >= kWholeByte) {
    appendByte(std::exchange(_groups, kNoGroups));
  }
}

void HFSPlusBitmapScaler::appendByte(unsigned groups) {
  _line[_lineBytes++] = static_cast<std::byte>(groups);
  if (_lineBytes == _line.size()) {
    printLine();
  }
}

void HFSPlusBitmapScaler::finish() {
  if (_groups != kNoGroups || _groupLeft < _scale) {
    while (_groups < kWholeByte) {
      _groups <<= 1;
    }
    _line[_lineBytes++] = static_cast<std::byte>(std::exchange(_groups, kNoGroups));
    _groupLeft = _scale;
    _groupUsed = 0;
  }
  if (_lineBytes > 0) {
    printLine();
  }
}

void HFSPlusBitmapScaler::printLine() {
  std::array<char, kDigitsPerLine> digits;
  for (size_t byte = 0; byte < _lineBytes; ++byte) {
    DigitPair pair = kDigitPairs[std::to_integer<size_t>(_line[byte])];
    digits[byte * 2] = pair[0];
    digits[byte * 2 + 1] = pair[1];
  }
  _print(std::string_view(digits.data(), std::exchange(_lineBytes, 0) * 2));
}
