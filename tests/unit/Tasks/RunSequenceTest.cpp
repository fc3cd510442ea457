// Run after run on the same volume, each of which may be cancelled, meet an error, lose its device
// or be cut off, and then goes on in the same process or on a volume that is opened anew. Nothing
// must be lost after any of them. XRDEFRAG_SEQUENCE_STEPS=n asks for n runs (300 by default),
// XRDEFRAG_TEST_SEED=n for the first volume.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusAttributes.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "support/RandomVolume.hpp"
#include "support/SeededRandom.hpp"
#include "support/doubles/AilingDevice.hpp"
#include "support/doubles/FaultyDevice.hpp"
#include "support/doubles/PowerCut.hpp"
#include "support/doubles/RecordingDevice.hpp"
#include "support/doubles/TestRandom.hpp"
#include "unit/Tasks/RewritingRun.hpp"

namespace {

using doubles::AilingDevice;
using doubles::FaultyDevice;
using doubles::MemoryDevice;
using doubles::PowerCut;
using doubles::RecordingDevice;
using volumecheck::Fork;
using volumecheck::ForkType;
using Image = std::vector<std::byte>;

constexpr uint64_t kStepsPerVolume = 60;

class RunSequence {
 public:
  RunSequence(uint64_t seed, support::BuiltVolume built)
      : _random(seed * 77), _image(built.image.begin(), built.image.end()), _run(std::move(built)) {
    _reserved = RewritingRun::reservedBytes(_image);
  }

  /// Some runs in one process, and what becomes of the volume.
  void step() {
    const Image before = _image;
    start(before);
    uint64_t runs = 1 + (_random.chance(30) ? _random.below(3) : 0);
    for (; runs > 0; --runs) {
      _ailing->heal();
      std::shared_ptr<HFSPlusDefragTask> task;
      const std::string mishap = planMishap(task);
      _history += " " + mishap;
      runOnce(task);
      if (_random.chance(50)) {
        _ailing->heal();
      }
    }
    _image = _memory->image();
    if (_random.chance(50)) {
      _history += " cut";
      _image = cutOff(before, _recording->changes());
    }
    recover();
    const std::string faults = _run.faultsIn(_image);
    EXPECT_EQ(faults, "") << _history;
    EXPECT_EQ(RewritingRun::reservedBytes(_image), _reserved) << _history;
    _history += ";";
  }

 private:
  /// Whether a run may end like this: without an error, with that of a device, or for lack of room.
  /// A journal whose path cannot be read counts as any other file, but for its blocks, which the
  /// run then finds to have two owners.
  static bool isDocumented(const std::string& error) {
    constexpr std::string_view kBeginnings[] = {
        "Read failed",
        "Write fail",
        "The amount of free space is insufficient.",
        "Volume is too congested",
        "Overflow extents file is too congested",
        "Invalid overlapping extent",
    };
    return error.empty() || std::ranges::any_of(kBeginnings, [&](std::string_view beginning) {
             return error.starts_with(beginning);
           });
  }

  void start(const Image& image) {
    _memory = std::make_shared<MemoryDevice>(image);
    _recording = std::make_shared<RecordingDevice>(_memory);
    _faulty = std::make_shared<FaultyDevice>(_recording);
    _ailing = std::make_shared<AilingDevice>(_faulty);
    _run.openThrough([&](std::shared_ptr<PlatformDevice>) { return _ailing; });
    if (_random.chance(40)) {
      HFSPlusVolume& volume = _run.volume();
      volume.catalog().setNodeCacheSize(volume.catalog().nodeSize());
      volume.extents().setNodeCacheSize(volume.extents().nodeSize());
      if (volume.attributes() != nullptr) {
        volume.attributes()->setNodeCacheSize(volume.attributes()->nodeSize());
      }
    }
  }

  /// What goes wrong with the next run, and when; `task` is the one to be cancelled.
  std::string planMishap(std::shared_ptr<HFSPlusDefragTask>& task) {
    // Early ones and late ones alike.
    const uint64_t call = _random.below(1ULL << _random.between(1, 11));
    const auto told = [call](const char* what) { return what + (" at " + std::to_string(call)); };
    _faulty->repair();
    switch (_random.below(10)) {
      case 0:
        _ailing->at(call, [&task] {
          if (task) {
            task->abort();
          }
        });
        return told("cancel");
      case 1:
        _ailing->fallIll(AilingDevice::Illness::Gone, call);
        return told("gone");
      case 2:
        _ailing->fallIll(AilingDevice::Illness::ReadOnly, call);
        return told("read-only");
      case 3:
        _ailing->fallIll(AilingDevice::Illness::Shrunk, call);
        return told("shrunk");
      case 4:
        _faulty->plan({.call = FaultyDevice::Call::Read, .ordinal = call});
        return told("read error");
      case 5:
        _faulty->plan(
            {.call = FaultyDevice::Call::Write,
             .ordinal = call,
             .how = _random.chance(50) ? FaultyDevice::How::Tear : FaultyDevice::How::Short,
             .part = 512 * _random.between(0, 20)});
        return told("torn write");
      case 6:
        _faulty->plan(
            {.call = FaultyDevice::Call::Sync,
             .ordinal = call / 4,
             .how = _random.chance(50) ? FaultyDevice::How::Fail : FaultyDevice::How::Break});
        return told("sync error");
      case 7:
        return spoilSectors();
      default:
        return "nothing";
    }
  }

