#include "HFSPlus/HFSPlusBTreeNodeImages.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <span>
#include <vector>

namespace {

using Image = HFSPlusBTreeNodeImages::Image;

/// Images of which each is filled with bytes of its own.
std::vector<Image> takeFilled(HFSPlusBTreeNodeImages& images, size_t count) {
  std::vector<Image> taken;
  for (size_t index = 0; index < count; index++) {
    taken.push_back(images.take());
    std::ranges::fill(std::span(taken.back().get(), images.imageSize()),
                      static_cast<std::byte>(index));
  }
  return taken;
}

bool keepTheirBytes(const std::vector<Image>& taken, uint32_t size) {
  for (size_t index = 0; index < taken.size(); index++) {
    if (!std::ranges::all_of(std::span(taken[index].get(), size), [index](std::byte byte) {
          return byte == static_cast<std::byte>(index);
        })) {
      return false;
    }
  }
  return true;
}

}  // namespace

TEST(HFSPlusBTreeNodeImages, NoImageReachesIntoAnother) {
  for (const uint32_t size : {512U, 4096U, 8192U, 32768U}) {
    HFSPlusBTreeNodeImages images(size);
    // More than the first few and a slab.
    const auto taken = takeFilled(images, 40 + (size_t{2} << 20) / size);
    EXPECT_TRUE(keepTheirBytes(taken, size)) << size;
  }
}

TEST(HFSPlusBTreeNodeImages, WhatIsGivenBackIsHandedOutAgain) {
  HFSPlusBTreeNodeImages images(4096);
  auto taken = takeFilled(images, 100);
  const std::byte* first = taken[3].get();
  const std::byte* second = taken[70].get();
  taken[3].reset();
  taken[70].reset();
  taken[3] = images.take();
  taken[70] = images.take();
  EXPECT_EQ(taken[3].get(), second);
  EXPECT_EQ(taken[70].get(), first);
}

TEST(HFSPlusBTreeNodeImages, WhatIsShownStaysWithItsOwner) {
  HFSPlusBTreeNodeImages images(512);
  std::vector<std::byte> bytes(512, std::byte{7});
  for (int i = 0; i < 2; ++i) {
    const Image shown = images.show(bytes);
    EXPECT_TRUE(std::ranges::equal(std::span(shown.get(), 512), bytes));
  }
  const Image taken = images.take();
  EXPECT_NE(taken.get(), bytes.data());
}
