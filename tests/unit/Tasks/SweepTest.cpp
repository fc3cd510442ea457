// Every block size with every node size and fill, rewritten by every command: nothing is left to
// the dice but what the files are. XRDEFRAG_SWEEP_SEEDS=n asks for n volumes of each combination
// (1 by default), XRDEFRAG_TEST_SEED=n for the first of them.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <set>

#include "support/SeededRandom.hpp"
#include "support/doubles/TestRandom.hpp"
#include "unit/Tasks/RewritingRun.hpp"

namespace {

constexpr uint32_t kLeastCatalogNode = 4096;
constexpr std::array kNodeSizes = {512u, 1024u, 2048u, 4096u, 8192u, 16384u, 32768u};
#ifdef __SANITIZE_ADDRESS__
// With a sanitizer every run takes four times as long.
constexpr std::array kFills = {50u, 98u};
#else
constexpr std::array kFills = {10u, 50u, 90u, 98u};
#endif
/// Up to here there is room for every run.
constexpr uint32_t kMostRoomyFill = 90;
/// What is run on a fresh volume, one line after the other.
const std::array<std::vector<const char*>, 3> kRuns = {
    {{"COMPACT"}, {"DEFRAG", "COMPACT"}, {"DEFRAG --profile boot,app", "DEFRAG"}}};

using Places = std::vector<std::vector<volumecheck::Extent>>;
using Forks = std::vector<HFSPlusFileFork>;

/// One combination. The trees of the catalog and of the attributes have nodes of 4 KiB at least.
struct Combination {
  uint32_t blockSize;
  uint32_t extentsNode;
  uint32_t catalogNode;
  uint32_t fillPercent;

  uint32_t attributesNode() const { return std::max(extentsNode, kLeastCatalogNode); }
  std::string text() const {
    return "blocks of " + std::to_string(blockSize) + ", nodes of " + std::to_string(extentsNode) +
           " and " + std::to_string(catalogNode) + ", " + std::to_string(fillPercent) + " % full";
  }
};

/// Files for about as many blocks as the combination has room for: forks in pieces, one of them in
/// very many, and with something for either profile.
class SweptVolume {
 public:
  SweptVolume(const Combination& combination, uint64_t seed) : _random(seed * 131 + 7) {
    _volume.seed = seed;
    _volume.blockSize = combination.blockSize;
    _volume.fillPercent = combination.fillPercent;
    _volume.extentsTree.nodeSize = combination.extentsNode;
    _volume.catalog.nodeSize = combination.catalogNode;
    _volume.attributesTree.nodeSize = combination.attributesNode();
    _volume.catalog.fragments = 1 + static_cast<uint32_t>(_random.below(3));
    _volume.layout.gapShare = _random.fraction();
    const uint64_t blocks = std::clamp<uint64_t>((1 << 20) / combination.blockSize, 112, 2048);
    _budget = std::max<uint64_t>(blocks * combination.fillPercent / 100, 12);
  }

  support::VolumeDescription make() {
    addManyPieces();
    addFiles();
    addAttributes();
    addPlaylist();
    return std::move(_volume);
  }

 private:
  support::ForkDescription drawFork(uint64_t mostBlocks) {
    const uint64_t blocks = _random.between(1, std::max<uint64_t>(mostBlocks, 1));
    const uint64_t pieces =
        _random.chance(40) ? 1 : _random.between(1, std::min<uint64_t>(blocks, 7));
    return support::fork(blocks * _volume.blockSize - _random.below(_volume.blockSize),
                         static_cast<uint32_t>(pieces));
  }

  void addManyPieces() {
    const auto pieces = static_cast<uint32_t>(std::min<uint64_t>(_budget / 5, 64));
    _files.push_back(&_volume.root().addFile(
        "in pieces", support::fork(uint64_t{pieces} * _volume.blockSize, pieces)));
    _used = pieces;
  }

  void addFiles() {
    for (uint32_t i = 0; _used < _budget; ++i) {
      auto& folder = i % 3 == 0 ? _volume.root().folderAt("Applications/One.app")
                                : _volume.root().folderAt("folder " + std::to_string(i % 4));
      auto& file = folder.addFile("file " + std::to_string(i), drawFork(_budget / 12 + 1));
      if (_random.chance(20)) {
        file.resource = drawFork(3);
      }
      _used += (file.data.logicalSize + file.resource.logicalSize) / _volume.blockSize + 1;
      _files.push_back(&file);
    }
  }

  void addAttributes() {
    _files.back()->addForkAttribute("attribute in pieces",
                                    support::fork(uint64_t{2} * _volume.blockSize, 2));
    for (support::FileDescription* file : _files) {
      if (_random.chance(10)) {
        file->addAttribute("attribute", support::Bytes(_random.below(100)));
      }
    }
  }

