// Runs are recorded as their writes and syncs, and cut off wherever they can be: what is on the
// device then must open as a volume on which nothing is lost, and on which the run can be made
// again. XRDEFRAG_CRASH_STATES=n asks for n states (2,000 by default), XRDEFRAG_TEST_SEED=n for the
// first volume.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <regex>
#include <set>

#include "HFSPlus/HFSPlusAttributes.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "support/OutsideReaders.hpp"
#include "support/RandomVolume.hpp"
#include "support/SeededRandom.hpp"
#include "support/doubles/FaultyDevice.hpp"
#include "support/doubles/PowerCut.hpp"
#include "support/doubles/RecordingDevice.hpp"
#include "support/doubles/ScratchFile.hpp"
#include "support/doubles/TestRandom.hpp"
#include "unit/Tasks/RewritingRun.hpp"

namespace {

using doubles::FaultyDevice;
using doubles::MemoryDevice;
using doubles::PowerCut;
using doubles::RecordingDevice;
using Image = std::vector<std::byte>;

constexpr size_t kTornWays = 10;
constexpr uint64_t kStatesAReading = 500;  // of which the outside readers judge one
constexpr uint32_t kFills[] = {40, 75, 92, 98};

support::RandomVolumeOptions optionsOf(uint64_t seed, uint32_t fillPercent) {
  support::RandomVolumeOptions options;
  options.mostBytes = 2 << 20;
  options.mostFiles = 40;
  options.fillPercent = fillPercent;
  options.strayRecords = true;
  options.hfsx = seed % 5 == 3;
  return options;
}

/// What every campaign has to meet, however the dice fall; everything else is drawn.
enum class Shape {
  Drawn,
  SmallBlocks,
  LargeBlocks,
  Journaled,
  Wrapped,
  SpecialFilesInPieces,
  OverflowRecords,
  NearlyFull,
  Attributes,
};
constexpr uint64_t kShapes = 9;

/// What a run of either command, or one with placement profiles, is made on.
struct Setting {
  support::RandomVolumeOptions options;
  std::string command;
  Shape shape = Shape::Drawn;
  bool tinyCaches = false;
};

Setting plainSetting(uint64_t seed) {
  Setting setting{optionsOf(seed, kFills[seed % 4]), seed % 2 == 0 ? "COMPACT -q" : "DEFRAG -q"};
  setting.shape = static_cast<Shape>(seed % kShapes);
  setting.tinyCaches = seed / kShapes % 2 == 1;
  switch (setting.shape) {
    case Shape::SmallBlocks:
      setting.options.blockSize = 512;
      break;
    case Shape::LargeBlocks:
      setting.options.blockSize = 65536;
      break;
    case Shape::Journaled:
      setting.options.journaled = true;
      break;
    case Shape::Wrapped:
      setting.options.wrapper = true;
      break;
    case Shape::NearlyFull:
      setting.options.fillPercent = 99;
      break;
    default:
      break;
  }
  return setting;
}

support::VolumeDescription volumeOf(const Setting& setting, uint64_t seed) {
  support::VolumeDescription volume = support::randomVolume(seed, setting.options);
  switch (setting.shape) {
    case Shape::SpecialFilesInPieces:
      volume.catalog.fragments = 6;
      volume.extentsTree.fragments = 3;
      volume.attributesTree.fragments = 4;
      volume.hasAttributesFile = true;
      volume.allocationFragments = 2;
      break;
    case Shape::OverflowRecords:
      for (const char* name : {"in thirty pieces", "in sixty pieces"}) {
        const uint32_t pieces = name[3] == 't' ? 30 : 60;
        volume.root().addFile(name, support::fork(uint64_t{pieces} * volume.blockSize, pieces));
      }
      break;
    case Shape::Attributes:
      volume.hasAttributesFile = true;
      for (int i = 0; i < 8; ++i) {
        const std::string name = std::to_string(i);
        volume.root()
            .addFile("file with attributes " + name, support::fork(3 * volume.blockSize, 3))
            .addForkAttribute("attribute " + name, support::fork(2 * volume.blockSize, 2));
      }
      break;
    default:
      break;
  }
  return volume;
}

Setting profileSetting(uint64_t seed) {
  Setting setting{optionsOf(seed, kFills[seed % 4]), "DEFRAG -q --profile boot,app"};
  setting.options.placementHints = true;
  return setting;
}

/// Counts the states that are looked at and spreads them over all that there are.
class Budget {
 public:
  explicit Budget(uint64_t states) : _left(states) {}
  bool take() { return _left > 0 && _left-- > 0; }
  bool isSpent() const { return _left == 0; }
  uint64_t left() const { return _left; }

