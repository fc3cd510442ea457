#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "support/RandomVolume.hpp"
#include "support/SeededRandom.hpp"
#include "unit/Tasks/RewritingRun.hpp"

// Volumes of every shape and fill are rewritten with buffers and maps far too small for them; the
// seed in a failure's message makes the same volume and run again (XRDEFRAG_TEST_SEED=n).

namespace {

using Lines = std::vector<std::string>;

constexpr uint64_t kSeeds = 20;

/// The ends that a run may come to on a volume with too little room.
const std::set<std::string> kExpectedErrors = {
    "The amount of free space is insufficient.", "Volume is too congested\\, unable to continue.",
    "Overflow extents file is too congested\\, unable to continue."};

uint64_t firstSeed() {
  const char* seed = std::getenv("XRDEFRAG_TEST_SEED");
  return seed ? std::strtoull(seed, nullptr, 10) : 1;
}

uint64_t seedCount() {
  if (const char* count = std::getenv("XRDEFRAG_TEST_SEEDS")) {
    return std::strtoull(count, nullptr, 10);
  }
  return std::getenv("XRDEFRAG_TEST_SEED") ? 1 : kSeeds;
}

support::RandomVolumeOptions optionsOf(uint64_t seed, uint32_t fillPercent) {
  support::RandomVolumeOptions options;
  options.mostBytes = 6 << 20;
  options.mostFiles = 80;
  options.fillPercent = fillPercent;
  options.spareBlocks = true;
  options.strayRecords = true;
  options.anomalies = true;
  options.hfsx = seed % 4 == 3;
  return options;
}

/// Whether a placement profile has something to go by.
bool hasProfiles(const volumecheck::VolumeTruth& truth) {
  return truth.findItem("/Applications") || truth.findItem("/private/var/db/BootCache.playlist");
}

class RandomRewriting : public testing::TestWithParam<uint32_t> {};

void rewrite(const char* command, uint64_t seed, uint32_t fillPercent) {
  SCOPED_TRACE(std::string(command) + " seed " + std::to_string(seed) + " fill " +
               std::to_string(fillPercent));
  const auto built =
      support::tryBuildVolume(support::randomVolume(seed, optionsOf(seed, fillPercent)));
  if (!built) {
    return;  // too full for what it was to hold
  }
  RewritingRun run(*built);
  support::SeededRandom random(seed * 31);
  RewritingRun::Limits limits;
  limits.copyBufferBlocks = random.chance(20) ? 0 : random.between(1, 200);
  limits.mapCapacity = random.chance(70) ? 0x40000 : random.between(40, 400);

  const bool defrag = std::string_view(command) == "DEFRAG";
  const bool useProfiles = defrag && hasProfiles(run.truthBefore()) && random.chance(60);
  const Lines lines = run.run(useProfiles ? "DEFRAG --profile boot,app" : command, limits);
  const std::string error = RewritingRun::errorIn(lines);
  EXPECT_TRUE(error.empty() || kExpectedErrors.contains(error)) << error;
  EXPECT_EQ(lines.front(), std::string(command) + ",START");
  EXPECT_EQ(lines.back(), std::string(command) + ",DONE");
  EXPECT_EQ(useProfiles ? run.faultsBesidesEmptiedPlaylist() : run.faults(), "");
  if (error.empty()) {
    const auto extentsFile = run.extentsFileRule(fillPercent, limits);
    EXPECT_EQ(defrag ? run.scatteredForks(extentsFile) : run.dataAboveFreeSpace(extentsFile), "");
  }
}

TEST_P(RandomRewriting, DefragLosesNothingAndJoinsForks) {
  for (uint64_t seed = firstSeed(); seed < firstSeed() + seedCount(); ++seed) {
    rewrite("DEFRAG", seed, GetParam());
    if (HasFailure()) {
      return;
    }
  }
}

TEST_P(RandomRewriting, CompactLosesNothingAndLeavesNoGaps) {
  for (uint64_t seed = firstSeed(); seed < firstSeed() + seedCount(); ++seed) {
    rewrite("COMPACT", seed, GetParam());
    if (HasFailure()) {
      return;
    }
  }
}

/// The order of a profile run, if it came to an end that promises one, and that nothing is lost.
void rewriteWithProfiles(uint64_t seed) {
  constexpr uint32_t kFills[] = {5, 30, 50, 75, 90, 97, 99};
  constexpr const char* kLines[] = {"DEFRAG --profile boot,app", "DEFRAG -q -p app,boot",
                                    "DEFRAG --profile app,boot,app -q"};
  const uint32_t fillPercent = kFills[seed % std::size(kFills)];
  SCOPED_TRACE("seed " + std::to_string(seed) + " fill " + std::to_string(fillPercent));
  support::RandomVolumeOptions options = optionsOf(seed, fillPercent);
  options.placementHints = true;
  const auto built = support::tryBuildVolume(support::randomVolume(seed, options));
  if (!built) {
    return;  // too full for what it was to hold
  }
  RewritingRun run(*built);
  support::SeededRandom random(seed * 37);
  RewritingRun::Limits limits;
  limits.copyBufferBlocks = random.chance(20) ? 0 : random.between(1, 200);
  limits.mapCapacity = random.chance(70) ? 0x40000 : random.between(40, 400);
  const auto order = run.placementOrder();
  const Lines lines = run.run(kLines[random.below(std::size(kLines))], limits);
  const std::string error = RewritingRun::errorIn(lines);
  EXPECT_TRUE(error.empty() || kExpectedErrors.contains(error)) << error;
  EXPECT_EQ(lines.back(), "DEFRAG,DONE");
  EXPECT_EQ(run.faultsBesidesEmptiedPlaylist(), "");
  if (error.empty()) {
    const auto extentsFile = run.extentsFileRule(fillPercent, limits);
    EXPECT_EQ(run.firstForkOutOfOrder(order, extentsFile), "");
    EXPECT_EQ(run.scatteredForks(extentsFile), "");
  }
}

TEST(RandomRewritingWithProfiles, LosesNothingAndKeepsTheirOrder) {
  constexpr uint64_t kProfileSeeds = 200;
  const uint64_t count = seedCount() == kSeeds ? kProfileSeeds : seedCount();
  for (uint64_t seed = firstSeed(); seed < firstSeed() + count; ++seed) {
    rewriteWithProfiles(seed);
    ASSERT_FALSE(HasFailure());
  }
}

INSTANTIATE_TEST_SUITE_P(FillPercent, RandomRewriting, testing::Values(5, 50, 75, 90, 97, 99));

}  // namespace
