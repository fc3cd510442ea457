// Every move of DEFRAG and COMPACT, and where every fork ends up, to the block: as a second engine
// works it out that is too slow and too plain to be wrong in the same way.

#include <gtest/gtest.h>

#include <cstdlib>

#include "HFSPlus/HFSPlusApplicationProfile.hpp"
#include "HFSPlus/HFSPlusBootCacheProfile.hpp"
#include "support/RandomVolume.hpp"
#include "support/SeededRandom.hpp"
#include "unit/Tasks/ReferenceEngine.hpp"
#include "unit/Tasks/RewritingRun.hpp"

namespace {

using Moves = std::vector<ReferenceEngine::Move>;

constexpr uint64_t kSeeds = 25;

/// More than any flush of such a volume takes to be written down in. Bytes.
constexpr uint32_t kRecordBytes = 512 << 10;

ReferenceEngine::ForkID idOf(const volumecheck::Fork& fork) {
  return {fork.cnid, static_cast<uint8_t>(fork.type)};
}

std::vector<ReferenceEngine::ForkID> idsOf(const HFSPlusFileForkSet& forks) {
  std::vector<ReferenceEngine::ForkID> ids;
  for (size_t i = 0; i < forks.count(); ++i) {
    ids.emplace_back(forks.fileForkAtIndex(i).fileID, forks.fileForkAtIndex(i).forkType);
  }
  return ids;
}

/// The movable forks that the placement profiles name, in their order.
std::vector<ReferenceEngine::ForkID> profileOf(
    HFSPlusVolume& volume, const std::vector<ReferenceEngine::ForkID>& immovable) {
  HFSPlusFileForkSet forks;
  EXPECT_TRUE(HFSPlusBootCacheProfile::addFileForks(volume, forks));
  EXPECT_TRUE(HFSPlusApplicationProfile::addFileForks(volume.catalog(), forks));
  std::vector<ReferenceEngine::ForkID> ids = idsOf(forks);
  std::erase_if(ids, [&](const ReferenceEngine::ForkID& id) {
    return id.first == kHFSBadBlockFileID || std::ranges::find(immovable, id) != immovable.end();
  });
  return ids;
}

/// Empties the boot playlist, which is no longer true once forks have moved.
void emptyPlaylist(volumecheck::VolumeTruth& truth) {
  const auto* item = truth.findItem("/private/var/db/BootCache.playlist");
  for (volumecheck::Fork& fork : truth.forks) {
    if (item && fork.cnid == item->cnid && fork.type == volumecheck::ForkType::Data) {
      truth.freeRuns.insert(truth.freeRuns.end(), fork.extents.begin(), fork.extents.end());
      fork.extents.clear();
    }
  }
}

uint32_t largestFreeRun(const volumecheck::VolumeTruth& truth) {
  uint32_t largest = 0;
  for (const volumecheck::Extent& run : truth.freeRuns) {
    largest = std::max(largest, run.blockCount);
  }
  return largest;
}

std::string textOf(const ReferenceEngine::Move& move) {
  return std::to_string(move.percent) + "%: " + std::to_string(move.from) + " > " +
         std::to_string(move.to) + " + " + std::to_string(move.count);
}

std::string textOf(const std::vector<volumecheck::Extent>& extents) {
  std::string text;
  for (const volumecheck::Extent& extent : extents) {
    text += std::to_string(extent.startBlock) + "+" + std::to_string(extent.blockCount) + " ";
  }
  return text;
}

/// The first move that differs; empty if none does.
std::string firstDifference(const Moves& expected, const Moves& found) {
  const auto [a, b] = std::ranges::mismatch(expected, found);
  if (a == expected.end() && b == found.end()) {
    return {};
  }
  return "move " + std::to_string(a - expected.begin()) + " of " + std::to_string(expected.size()) +
         ": expected " + (a == expected.end() ? "none" : textOf(*a)) + ", found " +
         (b == found.end() ? "none" : textOf(*b));
}

/// What was compared.
struct Tally {
  size_t runs = 0;
  size_t moves = 0;
  size_t evictions = 0;
  size_t profiles = 0;
};

void compareRun(const support::VolumeDescription& description, std::string_view line,
                uint32_t bufferBlocks, Tally& tally) {
  const auto built = support::tryBuildVolume(description);
  if (!built) {
    return;  // too full for what it was to hold
  }
  RewritingRun run(*built);
  if (largestFreeRun(run.truthBefore()) < 2 * bufferBlocks + kRecordBytes / built->blockSize) {
    return;  // what is evicted, and written down, might have to make do with less
  }
  const bool compact = line == "COMPACT";
  const auto immovable = run.volume().immutableForkIDs(true);
  ASSERT_TRUE(immovable);
  ReferenceEngine::Settings settings{.compact = compact,
                                     .bufferBlocks = bufferBlocks,
                                     .firstDataBlock = run.volume().firstDataBlock(),
                                     .immovable = idsOf(*immovable)};
  volumecheck::VolumeTruth truth = run.truthBefore();
  if (line.contains("--profile")) {
    settings.profile = profileOf(run.volume(), settings.immovable);
    emptyPlaylist(truth);
  }
  tally.profiles += settings.profile.empty() ? 0 : 1;
  ReferenceEngine reference(truth, settings);
  if (!reference.run()) {
    return;
  }

  const auto lines = run.run(line, {.copyBufferBlocks = bufferBlocks});
  const std::string error = RewritingRun::errorIn(lines);
  if (error == "Overflow extents file is too congested\\, unable to continue.") {
    return;
  }
  ASSERT_EQ(error, "");
  Moves found;
  for (const RewritingRun::Move& move : RewritingRun::movesIn(lines)) {
    found.push_back({static_cast<uint32_t>(move.percent), move.from, move.to, move.count});
  }
  ASSERT_EQ(firstDifference(reference.moves(), found), "");
  const volumecheck::VolumeTruth after = run.truth();
  ASSERT_EQ(after.forks.size(), truth.forks.size());
  for (size_t i = 0; i < after.forks.size(); ++i) {
    const volumecheck::Fork& before = truth.forks[i];
    const auto& expected =
        reference.knows(idOf(before)) ? reference.extentsOf(idOf(before)) : before.extents;
    ASSERT_EQ(textOf(after.forks[i].extents), textOf(expected)) << before.path;
  }
  ++tally.runs;
  tally.moves += found.size();
  tally.evictions += reference.evictions();
}

uint64_t seedCount() {
  const char* count = std::getenv("XRDEFRAG_TEST_SEEDS");
  return count ? std::strtoull(count, nullptr, 10) : kSeeds;
}

class EngineLayout : public testing::TestWithParam<const char*> {};

TEST_P(EngineLayout, IsTheReferencesToTheBlock) {
  Tally tally;
  for (uint64_t seed = 1; seed <= seedCount(); ++seed) {
    support::SeededRandom random(seed * 17);
    support::RandomVolumeOptions options;
    options.mostBytes = 12 << 20;
    options.mostFiles = 80;
    options.fillPercent = static_cast<uint32_t>(random.between(20, 70));
    options.spareBlocks = true;
    options.anomalies = true;
    const auto bufferBlocks = static_cast<uint32_t>(random.between(1, 150));
    SCOPED_TRACE("seed " + std::to_string(seed) + " buffer " + std::to_string(bufferBlocks));
    support::VolumeDescription description = support::randomVolume(seed, options);
    description.layout.gapShare = std::min(description.layout.gapShare, 0.3);
    compareRun(description, GetParam(), bufferBlocks, tally);
    if (HasFailure()) {
      return;
    }
  }
  std::printf("%zu runs, %zu moves, %zu evictions, %zu with a profile\n", tally.runs, tally.moves,
              tally.evictions, tally.profiles);
  EXPECT_GT(tally.runs, seedCount() / 3);
  EXPECT_GT(tally.moves, 20 * tally.runs);
  EXPECT_GT(tally.evictions, tally.runs / 2);
  EXPECT_EQ(tally.profiles > 0, std::string_view(GetParam()).contains("--profile"));
}

INSTANTIATE_TEST_SUITE_P(Line, EngineLayout,
                         testing::Values("DEFRAG", "DEFRAG --profile boot,app", "COMPACT"));

}  // namespace