 private:
  uint64_t _left;
};

/// One volume, one run, and every way to interrupt it.
class InterruptedRun {
 public:
  InterruptedRun(uint64_t seed, const Setting& setting)
      : _random(seed), _command(setting.command), _tinyCaches(setting.tinyCaches) {
    if (auto built = support::tryBuildVolume(volumeOf(setting, seed))) {
      _before = built->image.empty() ? Image() : Image(built->image.begin(), built->image.end());
      _run = std::make_unique<RewritingRun>(std::move(*built));
    }
  }

  bool isPossible() const { return _run != nullptr; }

  /// Makes the run, with a small buffer so that it takes many batches.
  void record() {
    std::shared_ptr<RecordingDevice> recording;
    open([&](std::shared_ptr<PlatformDevice> device) {
      recording = std::make_shared<RecordingDevice>(std::move(device));
      return recording;
    });
    _limits.copyBufferBlocks = _random.between(2, 120);
    _errorOfRun = RewritingRun::errorIn(_run->run(_command, _limits));
    EXPECT_EQ(faultsIn(_run->device().image()), "");
    _changes = recording->changes();
  }

  size_t pointCount() const { return _changes.size() + 1; }

  /// Of the volumes that were looked at, those with the playlist as it was, and without its bytes.
  size_t keptPlaylists() const { return _keptPlaylists; }
  size_t emptiedPlaylists() const { return _emptiedPlaylists; }

  /// Cuts the run off at every `stride`-th point, in every way.
  void cut(size_t stride, Budget& budget) {
    cut(_random.between(0, static_cast<uint32_t>(stride - 1)), pointCount(), stride, budget);
  }

  /// Cuts the run off at points from `first` to before `end`.
  void cut(size_t first, size_t end, size_t stride, Budget& budget) {
    PowerCut powerCut(_before, _changes);
    for (size_t point = first; point < std::min(end, powerCut.pointCount()) && !budget.isSpent();
         point += stride) {
      powerCut.advanceTo(point);
      for (size_t way = 0; way < kTornWays + 2 && budget.take(); ++way) {
        if (way > 0 && !powerCut.hasUnsynced()) {
          break;
        }
        const auto unsynced = way == 0   ? PowerCut::Unsynced::Lost
                              : way == 1 ? PowerCut::Unsynced::Kept
                                         : PowerCut::Unsynced::Torn;
        SCOPED_TRACE("point " + std::to_string(point) + " way " + std::to_string(way));
        expectRecovers(powerCut.image(unsynced, way), point % 7 == 0 && way == 3, budget);
        if (testing::Test::HasFailure()) {
          return;
        }
      }
    }
  }

  /// The run with the n-th call of a kind going wrong.
  void fail(FaultyDevice::Call call, uint64_t ordinal) {
    const auto memory = std::make_shared<MemoryDevice>(_before);
    const auto faulty = std::make_shared<FaultyDevice>(memory);
    open([&](std::shared_ptr<PlatformDevice>) { return faulty; });
    faulty->plan({.call = call, .ordinal = ordinal});
    const auto lines = _run->run(_command, _limits);
    const std::string error = RewritingRun::errorIn(lines);
    // A run that ends with an error anyway tells of that one when its last writes fail.
    const bool isOwnError = !_errorOfRun.empty() && error == _errorOfRun;
    static const std::regex kDocumented(
        "Write failure\\.|Write failed with an error 5 at offset [0-9]+ and size [0-9]+\\.");
    EXPECT_TRUE(std::regex_match(error, kDocumented) || isOwnError) << error;
    EXPECT_EQ(lines.back(), _command.substr(0, _command.find(' ')) + ",DONE");
    Budget none(0);
    expectRecovers(memory->image(), false, none);
  }

  uint64_t callCount(RecordingDevice::Call call) const {
    return static_cast<uint64_t>(
        std::ranges::count(_changes, call, &RecordingDevice::Record::call));
  }

