#include "support/OutsideReadersDigest.hpp"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>

namespace outsidereaders {

namespace {

constexpr std::uint32_t kSines[64] = {
    0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF, 0x4787C62A, 0xA8304613, 0xFD469501,
    0x698098D8, 0x8B44F7AF, 0xFFFF5BB1, 0x895CD7BE, 0x6B901122, 0xFD987193, 0xA679438E, 0x49B40821,
    0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D, 0x02441453, 0xD8A1E681, 0xE7D3FBC8,
    0x21E1CDE6, 0xC33707D6, 0xF4D50D87, 0x455A14ED, 0xA9E3E905, 0xFCEFA3F8, 0x676F02D9, 0x8D2A4C8A,
    0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44, 0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70,
    0x289B7EC6, 0xEAA127FA, 0xD4EF3085, 0x04881D05, 0xD9D4D039, 0xE6DB99E5, 0x1FA27CF8, 0xC4AC5665,
    0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3, 0x8F0CCC92, 0xFFEFF47D, 0x85845DD1,
    0x6FA87E4F, 0xFE2CE6E0, 0xA3014314, 0x4E0811A1, 0xF7537E82, 0xBD3AF235, 0x2AD7D2BB, 0xEB86D391,
};
constexpr int kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

}  // namespace

void Md5::_addBlock(const std::uint8_t* block) {
  std::array<std::uint32_t, 16> words{};
  for (std::size_t i = 0; i < 16; ++i) {
    const std::uint8_t* bytes = block + 4 * i;
    words[i] = static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
               static_cast<std::uint32_t>(bytes[2]) << 16 |
               static_cast<std::uint32_t>(bytes[3]) << 24;
  }
  auto [a, b, c, d] = _state;
  for (std::size_t i = 0; i < 64; ++i) {
    std::uint32_t mixed = 0;
    std::size_t word = 0;
    switch (i / 16) {
      case 0:
        mixed = (b & c) | (~b & d);
        word = i;
        break;
      case 1:
        mixed = (d & b) | (~d & c);
        word = (5 * i + 1) % 16;
        break;
      case 2:
        mixed = b ^ c ^ d;
        word = (3 * i + 5) % 16;
        break;
      default:
        mixed = c ^ (b | ~d);
        word = (7 * i) % 16;
        break;
    }
    const std::uint32_t turned =
        std::rotl(a + mixed + kSines[i] + words[word], kShifts[i / 16][i % 4]);
    a = d;
    d = c;
    c = b;
    b += turned;
  }
  _state[0] += a;
  _state[1] += b;
  _state[2] += c;
  _state[3] += d;
}

void Md5::update(std::span<const std::uint8_t> bytes) {
  std::size_t filled = _length % _block.size();
  _length += bytes.size();
  while (!bytes.empty()) {
    if (filled == 0 && bytes.size() >= _block.size()) {
      _addBlock(bytes.data());
      bytes = bytes.subspan(_block.size());
      continue;
    }
    const std::size_t part = std::min(_block.size() - filled, bytes.size());
    std::memcpy(_block.data() + filled, bytes.data(), part);
    filled += part;
    bytes = bytes.subspan(part);
    if (filled == _block.size()) {
      _addBlock(_block.data());
      filled = 0;
    }
  }
}

std::string Md5::finish() {
  const std::uint64_t bits = _length * 8;
  const std::size_t filled = _length % _block.size();
  std::array<std::uint8_t, 72> tail{0x80};
  const std::size_t padding = (filled < 56 ? 56 : 120) - filled;
  for (std::size_t i = 0; i < 8; ++i) {
    tail[padding + i < tail.size() ? padding + i : 0] = static_cast<std::uint8_t>(bits >> (8 * i));
  }
  update(std::span(tail).first(padding + 8));
  std::string text;
  for (const std::uint32_t word : _state) {
    char digits[9];
    std::snprintf(digits, sizeof digits, "%02x%02x%02x%02x", word & 0xFF, word >> 8 & 0xFF,
                  word >> 16 & 0xFF, word >> 24);
    text += digits;
  }
  return text;
}

}  // namespace outsidereaders
