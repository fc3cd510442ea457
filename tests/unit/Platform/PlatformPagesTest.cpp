#include "Platform/PlatformPages.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <span>

namespace {

bool isAligned(const PlatformPages& pages, size_t boundary) {
  return reinterpret_cast<uintptr_t>(pages.get()) % boundary == 0;
}

}  // namespace

TEST(PlatformPages, AreZeroAndWritableToTheLastByte) {
  for (const size_t size : {size_t{1}, size_t{4096}, size_t{100'000}, size_t{1} << 20,
                            (size_t{1} << 20) + 1, size_t{5} << 20}) {
    const PlatformPages pages = PlatformAllocatePages(size);
    ASSERT_TRUE(pages);
    const std::span bytes(pages.get(), size);
    EXPECT_TRUE(std::ranges::all_of(bytes, [](std::byte b) { return b == std::byte{0}; }));
    std::ranges::fill(bytes, std::byte{0xA5});
  }
}

TEST(PlatformPages, LargeOnesBeginAtALargePage) {
  EXPECT_TRUE(isAligned(PlatformAllocatePages(5000), 4096));
  EXPECT_TRUE(isAligned(PlatformAllocatePages(size_t{1} << 20), size_t{2} << 20));
  EXPECT_TRUE(isAligned(PlatformAllocatePages(size_t{3} << 20), size_t{2} << 20));
}

TEST(PlatformPages, WithoutMemoryThereAreNone) {
  EXPECT_FALSE(PlatformAllocatePages(std::numeric_limits<size_t>::max() / 4));
}