 private:
  /// Whether everything is there, spotless, after opening; `thoroughly` cuts the recovery off, too,
  /// and makes the run again.
  void expectRecovers(const Image& image, bool thoroughly, Budget& budget) {
    std::vector<RecordingDevice::Record> recovery;
    const auto recovered = RewritingRun::reopened(image, &recovery);
    ASSERT_TRUE(recovered) << recovered.error().description();
    expectNothingLost(*recovered);
    if (!thoroughly) {
      return;
    }
    PowerCut powerCut(image, recovery);
    for (size_t point = 0; point < powerCut.pointCount(); ++point) {
      powerCut.advanceTo(point);
      for (const auto unsynced :
           {PowerCut::Unsynced::Lost, PowerCut::Unsynced::Kept, PowerCut::Unsynced::Torn}) {
        SCOPED_TRACE("recovery cut at " + std::to_string(point));
        budget.take();
        const auto again = RewritingRun::reopened(powerCut.image(unsynced, point));
        ASSERT_TRUE(again) << again.error().description();
        EXPECT_EQ(*again, *recovered);
      }
    }
    expectRunsAgain(*recovered);
  }

  /// Opens the volume for a run, through a device of one's choice.
  void open(const RewritingRun::Wrap& wrap) {
    _run->openThrough(wrap);
    if (_tinyCaches) {
      HFSPlusVolume& volume = _run->volume();
      volume.catalog().setNodeCacheSize(volume.catalog().nodeSize());
      volume.extents().setNodeCacheSize(volume.extents().nodeSize());
      if (volume.attributes() != nullptr) {
        volume.attributes()->setNodeCacheSize(volume.attributes()->nodeSize());
      }
    }
  }

  std::string faultsIn(const Image& image) {
    if (!_command.contains("boot")) {
      return _run->faultsIn(image);
    }
    const std::string faults = _run->faultsIn(image);
    ++(faults.empty() ? _keptPlaylists : _emptiedPlaylists);
    return faults.empty() ? faults : _run->faultsBesidesEmptiedPlaylistIn(image);
  }

  void expectNothingLost(const Image& image) {
    EXPECT_EQ(faultsIn(image), "");
    if (++_statesJudged % kStatesAReading == 0) {
      expectOutsideReadersAgree(image);
    }
    EXPECT_EQ(RewritingRun::reservedBytes(image), RewritingRun::reservedBytes(_before));
  }

  /// Has others than the checker judge.
  static void expectOutsideReadersAgree(const Image& image) {
    const volumecheck::CheckResult check = volumecheck::checkVolumeBytes(
        {reinterpret_cast<const uint8_t*>(image.data()), image.size()});
    const doubles::ScratchFile file(image);
    outsidereaders::AgreeOptions options;
    options.askPartclone = false;
    for (const std::string& line :
         outsidereaders::outsideReadersAgree(file.path(), check.truth, options)) {
      ADD_FAILURE() << line;
    }
  }

  void expectRunsAgain(const Image& image) {
    const auto memory = std::make_shared<MemoryDevice>(image);
    open([&](std::shared_ptr<PlatformDevice>) { return memory; });
    const auto lines = _run->run(_command, _limits);
    EXPECT_EQ(lines.back(), _command.substr(0, _command.find(' ')) + ",DONE");
    expectNothingLost(memory->image());
  }

