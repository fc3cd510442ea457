// Every move of DEFRAG and COMPACT, and where every fork ends up, to the block: as a second engine
// works it out that is too slow and too plain to be wrong in the same way.

#include <gtest/gtest.h>

#include <cstdlib>

#include "HFSPlus/HFSPlusApplicationProfile.hpp"
#include "HFSPlus/HFSPlusBootCacheProfile.hpp"
#include "HFSPlus/HFSPlusExtentMap.hpp"
#include "support/RandomVolume.hpp"
#include "support/SeededRandom.hpp"
#include "support/VolumePresets.hpp"
#include "support/doubles/ScratchFile.hpp"
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

/// The settings of a run; empties the boot playlist in `truth` if the run is going to.
ReferenceEngine::Settings settingsOf(HFSPlusVolume& volume, std::string_view line,
                                     uint32_t bufferBlocks, volumecheck::VolumeTruth& truth) {
  const auto immovable = volume.immutableForkIDs(true);
  EXPECT_TRUE(immovable);
  ReferenceEngine::Settings settings{.compact = line == "COMPACT",
                                     .bufferBlocks = bufferBlocks,
                                     .firstDataBlock = volume.firstDataBlock(),
                                     .immovable = idsOf(*immovable)};
  if (line.contains("--profile")) {
    settings.profile = profileOf(volume, settings.immovable);
    emptyPlaylist(truth);
  }
  return settings;
}

/// Whether a run did what the reference does. `before` is what the reference began with.
void expectSameRun(const ReferenceEngine& reference, const std::vector<std::string>& lines,
                   const volumecheck::VolumeTruth& before, const volumecheck::VolumeTruth& after) {
  Moves found;
  for (const RewritingRun::Move& move : RewritingRun::movesIn(lines)) {
    found.push_back({static_cast<uint32_t>(move.percent), move.from, move.to, move.count});
  }
  ASSERT_EQ(firstDifference(reference.moves(), found), "");
  ASSERT_EQ(after.forks.size(), before.forks.size());
  for (size_t i = 0; i < after.forks.size(); ++i) {
    const volumecheck::Fork& fork = before.forks[i];
    const auto& expected =
        reference.knows(idOf(fork)) ? reference.extentsOf(idOf(fork)) : fork.extents;
    ASSERT_EQ(textOf(after.forks[i].extents), textOf(expected)) << fork.path;
  }
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
  volumecheck::VolumeTruth truth = run.truthBefore();
  const auto settings = settingsOf(run.volume(), line, bufferBlocks, truth);
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
  ASSERT_NO_FATAL_FAILURE(expectSameRun(reference, lines, truth, run.truth()));
  ++tally.runs;
  tally.moves += reference.moves().size();
  tally.evictions += reference.evictions();
  tally.profiles += settings.profile.empty() ? 0 : 1;
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

TEST_P(EngineLayout, IsTheReferencesBehindAMetadataZoneToo) {
  const doubles::ScratchFile file(0);
  (void)support::buildVolume(support::zonedVolume(5, uint64_t{12} << 30), file.path());
  volumecheck::VolumeTruth before = volumecheck::checkVolumeFile(file.path()).truth;
  const auto device = XRDefragVolume::openDevice(file.path());
  ASSERT_TRUE(device);
  const auto volume = HFSPlusVolume::open(**device);
  ASSERT_TRUE(volume);
  constexpr uint32_t kBufferBytes = 64 << 20;
  const auto settings =
      settingsOf(**volume, GetParam(), kBufferBytes / before.header.blockSize, before);
  ReferenceEngine reference(before, settings);
  ASSERT_TRUE(reference.run());
  EXPECT_GT(reference.moves().size(), 100U);
  EXPECT_GT(settings.immovable.size(), 10U);

  const auto task = RewritingRun::taskOf(**volume, GetParam());
  task->limitResources(kBufferBytes, HFSPlusExtentMap::kDefaultCapacity);
  const auto lines = RewritingRun::linesOf(*task);
  ASSERT_EQ(RewritingRun::errorIn(lines), "");
  expectSameRun(reference, lines, before, volumecheck::checkVolumeFile(file.path()).truth);
}

INSTANTIATE_TEST_SUITE_P(Line, EngineLayout,
                         testing::Values("DEFRAG", "DEFRAG --profile boot,app", "COMPACT"));

}  // namespace
