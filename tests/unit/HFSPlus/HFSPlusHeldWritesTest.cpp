#include "HFSPlus/HFSPlusHeldWrites.hpp"

#include <gtest/gtest.h>
#include <random>

#include "support/doubles/TestRandom.hpp"

namespace {

std::vector<std::byte> filled(size_t size, int value) {
  return std::vector<std::byte>(size, static_cast<std::byte>(value));
}

}  // namespace

TEST(HFSPlusHeldWrites, WhatIsHeldCoversItsRangeAndEveryPartOfIt) {
  HFSPlusHeldWrites held;
  held.hold(4, 4096, filled(4096, 7));
  std::vector<std::byte> bytes(4096);
  EXPECT_TRUE(held.copyWhole(4, 4096, bytes));
  EXPECT_EQ(bytes, filled(4096, 7));
  EXPECT_TRUE(held.copyWhole(4, 4100, std::span(bytes).first(512)));
  EXPECT_TRUE(held.copyWhole(4, 8191, std::span(bytes).first(1)));
  EXPECT_FALSE(held.copyWhole(4, 4095, std::span(bytes).first(2)));
  EXPECT_FALSE(held.copyWhole(4, 8191, std::span(bytes).first(2)));
  EXPECT_FALSE(held.copyWhole(3, 4096, bytes));
  EXPECT_FALSE(held.copyWhole(5, 4096, bytes));
}

TEST(HFSPlusHeldWrites, HoldingAPieceAgainReplacesIt) {
  HFSPlusHeldWrites held;
  held.hold(4, 0, filled(512, 1));
  held.hold(4, 0, filled(512, 2));
  std::vector<std::byte> bytes(512);
  ASSERT_TRUE(held.copyWhole(4, 0, bytes));
  EXPECT_EQ(bytes, filled(512, 2));
  EXPECT_EQ(held.byteCount(), 512U);
  EXPECT_EQ(held.pieces().size(), 1U);
}

TEST(HFSPlusHeldWrites, HoldingNothingHoldsNothing) {
  HFSPlusHeldWrites held;
  held.hold(4, 0, {});
  EXPECT_TRUE(held.empty());
}

TEST(HFSPlusHeldWrites, PiecesComeByFileAndOffset) {
  HFSPlusHeldWrites held;
  held.hold(6, 0, filled(8, 1));
  held.hold(4, 512, filled(8, 2));
  held.hold(4, 0, filled(8, 3));
  std::vector<std::pair<uint32_t, uint64_t>> keys;
  for (const auto& [key, bytes] : held.pieces()) {
    keys.emplace_back(key.fileID, key.offset);
  }
  EXPECT_EQ(keys, (std::vector<std::pair<uint32_t, uint64_t>>{{4, 0}, {4, 512}, {6, 0}}));
  held.clear();
  EXPECT_TRUE(held.empty());
  EXPECT_EQ(held.byteCount(), 0U);
}

TEST(HFSPlusHeldWritesDeathTest, PiecesThatOverlapAreAMistakeOfTheProgram) {
  HFSPlusHeldWrites held;
  held.hold(4, 1024, filled(1024, 1));
  EXPECT_DEATH(held.hold(4, 512, filled(513, 1)), "assertion failed");
  EXPECT_DEATH(held.hold(4, 2047, filled(1, 1)), "assertion failed");
  EXPECT_DEATH(held.hold(4, 1024, filled(512, 1)), "assertion failed");
}

TEST(HFSPlusHeldWrites, ReadsThroughItEqualAPlainArrayThatWasWritten) {
  constexpr size_t kUnit = 64;
  constexpr size_t kUnits = 32;
  const unsigned seed = testSeed();
  SCOPED_TRACE(seedText(seed));
  std::mt19937 random(seed);
  const auto below = [&random](size_t limit) { return random() % limit; };

  HFSPlusHeldWrites held;
  const std::vector<std::byte> device = filled(kUnit * kUnits, 0);
  std::vector<std::byte> model = device;
  std::vector<bool> isHeld(kUnits);
  for (int step = 0; step < 2000; ++step) {
    const size_t unit = below(kUnits);
    if (below(3) == 0) {
      const auto bytes = filled(kUnit, static_cast<int>(below(255) + 1));
      held.hold(3, unit * kUnit, bytes);
      std::ranges::copy(bytes, model.begin() + static_cast<ptrdiff_t>(unit * kUnit));
      isHeld[unit] = true;
      held.hold(below(2) == 0 ? 2 : 4, unit * kUnit,
                filled(kUnit, 255));  // of no concern to file 3
    }
    const size_t offset = below(model.size());
    const size_t size = below(model.size() - offset) + 1;
    const std::span<const std::byte> expected = std::span(model).subspan(offset, size);
    std::vector<std::byte> bytes(device.begin() + static_cast<ptrdiff_t>(offset),
                                 device.begin() + static_cast<ptrdiff_t>(offset + size));
    held.overlay(3, offset, bytes);
    ASSERT_TRUE(std::ranges::equal(bytes, expected));
    const bool whole = offset / kUnit == (offset + size - 1) / kUnit && isHeld[offset / kUnit];
    bytes.assign(size, std::byte{0xEE});
    ASSERT_EQ(held.copyWhole(3, offset, bytes), whole);
    ASSERT_TRUE(!whole || std::ranges::equal(bytes, expected));
  }
}
