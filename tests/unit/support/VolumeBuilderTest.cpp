#include "support/VolumeBuilder.hpp"

#include <gtest/gtest.h>

#include "support/VolumePresets.hpp"
#include "unit/support/BuiltVolumeChecks.hpp"

using namespace support;

namespace {

void expectSound(const VolumeDescription& description) {
  const auto volume = tryBuildVolume(description);
  ASSERT_TRUE(volume) << volume.error();
  EXPECT_EQ(findingsIn(*volume), "");
  EXPECT_EQ(disagreements(*volume), "");
}

}  // namespace

TEST(VolumeBuilder, AnEmptyVolumeIsSound) {
  expectSound(VolumeDescription());
}

TEST(VolumeBuilder, TheDemoVolumeIsSoundAndFragmented) {
  const BuiltVolume volume = buildVolume(demoVolume(1));
  EXPECT_EQ(findingsIn(volume), "");
  EXPECT_EQ(disagreements(volume), "");
  const auto inPieces = [](const BuiltFork& fork) { return fork.extents.size() > 1; };
  EXPECT_GT(std::ranges::count_if(volume.forks, inPieces), 150);
  const auto overflows = [](const BuiltFork& fork) { return fork.extents.size() > 8; };
  EXPECT_GT(std::ranges::count_if(volume.forks, overflows), 10);
}

TEST(VolumeBuilder, TheSameDescriptionMakesTheSameBytes) {
  EXPECT_EQ(buildVolume(demoVolume(7)).image, buildVolume(demoVolume(7)).image);
  EXPECT_NE(buildVolume(demoVolume(7)).image, buildVolume(demoVolume(8)).image);
}

TEST(VolumeBuilder, GivenExtentsAreKeptExactly) {
  VolumeDescription description;
  description.size = 4 << 20;
  const std::vector<BlockExtent> extents = {{900, 2}, {500, 1}, {501, 3}};
  const uint32_t id = description.root().addFile("a", forkAt(extents, 6 * 4096 - 100)).id;
  const BuiltVolume volume = buildVolume(description);
  ASSERT_NE(volume.fork(id, kDataFork), nullptr);
  EXPECT_EQ(volume.fork(id, kDataFork)->extents, extents);
  EXPECT_EQ(disagreements(volume), "");
}

TEST(VolumeBuilder, AForkComesInAsManyPiecesAsAsked) {
  VolumeDescription description;
  const uint32_t one = description.root().addFile("a", fork(400 * 4096, 100)).id;
  const uint32_t two = description.root().addFile("b", fork(9 * 4096), fork(70000, 9)).id;
  const BuiltVolume volume = buildVolume(description);
  EXPECT_EQ(volume.fork(one, kDataFork)->extents.size(), 100u);
  EXPECT_EQ(volume.fork(two, kDataFork)->extents.size(), 1u);
  EXPECT_EQ(volume.fork(two, kResourceFork)->extents.size(), 9u);
  EXPECT_EQ(findingsIn(volume), "");
}

TEST(VolumeBuilder, AVolumeThatIsTooSmallIsRefused) {
  VolumeDescription description;
  description.size = 1 << 20;
  description.root().addFile("a", fork(2 << 20));
  EXPECT_FALSE(tryBuildVolume(description));
}

TEST(VolumeBuilder, TwoFilesOfOneNameAreRefused) {
  VolumeDescription description;
  description.root().addFile("a");
  description.root().addFile("A");
  EXPECT_FALSE(tryBuildVolume(description));
}
