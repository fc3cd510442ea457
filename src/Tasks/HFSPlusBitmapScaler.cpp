#include "Tasks/HFSPlusBitmapScaler.hpp"

#include <algorithm>
#include <bit>
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

}  // namespace

HFSPlusBitmapScaler::HFSPlusBitmapScaler(uint32_t scale, Print print)
    : _scale(scale), _print(std::move(print)), _groupLeft(scale) {
  LW_ASSERT(scale >= 1);
}

void HFSPlusBitmapScaler::add(std::span<const std::byte> bitmap) {
  if (_scale == 1) {
    addBytes(bitmap);
  } else if (_scale < kWordBits) {
    addWordByWord(bitmap);
  } else {
    addGroupByGroup(bitmap);
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

/// Several groups a word: shifts them out of it one by one.
void HFSPlusBitmapScaler::addWordByWord(std::span<const std::byte> bitmap) {
  uint64_t bits = bitmap.size() * 8;
  for (uint64_t first = 0; first < bits; first += kWordBits) {
    uint64_t word = HFSPlusBitmapWord(bitmap, first / kWordBits);
    auto left = static_cast<uint32_t>(std::min<uint64_t>(kWordBits, bits - first));
    while (left >= _groupLeft) {
      _groupUsed += static_cast<uint64_t>(std::popcount(word >> (kWordBits - _groupLeft)));
      word <<= _groupLeft;
      left -= _groupLeft;
      endGroup();
    }
    if (left > 0) {
      _groupUsed += static_cast<uint64_t>(std::popcount(word >> (kWordBits - left)));
      _groupLeft -= left;
    }
  }
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

void HFSPlusBitmapScaler::endGroup() {
  bool used = _groupUsed * 2 >= _scale;
  _groupLeft = _scale;
  _groupUsed = 0;
  _byte = _byte << 1 | unsigned{used};
  if (++_byteBits < 8) {
    return;
  }
  _line[_lineBytes++] = static_cast<std::byte>(_byte);
  _byte = 0;
  _byteBits = 0;
  if (_lineBytes == _line.size()) {
    printLine();
  }
}

void HFSPlusBitmapScaler::finish() {
  if (_byteBits > 0 || _groupLeft < _scale) {
    _line[_lineBytes++] = static_cast<std::byte>(_byte << (8 - _byteBits));
    _byte = 0;
    _byteBits = 0;
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