  support::SeededRandom _random;
  std::string _command;
  bool _tinyCaches;
  std::unique_ptr<RewritingRun> _run;
  RewritingRun::Limits _limits;
  std::string _errorOfRun;
  Image _before;
  std::vector<RecordingDevice::Record> _changes;
  size_t _keptPlaylists = 0;
  size_t _emptiedPlaylists = 0;
  static inline uint64_t _statesJudged = 0;
};

TEST(Crash, ACutRunIsBroughtToAnEndByOpeningTheVolume) {
  Budget budget(numberFromEnvironment("XRDEFRAG_CRASH_STATES", 2000));
  const uint64_t statesPerRun = std::max<uint64_t>(budget.left() / 24, 50);
  uint64_t runs = 0;
  for (uint64_t seed = numberFromEnvironment("XRDEFRAG_TEST_SEED", 1); !budget.isSpent(); ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    InterruptedRun run(seed, plainSetting(seed));
    if (!run.isPossible()) {
      continue;
    }
    run.record();
    Budget share(std::min(budget.left(), statesPerRun));
    const uint64_t shareBefore = share.left();
    run.cut(std::max<size_t>(run.pointCount() * kTornWays / statesPerRun, 1), share);
    for (uint64_t used = shareBefore - share.left(); used > 0; --used) {
      budget.take();
    }
    ++runs;
    ASSERT_FALSE(HasFailure());
    ASSERT_LT(runs, 1'000'000U);
  }
  RecordProperty("runs", static_cast<int>(runs));
}

// The playlist is there or it is empty: its emptying lies among the first points, each of which is
// looked at. What follows is cut less densely.
TEST(Crash, ACutRunWithProfilesLosesNothingBesidesThePlaylist) {
  constexpr size_t kFirstPoints = 40;
  const uint64_t statesPerRun =
      std::max<uint64_t>(numberFromEnvironment("XRDEFRAG_CRASH_STATES", 2000) / 16, 100);
  uint64_t runs = 0;
  for (uint64_t seed = numberFromEnvironment("XRDEFRAG_TEST_SEED", 1); runs < 4; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    InterruptedRun run(seed, profileSetting(seed));
    if (!run.isPossible()) {
      continue;
    }
    run.record();
    Budget beginning(kFirstPoints * (kTornWays + 2) * 4);
    run.cut(0, kFirstPoints, 1, beginning);
    EXPECT_GT(run.keptPlaylists(), 0U);
    EXPECT_GT(run.emptiedPlaylists(), 0U);
    Budget rest(statesPerRun);
    run.cut(std::max<size_t>(run.pointCount() * kTornWays / statesPerRun, 1), rest);
    ++runs;
    ASSERT_FALSE(HasFailure());
  }
}

/// Lets every `stride`-th write and sync of a run fail.
void failInTurn(InterruptedRun& run, uint64_t stride) {
  const std::pair<FaultyDevice::Call, RecordingDevice::Call> kinds[] = {
      {FaultyDevice::Call::Write, RecordingDevice::Call::Write},
      {FaultyDevice::Call::Sync, RecordingDevice::Call::Sync}};
  for (const auto& [call, recorded] : kinds) {
    const uint64_t count = run.callCount(recorded);
    for (uint64_t ordinal = 0; ordinal < count; ordinal += stride) {
      SCOPED_TRACE((call == FaultyDevice::Call::Write ? "write " : "sync ") +
                   std::to_string(ordinal));
      run.fail(call, ordinal);
      ASSERT_FALSE(testing::Test::HasFailure());
    }
  }
}

// One volume of every shape. A run has some thousand writes: by default every shape meets some of
// them failing, and the shortest run all of them. XRDEFRAG_FAILURES_A_RUN=n asks for n of each.
TEST(Crash, EveryWriteAndSyncMayFail) {
  const uint64_t most = numberFromEnvironment("XRDEFRAG_FAILURES_A_RUN", 16);
  std::set<uint64_t> shapesLeft;
  for (uint64_t shape = 0; shape < kShapes; ++shape) {
    shapesLeft.insert(shape);
  }
  std::unique_ptr<InterruptedRun> shortest;
  uint64_t failures = 0;
  for (uint64_t seed = numberFromEnvironment("XRDEFRAG_TEST_SEED", 1); !shapesLeft.empty();
       ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    auto run = std::make_unique<InterruptedRun>(seed, plainSetting(seed));
    if (!shapesLeft.contains(seed % kShapes) || !run->isPossible()) {
      continue;
    }
    run->record();
    if (run->callCount(RecordingDevice::Call::Write) < 20) {
      continue;  // there was nothing to be moved
    }
    shapesLeft.erase(seed % kShapes);
    const uint64_t writes = run->callCount(RecordingDevice::Call::Write);
    failInTurn(*run, std::max<uint64_t>(writes / most, 1));
    failures += std::min(writes, most);
    ASSERT_FALSE(HasFailure());
    if (!shortest || shortest->pointCount() > run->pointCount()) {
      shortest = std::move(run);
    }
  }
  failInTurn(*shortest, 1);
  RecordProperty("failing writes", static_cast<int>(failures));
}

}  // namespace
