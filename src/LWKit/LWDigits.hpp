#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

// Numbers as digits, for text that is put together by the million: no locale, no loops, all digits
// of a word at once. Each function answers where what it wrote ends.

/// Bytes that LWPutDecimal() may touch.
inline constexpr size_t kLWDecimalBytes = 21;  // "-9223372036854775808", or eight behind a digit
/// Bytes that LWPutHexadecimal() writes.
inline constexpr size_t kLWHexadecimalBytes = 8;

/// The decimal digits of a number, without leading zeros.
inline char* LWPutDecimal(char* out, uint32_t number);

/// The same with a sign where the number is negative.
inline char* LWPutDecimal(char* out, int64_t number);

/// A number's eight hexadecimal digits, in upper case.
inline char* LWPutHexadecimal(char* out, uint32_t number);

namespace LWDigits {

inline constexpr uint32_t kEightDigits = 100'000'000;
inline constexpr uint64_t kZeros = 0x3030303030303030;

/// The eight digits of a number below 100,000,000, a byte each, the first one lowest: split into
/// fours, the fours into pairs, the pairs into digits, all of a kind in one multiplication.
inline uint64_t eightDigits(uint32_t number) {
  const uint64_t fours = number / 10'000 | uint64_t{number % 10'000} << 32;
  const uint64_t hundreds = (fours * 10'486 >> 20) & 0x0000007F0000007F;
  const uint64_t pairs = hundreds + ((fours - 100 * hundreds) << 16);
  const uint64_t tens = (pairs * 103 >> 10) & 0x000F000F000F000F;
  return tens + ((pairs - 10 * tens) << 8);
}

/// Eight characters, the first one lowest.
inline void put(char* out, uint64_t characters) {
  if constexpr (std::endian::native == std::endian::big) {
    characters = __builtin_bswap64(characters);
  }
  std::memcpy(out, &characters, sizeof characters);
}

inline char* putEightDigits(char* out, uint32_t number) {
  put(out, eightDigits(number) | kZeros);
  return out + 8;
}

}  // namespace LWDigits

inline char* LWPutDecimal(char* out, uint32_t number) {
  if (number >= LWDigits::kEightDigits) {
    const uint32_t high = number / LWDigits::kEightDigits;  // at most 42
    if (high >= 10) {
      *out++ = static_cast<char>('0' + high / 10);
    }
    *out++ = static_cast<char>('0' + high % 10);
    return LWDigits::putEightDigits(out, number % LWDigits::kEightDigits);
  }
  const uint64_t digits = LWDigits::eightDigits(number);
  // A zero has one digit as well.
  const int leadingZeros = std::countr_zero(digits | uint64_t{1} << 56) / 8;
  LWDigits::put(out, (digits | LWDigits::kZeros) >> 8 * leadingZeros);
  return out + 8 - leadingZeros;
}

inline char* LWPutDecimal(char* out, int64_t number) {
  auto rest = static_cast<uint64_t>(number);
  if (number < 0) {
    *out++ = '-';
    rest = -rest;
  }
  if (rest <= UINT32_MAX) {
    return LWPutDecimal(out, static_cast<uint32_t>(rest));
  }
  out = LWPutDecimal(out, static_cast<int64_t>(rest / LWDigits::kEightDigits));
  return LWDigits::putEightDigits(out, static_cast<uint32_t>(rest % LWDigits::kEightDigits));
}

inline char* LWPutHexadecimal(char* out, uint32_t number) {
  // A nibble a byte, the first one lowest.
  uint64_t nibbles = __builtin_bswap32(number);
  nibbles = (nibbles | nibbles << 16) & 0x0000FFFF0000FFFF;
  nibbles = (nibbles | nibbles << 8) & 0x00FF00FF00FF00FF;
  nibbles = (nibbles >> 4 & 0x000F000F000F000F) | (nibbles & 0x000F000F000F000F) << 8;
  // From ten on, letters: seven characters beyond where the digits would go on.
  const uint64_t letters = (nibbles + 0x0606060606060606) >> 4 & 0x0101010101010101;
  LWDigits::put(out, nibbles + LWDigits::kZeros + 7 * letters);
  return out + kLWHexadecimalBytes;
}
