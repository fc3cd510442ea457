#include "HFSPlus/HFSPlusBitmapBits.hpp"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "LWKit/LWDebug.hpp"

namespace {

constexpr uint64_t kAllBits = ~uint64_t{0};
constexpr uint64_t kWordBits = 64;
constexpr uint64_t kWordBytes = 8;

void storeWord(std::span<std::byte> bitmap, uint64_t word, uint64_t value) {
  std::array<std::byte, kWordBytes> bytes;
  writeBigEndian(bytes.data(), value);
  uint64_t offset = word * kWordBytes;
  std::memcpy(bitmap.data() + offset, bytes.data(),
              std::min<uint64_t>(kWordBytes, bitmap.size() - offset));
}

/// The bits of a word that belong to the range [first, end), which reaches into it.
uint64_t maskOf(uint64_t word, uint64_t first, uint64_t end) {
  uint64_t start = word * kWordBits;
  uint64_t mask = first > start ? kAllBits >> (first - start) : kAllBits;
  return end - start < kWordBits ? mask & ~(kAllBits >> (end - start)) : mask;
}

void checkRange(std::span<const std::byte> bitmap, uint64_t first, uint64_t count) {
  uint64_t bits = bitmap.size() * 8;
  LW_ASSERT(first <= bits);
  LW_ASSERT(count <= bits - first);
}

/// Sets bits of the bitmap inverted by `inversion`: all ones to clear bits, zero to set them.
uint64_t changeBits(std::span<std::byte> bitmap, uint64_t first, uint64_t count,
                    uint64_t inversion) {
  checkRange(bitmap, first, count);
  uint64_t changed = 0;
  uint64_t end = first + count;
  for (uint64_t word = first / kWordBits; word * kWordBits < end; ++word) {
    uint64_t value = HFSPlusBitmapWord(bitmap, word);
    uint64_t toggled = ~(value ^ inversion) & maskOf(word, first, end);
    if (toggled != 0) {
      changed += HFSPlusCountBits(toggled);
      storeWord(bitmap, word, value ^ toggled);
    }
  }
  return changed;
}

/// Length of the run of bits that are set once the bitmap is inverted by `inversion`.
uint64_t runLength(std::span<const std::byte> bitmap, uint64_t first, uint64_t count,
                   uint64_t inversion) {
  checkRange(bitmap, first, count);
  uint64_t end = first + count;
  for (uint64_t word = first / kWordBits; word * kWordBits < end; ++word) {
    uint64_t ending = ~(HFSPlusBitmapWord(bitmap, word) ^ inversion) & maskOf(word, first, end);
    if (ending != 0) {
      return word * kWordBits + static_cast<uint64_t>(std::countl_zero(ending)) - first;
    }
  }
  return count;
}

constexpr uint64_t kWordsAtOnce = 16;

/// Whether kWordsAtOnce words are all zero: free space comes in long stretches, which are passed
/// that many words at a time.
bool isZero(const std::byte* bytes) {
  uint64_t bits = 0;
  for (uint64_t word = 0; word < kWordsAtOnce; ++word) {
    uint64_t value;
    std::memcpy(&value, bytes + word * kWordBytes, sizeof value);
    bits |= value;
  }
  return bits == 0;
}

/// The number of set bits in whole words. Byte sums are gathered over as many words as a byte can
/// count, in a loop that the compiler turns into vector code.
uint64_t countWholeWords(const std::byte* bytes, uint64_t words) {
  constexpr uint64_t kWordsABatch = 31;  // 31 words give a byte at most 248
  uint64_t total = 0;
  while (words > 0) {
    if (words >= kWordsAtOnce && isZero(bytes)) {
      bytes += kWordsAtOnce * kWordBytes;
      words -= kWordsAtOnce;
      continue;
    }
    uint64_t batch = std::min(words, kWordsABatch);
    uint64_t sums = 0;
    for (uint64_t word = 0; word < batch; ++word) {
      uint64_t value;
      std::memcpy(&value, bytes + word * kWordBytes, sizeof value);
      value -= value >> 1 & 0x5555555555555555;
      value = (value & 0x3333333333333333) + (value >> 2 & 0x3333333333333333);
      sums += (value + (value >> 4)) & 0x0F0F0F0F0F0F0F0F;
    }
    // Two bytes each, lest eight sums of 248 overflow one.
    uint64_t pairs = (sums & 0x00FF00FF00FF00FF) + (sums >> 8 & 0x00FF00FF00FF00FF);
    total += pairs * 0x0001000100010001 >> 48;
    bytes += batch * kWordBytes;
    words -= batch;
  }
  return total;
}

}  // namespace

uint64_t HFSPlusBitmapWord(std::span<const std::byte> bitmap, uint64_t word) {
  uint64_t offset = word * kWordBytes;
  if (bitmap.size() - offset >= kWordBytes) [[likely]] {
    return readBigEndian<uint64_t>(bitmap.data() + offset);
  }
  std::array<std::byte, kWordBytes> bytes{};
  std::memcpy(bytes.data(), bitmap.data() + offset, bitmap.size() - offset);
  return readBigEndian<uint64_t>(bytes.data());
}

uint64_t HFSPlusSetBits(std::span<std::byte> bitmap, uint64_t first, uint64_t count) {
  return changeBits(bitmap, first, count, 0);
}

uint64_t HFSPlusClearBits(std::span<std::byte> bitmap, uint64_t first, uint64_t count) {
  return changeBits(bitmap, first, count, kAllBits);
}

uint64_t HFSPlusSetRun(std::span<const std::byte> bitmap, uint64_t first, uint64_t count) {
  return runLength(bitmap, first, count, 0);
}

uint64_t HFSPlusClearRun(std::span<const std::byte> bitmap, uint64_t first, uint64_t count) {
  return runLength(bitmap, first, count, kAllBits);
}

uint64_t HFSPlusCountSetBits(std::span<const std::byte> bitmap, uint64_t first, uint64_t count) {
  checkRange(bitmap, first, count);
  if (count == 0) {
    return 0;
  }
  uint64_t end = first + count;
  uint64_t firstWord = first / kWordBits;
  uint64_t lastWord = (end - 1) / kWordBits;
  auto inWord = [&](uint64_t word) {
    return uint64_t{HFSPlusCountBits(HFSPlusBitmapWord(bitmap, word) & maskOf(word, first, end))};
  };
  if (firstWord == lastWord) {
    return inWord(firstWord);
  }
  return inWord(firstWord) + inWord(lastWord) +
         countWholeWords(bitmap.data() + (firstWord + 1) * kWordBytes, lastWord - firstWord - 1);
}

std::optional<uint64_t> HFSPlusLastSetBit(std::span<const std::byte> bitmap, uint64_t count) {
  checkRange(bitmap, 0, count);
  uint64_t words = (count + kWordBits - 1) / kWordBits;
  while (words > 0) {
    --words;
    const uint64_t bits = HFSPlusBitmapWord(bitmap, words) & maskOf(words, 0, count);
    if (bits != 0) {
      return words * kWordBits + (kWordBits - 1) - static_cast<uint64_t>(std::countr_zero(bits));
    }
    while (words >= kWordsAtOnce && isZero(&bitmap[(words - kWordsAtOnce) * kWordBytes])) {
      words -= kWordsAtOnce;
    }
  }
  return std::nullopt;
}