  void addPlaylist() {
    std::vector<support::PlaylistEntry> entries;
    for (const support::FileDescription* file : _files) {
      if (_random.chance(30)) {
        entries.push_back({.fileID = file->id, .batch = static_cast<uint32_t>(_random.below(3))});
      }
    }
    _volume.addPlaylist(std::move(entries));
  }

  support::SeededRandom _random;
  support::VolumeDescription _volume;
  std::vector<support::FileDescription*> _files;
  uint64_t _budget;  // of blocks
  uint64_t _used = 0;
};

/// What of a line's promise does not hold; empty if nothing.
std::string brokenPromise(RewritingRun& run, const std::string& line, const Forks& order,
                          RewritingRun::ExtentsFile extentsFile) {
  if (line.starts_with("COMPACT")) {
    return run.dataAboveFreeSpace(extentsFile);
  }
  return run.scatteredForks(extentsFile) +
         (line.contains("boot") ? run.firstForkOutOfOrder(order, extentsFile) : "");
}

/// Where every fork lies.
Places placesIn(const volumecheck::VolumeTruth& truth) {
  Places places;
  for (const volumecheck::Fork& fork : truth.forks) {
    places.push_back(fork.extents);
  }
  return places;
}

class Sweep : public testing::TestWithParam<uint32_t> {
 protected:
  void sweep(const Combination& combination, uint64_t seed) {
    const auto built = support::tryBuildVolume(SweptVolume(combination, seed).make());
    ASSERT_TRUE(built) << built.error();
    for (const auto& lines : kRuns) {
      RewritingRun run(*built);
      _playlistIsEmptied = false;
      support::SeededRandom random(seed);
      for (const std::string line : lines) {
        SCOPED_TRACE(line);
        rewrite(run, line, random.between(4, 80), combination.fillPercent);
      }
    }
  }

  void rewrite(RewritingRun& run, const std::string& line, uint64_t bufferBlocks,
               uint32_t fillPercent) {
    const auto before = fillPercent > kMostRoomyFill ? placesIn(run.truth()) : Places();
    const auto order = line.contains("boot") ? run.placementOrder() : Forks();
    const RewritingRun::Limits limits{.copyBufferBlocks = bufferBlocks};
    const auto report = run.run(line, limits);
    const std::string error = RewritingRun::errorIn(report);
    EXPECT_EQ(report.back(), line.substr(0, line.find(' ')) + ",DONE");
    _playlistIsEmptied = _playlistIsEmptied || line.contains("boot");
    EXPECT_EQ(_playlistIsEmptied ? run.faultsBesidesEmptiedPlaylist() : run.faults(), "");
    if (error.empty()) {
      ++_completed;
      const auto extentsFile = run.extentsFileRule(fillPercent, limits);
      EXPECT_EQ(brokenPromise(run, line, order, extentsFile), "");
      return;
    }
    // What a flush of large nodes is written down in may be more than the free space of such a
    // volume.
    ++_refused;
    EXPECT_GT(fillPercent, kMostRoomyFill);
    EXPECT_EQ(error, "The amount of free space is insufficient.");
    if (RewritingRun::movesIn(report).empty() && !line.contains("boot")) {
      EXPECT_TRUE(placesIn(run.truth()) == before);
    }
  }

  bool _playlistIsEmptied = false;
  int _completed = 0;
  int _refused = 0;
};

TEST_P(Sweep, EveryCombinationIsRewritten) {
  const uint64_t first = numberFromEnvironment("XRDEFRAG_TEST_SEED", 1);
  const uint64_t count = numberFromEnvironment("XRDEFRAG_SWEEP_SEEDS", 1);
  for (const uint32_t extentsNode : kNodeSizes) {
    for (const uint32_t catalogNode : kNodeSizes) {
      for (const uint32_t fillPercent : kFills) {
        const Combination combination{GetParam(), extentsNode, catalogNode, fillPercent};
        for (uint64_t seed = first; seed < first + count && catalogNode >= kLeastCatalogNode;
             ++seed) {
          SCOPED_TRACE(combination.text() + ", seed " + std::to_string(seed));
          sweep(combination, seed);
          ASSERT_FALSE(HasFailure());
        }
      }
    }
  }
  RecordProperty("completed", _completed);
  RecordProperty("refused", _refused);
  EXPECT_GT(_completed, _refused * 3);
}

INSTANTIATE_TEST_SUITE_P(BlockSize, Sweep,
                         testing::Values(512, 1024, 2048, 4096, 8192, 16384, 32768, 65536));

}  // namespace
