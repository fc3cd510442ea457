#include "Tasks/HFSPlusDefragStretch.hpp"

#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumePresets.hpp"
#include "support/doubles/TestVolume.hpp"

namespace {

// Evicted data and the log of the run go wherever the bitmap says that it is free.
TEST(HFSPlusDefragStretch, MarksOwnedBlocksThatLieBeyondTheMap) {
  support::PlainVolume plain;
  plain.blockSize = 1024;
  plain.size = 2 << 20;
  plain.files = 40;
  plain.fragments = 12;
  support::VolumeDescription description = support::plainVolume(plain);
  const support::BuiltVolume sound = support::buildVolume(description);
  for (const support::BuiltFork& fork : sound.forks) {
    if (fork.fileID >= 16) {
      description.unmarked.push_back(fork.extents.back());
    }
  }
  const support::BuiltVolume built = support::buildVolume(description);
  doubles::TestVolume volume(std::as_bytes(std::span(built.image)));
  ASSERT_TRUE(volume.open());

  constexpr uint64_t kCapacity = 30;
  HFSPlusDefragStretch stretch(*volume, [] { return false; }, kCapacity);
  ASSERT_EQ(doubles::messageOf(stretch.build(0)), "");
  ASSERT_FALSE(stretch.reachesVolumeEnd());
  size_t beyond = 0;
  for (const auto& extent : description.unmarked) {
    beyond += extent.start >= stretch.nextStartBlock() ? 1U : 0U;
    const auto marked = volume->allocation().isSet(extent.start, extent.count);
    ASSERT_TRUE(marked);
    EXPECT_EQ(*marked, extent.count) << extent.start;
  }
  EXPECT_GT(beyond, 10U);
}

}  // namespace
