#include "support/RandomVolume.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "support/VolumeBuilder.hpp"
#include "unit/support/BuiltVolumeChecks.hpp"

using namespace support;

namespace {

constexpr uint64_t kSeeds = 60;

RandomVolumeOptions smallOptions() {
  RandomVolumeOptions options;
  options.mostBytes = 6 << 20;
  return options;
}

}  // namespace

TEST(RandomVolume, EveryDrawIsConsistent) {
  for (uint64_t seed = 1; seed <= kSeeds; ++seed) {
    const auto volume = tryBuildVolume(randomVolume(seed, smallOptions()));
    ASSERT_TRUE(volume) << "seed " << seed << ": " << volume.error();
    EXPECT_EQ(findingsIn(*volume), "") << "seed " << seed;
    EXPECT_EQ(disagreements(*volume), "") << "seed " << seed;
  }
}

TEST(RandomVolume, EveryDrawOfAnHFSXVolumeIsConsistent) {
  RandomVolumeOptions options = smallOptions();
  options.hfsx = true;
  for (uint64_t seed = 1; seed <= kSeeds / 3; ++seed)
    EXPECT_EQ(findingsIn(buildVolume(randomVolume(seed, options))), "") << "seed " << seed;
}

TEST(RandomVolume, NamesOfHFSXVolumesMayDifferByCaseAlone) {
  RandomVolumeOptions options = smallOptions();
  options.hfsx = true;
  int binary = 0, folding = 0, twins = 0;
  for (uint64_t seed = 1; seed <= kSeeds / 3; ++seed) {
    const VolumeDescription volume = randomVolume(seed, options);
    (volume.binaryNames ? binary : folding) += 1;
    std::set<std::u16string> names;
    for (const FileDescription& file : volume.root().files()) {
      std::u16string name = file.name;
      std::ranges::transform(name, name.begin(), [](char16_t unit) {
        return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + 32) : unit;
      });
      twins += !names.insert(name).second;
    }
  }
  EXPECT_GT(binary, 0);
  EXPECT_GT(folding, 0);
  EXPECT_GT(twins, 0);
}

TEST(RandomVolume, DrawsReachAllBlockSizesFillsAndShapes) {
  std::set<uint32_t> blockSizes;
  int full = 0, empty = 0, wrapped = 0, journaled = 0, manyPieces = 0, catalogOverflow = 0;
  for (uint64_t seed = 1; seed <= kSeeds; ++seed) {
    const VolumeDescription description = randomVolume(seed, smallOptions());
    const BuiltVolume volume = buildVolume(description);
    blockSizes.insert(volume.blockSize);
    full += uint64_t{volume.freeBlocks} * 100 / volume.totalBlocks < 3;
    empty += uint64_t{volume.freeBlocks} * 100 / volume.totalBlocks > 85;
    wrapped += description.wrapper;
    journaled += description.journalFile != nullptr;
    catalogOverflow += volume.fork(kCatalogFileID, kDataFork)->extents.size() > 8;
    manyPieces += std::ranges::any_of(
        volume.forks, [](const BuiltFork& fork) { return fork.extents.size() > 100; });
  }
  EXPECT_EQ(blockSizes.size(), 8u);
  EXPECT_GT(full, 0);
  EXPECT_GT(empty, 0);
  EXPECT_GT(wrapped, 0);
  EXPECT_GT(journaled, 0);
  EXPECT_GT(manyPieces, 0);
  EXPECT_GT(catalogOverflow, 0);
}

TEST(RandomVolume, AnomaliesAreOnlyMadeWhenAsked) {
  RandomVolumeOptions options = smallOptions();
  options.anomalies = true;
  int withFindings = 0;
  for (uint64_t seed = 1; seed <= 10; ++seed)
    withFindings += !findingsIn(buildVolume(randomVolume(seed, options))).empty();
  EXPECT_GT(withFindings, 5);
}
