#include "LWKit/LWZeroPacking.hpp"

#include <gtest/gtest.h>

#include <random>
#include <ranges>

namespace {

using Bytes = std::vector<std::byte>;

Bytes packed(const Bytes& bytes) {
  Bytes result;
  LWPackZeros(bytes, result);
  return result;
}

/// What unpacking gives; nothing when it is refused or does not use up all of the packed form.
std::optional<Bytes> unpacked(const Bytes& packedBytes, size_t size) {
  Bytes bytes(size, std::byte{0xEE});
  const auto rest = LWUnpackZeros(packedBytes, bytes);
  return rest && rest->empty() ? std::optional(bytes) : std::nullopt;
}

/// Bytes of which this many in a hundred are zero, in runs and alone.
Bytes randomBytes(std::mt19937& random, size_t size, uint32_t percentOfZeros) {
  Bytes bytes(size);
  for (size_t at = 0; at < size;) {
    const size_t run = random() % 40 + 1;
    const bool zero = random() % 100 < percentOfZeros;
    for (size_t i = 0; i < run && at < size; ++i, ++at) {
      bytes[at] = zero ? std::byte{0} : static_cast<std::byte>(random() % 256);
    }
  }
  return bytes;
}

Bytes bytesOf(std::initializer_list<int> values) {
  Bytes bytes;
  for (const int value : values) {
    bytes.push_back(static_cast<std::byte>(value));
  }
  return bytes;
}

TEST(LWZeroPacking, KeepsTheBytesThatAreNotZeroBehindAMask) {
  EXPECT_EQ(packed(bytesOf({7, 0, 0, 8, 0, 0, 0, 9})), bytesOf({0x89, 7, 8, 9}));
  EXPECT_EQ(packed(bytesOf({0, 0, 5})), bytesOf({0x04, 5}));
  EXPECT_EQ(packed(bytesOf({1, 2, 3, 4, 5, 6, 7, 8})), bytesOf({0xFF, 1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(packed(Bytes(8)), bytesOf({0}));
  EXPECT_EQ(packed(Bytes(17)), bytesOf({0, 0, 0}));
  EXPECT_EQ(packed({}), Bytes());
}

TEST(LWZeroPacking, GivesBackWhateverWasPacked) {
  std::mt19937 random(3);
  for (const uint32_t percentOfZeros : {0U, 20U, 50U, 90U, 100U}) {
    for (size_t size = 0; size < 300; ++size) {
      const Bytes bytes = randomBytes(random, size, percentOfZeros);
      EXPECT_EQ(unpacked(packed(bytes), size), bytes) << size;
    }
    const Bytes large = randomBytes(random, 100001, percentOfZeros);
    EXPECT_TRUE(unpacked(packed(large), large.size()) == large);
  }
}

TEST(LWZeroPacking, AppendsAndTakesFromTheFront) {
  Bytes both = bytesOf({1});
  const Bytes first = bytesOf({0, 0, 3, 4, 5});
  const Bytes second(20, std::byte{6});
  LWPackZeros(first, both);
  LWPackZeros(second, both);
  EXPECT_EQ(both.front(), std::byte{1});
  Bytes out(first.size());
  auto rest = LWUnpackZeros(std::span<const std::byte>(both).subspan(1), out);
  ASSERT_TRUE(rest);
  EXPECT_EQ(out, first);
  out.resize(second.size());
  rest = LWUnpackZeros(*rest, out);
  ASSERT_TRUE(rest);
  EXPECT_EQ(out, second);
  EXPECT_TRUE(rest->empty());
}

TEST(LWZeroPacking, TakesNoMoreThanIsSaid) {
  for (const size_t size : {0U, 1U, 8U, 9U, 4096U, 4099U}) {
    EXPECT_LE(packed(Bytes(size, std::byte{255})).size(), LWPackedZerosMaxBytes(size));
    EXPECT_LE(LWPackedZerosMaxBytes(size), size + size / 8 + 9);
  }
}

TEST(LWZeroPacking, WhatIsCutOffIsRefused) {
  std::mt19937 random(4);
  const Bytes bytes = randomBytes(random, 2000, 50);
  const Bytes whole = packed(bytes);
  for (const size_t size : std::views::iota(size_t{0}, whole.size())) {
    const Bytes part(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
    EXPECT_EQ(unpacked(part, bytes.size()), std::nullopt) << size;
  }
}

TEST(LWZeroPacking, NothingIsWrittenBeyondTheEnd) {
  EXPECT_EQ(unpacked(bytesOf({0, 0}), 8), std::nullopt) << "two groups of zeros for one";
  EXPECT_EQ(unpacked(bytesOf({0x08, 1}), 3), std::nullopt) << "a fourth byte of three";
  EXPECT_NE(unpacked(bytesOf({0x04, 1}), 3), std::nullopt);
}

}  // namespace