  /// Spoils a sector of one of the volume's own files, or any sector.
  std::string spoilSectors() {
    const HFSPlusVolume& volume = _run.volume();
    constexpr uint32_t kFiles[] = {kHFSExtentsFileID, kHFSCatalogFileID, kHFSAllocationFileID};
    const HFSPlusForkData& file = *volume.hostForkData(kFiles[_random.below(3)]);
    const uint64_t blockSize = volume.hostVolumeHeader().blockSize;
    const HFSPlusExtentDescriptor extent = file.extents[0];
    const uint64_t offset = _random.chance(60)
                                ? volume.volumeStartOffset() + extent.startBlock * blockSize +
                                      _random.below(uint64_t{extent.blockCount} * blockSize)
                                : _random.below(_image.size());
    _ailing->spoilSector(offset, _random.chance(50));
    return "bad sector at " + std::to_string(offset);
  }

  /// A run of either kind, or its opposite.
  void runOnce(std::shared_ptr<HFSPlusDefragTask>& task) {
    if (_random.chance(35)) {
      _history += " scatter";
      scatter();
      return;
    }
    static const char* const kLines[] = {"DEFRAG -q", "COMPACT -q", "DEFRAG -q -p app"};
    const std::string line = kLines[_random.below(3)];
    _history += " " + line;
    task = RewritingRun::taskOf(_run.volume(), line);
    task->limitResources(_random.between(1, 150) * _run.volume().hostVolumeHeader().blockSize,
                         _random.chance(70) ? 0x40000 : _random.between(40, 400));
    const std::vector<std::string> lines = RewritingRun::linesOf(*task);
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines.back(), line.substr(0, line.find(' ')) + ",DONE");
    const std::string error = RewritingRun::errorIn(lines);
    EXPECT_TRUE(isDocumented(error)) << error << _history;
    ++_ends[error.substr(0, error.find(" at offset"))];
    task = nullptr;
  }

  /// A batch that takes forks apart again.
  void scatter() {
    HFSPlusVolume& volume = _run.volume();
    volume.beginRewriting();
    if (!scatterForks(volume)) {
      static_cast<void>(volume.discardChanges());
    }
    static_cast<void>(volume.endRewriting());
  }

  Result<> scatterForks(HFSPlusVolume& volume) {
    struct Move {
      uint32_t from, to, count;
    };
    // The volume's own files first, as they have to be when they are among those that move.
    std::map<std::pair<uint32_t, uint8_t>, std::vector<Move>> moves;
    HFSPlusBlockRanges sources;
    HFSPlusBlockRanges destinations;
    for (uint64_t i = _random.between(1, 12); i > 0; --i) {
      const Fork& fork = _run.truthBefore().forks[_random.below(_run.truthBefore().forks.size())];
      if (!mayMove(fork)) {
        continue;
      }
      const auto type = static_cast<uint8_t>(fork.type);
      const auto extents =
          TRY(HFSPlusForkExtents::open(volume, fork.cnid, type))->copyExtentDescriptors(0);
      if (extents.empty()) {
        continue;
      }
      const HFSPlusExtentDescriptor extent = _random.pick(extents);
      Move move{extent.startBlock + static_cast<uint32_t>(_random.below(extent.blockCount)), 0, 0};
      const uint64_t most = std::min<uint64_t>(extent.startBlock + extent.blockCount - move.from,
                                               _random.between(1, 6));
      const auto take = [&](uint32_t block, uint64_t count) {
        move.to = block;
        move.count = static_cast<uint32_t>(count);
        return true;
      };
      const auto hint = static_cast<uint32_t>(_random.below(volume.hostVolumeHeader().totalBlocks));
      if (!TRY(volume.allocation().takeUnusedRuns({1, most}, hint, destinations, take)) ||
          sources.firstOverlap(move.from, move.count)) {
        continue;
      }
      sources.add(move.from, move.count);
      destinations.add(move.to, move.count);
      moves[{fork.cnid, type}].push_back(move);
      Image bytes(uint64_t{move.count} * volume.hostVolumeHeader().blockSize);
      TRY(volume.read(bytes, uint64_t{move.from} * volume.hostVolumeHeader().blockSize));
      TRY(volume.write(bytes, uint64_t{move.to} * volume.hostVolumeHeader().blockSize));
    }
    for (const auto& [id, forkMoves] : moves) {
      const auto fork = TRY(HFSPlusForkExtents::open(volume, id.first, id.second));
      for (const Move& move : forkMoves) {
        TRY(fork->move(move.from, move.to, move.count));
      }
      TRY(fork->update());
    }
    if (TRY(volume.flush()) == HFSPlusVolume::FlushOutcome::NoRoomForRecord) {
      TRY(volume.discardChanges());
    }
    return {};
  }

  bool mayMove(const Fork& fork) {
    if (fork.type == ForkType::Attribute || fork.extents.empty() || fork.path == "/.journal" ||
        fork.path == "/.journal_info_block") {
      return false;
    }
    const bool isOwn = fork.cnid == kHFSCatalogFileID || fork.cnid == kHFSAllocationFileID ||
                       fork.cnid == kHFSAttributesFileID;
    return isOwn ? _random.chance(40) : fork.cnid >= support::kFirstUserID;
  }

  /// What is left after a cut somewhere among the changes made since an image.
  Image cutOff(const Image& image, std::vector<RecordingDevice::Record> changes) {
    PowerCut cut(image, std::move(changes));
    cut.advanceTo(_random.below(cut.pointCount()));
    constexpr PowerCut::Unsynced kWays[] = {PowerCut::Unsynced::Lost, PowerCut::Unsynced::Kept,
                                            PowerCut::Unsynced::Torn};
    return cut.image(kWays[_random.below(3)], _random.next());
  }

  /// Opens the volume anew, some of the times not at the first attempt.
  void recover() {
    while (true) {
      const auto memory = std::make_shared<MemoryDevice>(_image);
      const auto recording = std::make_shared<RecordingDevice>(memory);
      const auto volume =
          HFSPlusVolume::open(XRDefragVolume("/nowhere/volume", recording, false, true));
      ASSERT_TRUE(volume) << volume.error().description() << _history;
      const auto changes = recording->changes();
      if (changes.empty() || !_random.chance(40)) {
        _image = memory->image();
        return;
      }
      _history += " cut in opening";
      _image = cutOff(_image, changes);
    }
  }

 public:
  /// How many runs came to which end.
  const std::map<std::string, uint64_t>& ends() const { return _ends; }

 private:
  support::SeededRandom _random;
  Image _image;
  Image _reserved;
  RewritingRun _run;
  std::shared_ptr<MemoryDevice> _memory;
  std::shared_ptr<RecordingDevice> _recording;
  std::shared_ptr<FaultyDevice> _faulty;
  std::shared_ptr<AilingDevice> _ailing;
  std::string _history;
  std::map<std::string, uint64_t> _ends;
};

support::VolumeDescription sequenceVolume(uint64_t seed) {
  constexpr uint32_t kFills[] = {30, 60, 80, 92};
  support::RandomVolumeOptions options;
  options.mostBytes = 2 << 20;
  options.mostFiles = 40;
  options.fillPercent = kFills[seed % std::size(kFills)];
  options.strayRecords = true;
  return support::randomVolume(seed, options);
}

TEST(RunSequence, NothingIsLostWhateverHappensToManyRunsInARow) {
  const uint64_t steps = numberFromEnvironment("XRDEFRAG_SEQUENCE_STEPS", 300);
  std::map<std::string, uint64_t> ends;
  uint64_t done = 0;
  for (uint64_t seed = numberFromEnvironment("XRDEFRAG_TEST_SEED", 1); done < steps; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    auto built = support::tryBuildVolume(sequenceVolume(seed));
    if (!built) {
      continue;
    }
    RunSequence sequence(seed, std::move(*built));
    for (uint64_t i = 0; i < kStepsPerVolume && done < steps; ++i, ++done) {
      SCOPED_TRACE("step " + std::to_string(i));
      sequence.step();
      ASSERT_FALSE(HasFailure());
    }
    for (const auto& [end, count] : sequence.ends()) {
      ends[end] += count;
    }
  }
  for (const auto& [end, count] : ends) {
    RecordProperty(end.empty() ? "no error" : end, static_cast<int>(count));
  }
}

}  // namespace
