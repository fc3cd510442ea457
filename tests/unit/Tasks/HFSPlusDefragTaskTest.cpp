#include "Tasks/HFSPlusDefragTask.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusForkExtents.hpp"
#include "Tasks/HFSPlusRewritingTurn.hpp"
#include "support/VolumePresets.hpp"
#include "support/doubles/TestVolume.hpp"
#include "unit/Tasks/RewritingRun.hpp"

namespace {

using Lines = std::vector<std::string>;
using doubles::FaultyDevice;
using doubles::RecordingDevice;

/// A small volume on which every kind of thing is in pieces.
support::VolumeDescription smallVolume(uint64_t seed = 1) {
  support::PlainVolume plain;
  plain.seed = seed;
  plain.blockSize = 1024;
  plain.size = 2 << 20;
  plain.files = 40;
  plain.fragments = 12;
  support::VolumeDescription volume = support::plainVolume(plain);
  volume.catalog.fragments = 3;
  volume.extentsTree.fragments = 2;
  volume.extentsTree.nodeSize = 512;
  volume.allocationFragments = 1;
  return volume;
}

Lines dropFirstAndLast(const Lines& lines) {
  return {lines.begin() + 1, lines.end() - 1};
}

/// The message of a run with options; the volume must not be written to.
std::string errorOf(const std::string& line) {
  static const std::vector<std::byte> image = support::buildVolume(smallVolume()).image;
  doubles::TestVolume volume(image);
  EXPECT_TRUE(volume.open());
  volume.recording->clear();
  const Lines lines = RewritingRun::linesOf(*RewritingRun::taskOf(*volume, line));
  EXPECT_TRUE(volume.recording->changes().empty());
  return RewritingRun::errorIn(lines);
}

TEST(HFSPlusDefragTask, DefragmentsTheDemoVolume) {
  RewritingRun run(support::demoVolume(1));
  const Lines lines = run.run("DEFRAG");
  EXPECT_EQ(lines.front(), "DEFRAG,START");
  EXPECT_EQ(lines.back(), "DEFRAG,DONE");
  EXPECT_EQ(RewritingRun::errorIn(lines), "");
  EXPECT_EQ(run.faults(), "");
  EXPECT_EQ(run.scatteredForks(), "");
}

TEST(HFSPlusDefragTask, CompactsTheDemoVolume) {
  RewritingRun run(support::demoVolume(1));
  const Lines lines = run.run("COMPACT");
  EXPECT_EQ(lines.front(), "COMPACT,START");
  EXPECT_EQ(lines.back(), "COMPACT,DONE");
  EXPECT_EQ(RewritingRun::errorIn(lines), "");
  EXPECT_EQ(run.faults(), "");
  EXPECT_EQ(run.dataAboveFreeSpace(), "");
}

TEST(HFSPlusDefragTask, RefusesOptionsThatItDoesNotKnow) {
  EXPECT_EQ(errorOf("DEFRAG --fast"), "Unknown option: --fast");
  EXPECT_EQ(errorOf("DEFRAG -q file"), "Unknown option: file");
  EXPECT_EQ(errorOf("COMPACT --profile app"), "Unknown option: --profile");
  EXPECT_EQ(errorOf("COMPACT -p"), "Unknown option: -p");
}

TEST(HFSPlusDefragTask, AProfileNeedsANameThatItKnows) {
  EXPECT_EQ(errorOf("DEFRAG --profile"), "Option --profile requires an argument.");
  EXPECT_EQ(errorOf("DEFRAG -q -p"), "Option -p requires an argument.");
  EXPECT_EQ(errorOf("DEFRAG --profile fast"), "Unknown profile: fast");
  EXPECT_EQ(errorOf("DEFRAG --profile app,fast"), "Unknown profile: fast");
  EXPECT_EQ(errorOf("DEFRAG --profile ,"), "Unknown profile: \\,");
  EXPECT_EQ(errorOf("DEFRAG -p Boot"), "Unknown profile: Boot");
}

TEST(HFSPlusDefragTask, ProfilesOfAVolumeThatHasNeitherAreNoProfile) {
  RewritingRun plain(smallVolume());
  RewritingRun profiled(smallVolume());
  EXPECT_EQ(profiled.run("DEFRAG --profile boot,app"), plain.run("DEFRAG"));
  EXPECT_EQ(profiled.faults(), "");
}

TEST(HFSPlusDefragTask, AMountedVolumeIsRefusedBeforeAnyWrite) {
  const std::vector<std::byte> image = support::buildVolume(smallVolume()).image;
  doubles::TestVolume volume(image, doubles::TestVolume::Mode::Mounted);
  ASSERT_TRUE(volume.open());
  EXPECT_EQ(RewritingRun::linesOf(*RewritingRun::taskOf(*volume, "DEFRAG")),
            (Lines{"DEFRAG,START", "DEFRAG,ERROR,Volume is mounted.", "DEFRAG,DONE"}));
  EXPECT_TRUE(volume.recording->changes().empty());
}

TEST(HFSPlusDefragTask, AReadOnlyVolumeIsRefused) {
  const std::vector<std::byte> image = support::buildVolume(smallVolume()).image;
  doubles::TestVolume volume(image, doubles::TestVolume::Mode::ReadOnly);
  ASSERT_TRUE(volume.open());
  EXPECT_EQ(RewritingRun::linesOf(*RewritingRun::taskOf(*volume, "COMPACT")),
            (Lines{"COMPACT,START", "COMPACT,ERROR,Volume is read-only.", "COMPACT,DONE"}));
}

/// Makes the catalog's map of nodes call its last leaf unused.
void hideLastLeaf(std::vector<std::byte>& image) {
  constexpr size_t kVolumeHeader = 1024;
  constexpr size_t kBlockSize = kVolumeHeader + 40;
  constexpr size_t kCatalogStartBlock = kVolumeHeader + 272 + 16;
  constexpr size_t kLastLeafNode = 14 + 14;
  constexpr size_t kMapRecord = 14 + 106 + 128;
  const auto number = [&](size_t offset) { return readBigEndian<uint32_t>(&image[offset]); };
  const size_t catalog = size_t{number(kCatalogStartBlock)} * number(kBlockSize);
  const uint32_t leaf = number(catalog + kLastLeafNode);
  image[catalog + kMapRecord + leaf / 8] &= ~(std::byte{0x80} >> (leaf % 8));
}

TEST(HFSPlusDefragTask, ACatalogWhoseMapHidesFilesIsRefused) {
  std::vector<std::byte> image = support::buildVolume(smallVolume()).image;
  hideLastLeaf(image);
  for (const char* command : {"DEFRAG", "COMPACT"}) {
    doubles::TestVolume volume(image);
    ASSERT_TRUE(volume.open());
    volume.recording->clear();
    const Lines lines = RewritingRun::linesOf(*RewritingRun::taskOf(*volume, command));
    EXPECT_EQ(RewritingRun::errorIn(lines), "Catalog file is inconsistent.");
    EXPECT_TRUE(volume.recording->changes().empty());
  }
}

TEST(HFSPlusDefragTask, AVolumeInPlaceIsNotWrittenTo) {
  for (const char* command : {"DEFRAG", "COMPACT"}) {
    RewritingRun run(smallVolume());
    run.run(command);
    std::shared_ptr<RecordingDevice> recording;
    run.openThrough([&](std::shared_ptr<PlatformDevice> device) {
      return recording = std::make_shared<RecordingDevice>(std::move(device));
    });
    const Lines lines = run.run(command);
    EXPECT_EQ(lines.size(), 2u) << lines[1];
    EXPECT_TRUE(recording->changes().empty());
  }
}

TEST(HFSPlusDefragTask, AQuietRunPrintsNoMoves) {
  RewritingRun run(smallVolume());
  const Lines lines = run.run("DEFRAG --quiet");
  EXPECT_TRUE(RewritingRun::movesIn(lines).empty());
  EXPECT_EQ(run.scatteredForks(), "");
}

TEST(HFSPlusDefragTask, MovesAreToldWithTheVolumesBlocksInUse) {
  RewritingRun run(smallVolume());
  const Lines lines = dropFirstAndLast(run.run("DEFRAG"));
  const std::vector<RewritingRun::Move> moves = RewritingRun::movesIn(lines);
  ASSERT_EQ(moves.size(), lines.size());
  int percent = 0;
  for (const RewritingRun::Move& move : moves) {
    EXPECT_GE(move.percent, percent);
    EXPECT_LE(move.percent, 100);
    EXPECT_EQ(move.allocatedBlocks, run.built().totalBlocks - run.built().freeBlocks);
    percent = move.percent;
  }
  EXPECT_EQ(percent, 100);
}

TEST(HFSPlusDefragTask, BlocksInUseAreThoseOfTheVolumeAsItWasOpened) {
  support::VolumeDescription description = smallVolume();
  support::FileDescription& file = description.root().addFile("Unmarked", support::fork(20000));
  description.addPlaylist({{.fileID = file.id}});
  for (const support::BuiltFork& fork : support::buildVolume(description).forks) {
    if (fork.fileID == file.id) {
      description.unmarked.push_back(fork.extents.front());
    }
  }
  RewritingRun run(description);
  const uint32_t inUse =
      run.volume().hostVolumeHeader().totalBlocks - run.volume().hostVolumeHeader().freeBlocks;
  const auto moves = RewritingRun::movesIn(run.run("DEFRAG --profile boot"));
  const HFSPlusVolumeHeader& now = run.volume().hostVolumeHeader();
  EXPECT_NE(now.totalBlocks - uint32_t{now.freeBlocks}, inUse);
  ASSERT_FALSE(moves.empty());
  for (const RewritingRun::Move& move : moves) {
    EXPECT_EQ(move.allocatedBlocks, inUse);
  }
}

TEST(HFSPlusDefragTask, CachesOfASingleNodeLoseNothing) {
  for (const char* command : {"DEFRAG", "COMPACT"}) {
    RewritingRun run(support::piecesVolume(1));
    HFSPlusVolume& volume = run.volume();
    volume.catalog().setNodeCacheSize(volume.catalog().nodeSize());
    volume.extents().setNodeCacheSize(volume.extents().nodeSize());
    EXPECT_EQ(RewritingRun::errorIn(run.run(command)), "");
    EXPECT_EQ(run.faults(), "");
  }
}

TEST(HFSPlusDefragTask, ASecondRunWaitsForTheFirstAndHoldsNoGateMeanwhile) {
  RewritingRun run(smallVolume());
  auto turn = HFSPlusRewritingTurn::wait(run.volume(), [] { return false; });
  ASSERT_TRUE(turn);
  const auto task = RewritingRun::taskOf(run.volume(), "DEFRAG -q");
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    run.volume().closeGate();
    EXPECT_EQ(run.scatteredForks() == "", false);
    run.volume().openGate();
    turn.reset();
  });
  EXPECT_EQ(RewritingRun::linesOf(*task), (Lines{"DEFRAG,START", "DEFRAG,DONE"}));
  releaser.join();
  EXPECT_EQ(run.scatteredForks(), "");
}

TEST(HFSPlusDefragTask, AnAbortEndsTheWait) {
  RewritingRun run(smallVolume());
  const auto turn = HFSPlusRewritingTurn::wait(run.volume(), [] { return false; });
  const auto task = RewritingRun::taskOf(run.volume(), "COMPACT");
  std::thread aborter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    task->abort();
  });
  EXPECT_EQ(RewritingRun::linesOf(*task), (Lines{"COMPACT,START", "COMPACT,DONE"}));
  aborter.join();
}

/// Calls back before every write.
class WatchedDevice final : public PlatformDevice {
 public:
  WatchedDevice(std::shared_ptr<PlatformDevice> device, std::function<void(uint64_t)> beforeWrite)
      : _device(std::move(device)), _beforeWrite(std::move(beforeWrite)) {}

  std::expected<size_t, int> readAt(std::span<std::byte> bytes, uint64_t offset) override {
    return _device->readAt(bytes, offset);
  }
  std::expected<size_t, int> writeAt(std::span<const std::byte> bytes, uint64_t offset) override {
    _beforeWrite(_writes++);
    return _device->writeAt(bytes, offset);
  }
  std::expected<void, int> sync() override { return _device->sync(); }
  uint32_t blockSize() const override { return _device->blockSize(); }
  uint64_t blockCount() const override { return _device->blockCount(); }

 private:
  std::shared_ptr<PlatformDevice> _device;
  std::function<void(uint64_t)> _beforeWrite;
  uint64_t _writes = 0;
};

TEST(HFSPlusDefragTask, AnAbortedRunLeavesASoundVolumeAndCanBeStartedAgain) {
  for (const uint64_t when : {0, 1, 2, 5, 9, 20, 40, 77, 150, 300}) {
    SCOPED_TRACE("abort at write " + std::to_string(when));
    RewritingRun run(smallVolume());
    std::shared_ptr<HFSPlusDefragTask> task;
    run.openThrough([&](std::shared_ptr<PlatformDevice> device) {
      return std::make_shared<WatchedDevice>(std::move(device), [&, when](uint64_t write) {
        if (write == when && task) {
          task->abort();
        }
      });
    });
    task = RewritingRun::taskOf(run.volume(), "DEFRAG");
    task->limitResources(64 * 1024, 0x40000);
    const Lines lines = RewritingRun::linesOf(*task);
    EXPECT_EQ(lines.front(), "DEFRAG,START");
    EXPECT_EQ(lines.back(), "DEFRAG,DONE");
    EXPECT_EQ(RewritingRun::errorIn(lines), "");
    EXPECT_EQ(run.faults(), "");
    task = nullptr;
    EXPECT_EQ(RewritingRun::errorIn(run.run("DEFRAG")), "");
    EXPECT_EQ(run.faults(), "");
    EXPECT_EQ(run.scatteredForks(), "");
  }
}

/// A run in which one call to the device goes wrong; then the volume is opened again.
void runWithFault(const char* command, const FaultyDevice::Fault& fault, bool& reached) {
  SCOPED_TRACE(std::string(command) + " call " + std::to_string(static_cast<int>(fault.call)) +
               " ordinal " + std::to_string(fault.ordinal));
  RewritingRun run(smallVolume());
  std::shared_ptr<FaultyDevice> faulty;
  run.openThrough([&](std::shared_ptr<PlatformDevice> device) {
    return faulty = std::make_shared<FaultyDevice>(std::move(device));
  });
  faulty->plan(fault);
  const auto task = RewritingRun::taskOf(run.volume(), command);
  task->limitResources(64 * 1024, 0x40000);
  const Lines lines = RewritingRun::linesOf(*task);
  reached = faulty->count(fault.call) > fault.ordinal;
  EXPECT_EQ(lines.back(), std::string(command) + ",DONE");
  if (fault.call != FaultyDevice::Call::Read) {
    // A read may have been for what can be had in another way.
    EXPECT_EQ(RewritingRun::errorIn(lines).empty(), !reached);
  }

  run.openThrough([](std::shared_ptr<PlatformDevice> device) { return device; });
  EXPECT_EQ(run.faults(), "");
}

TEST(HFSPlusDefragTask, AWriteThatFailsCostsNothing) {
  for (const auto how : {FaultyDevice::How::Fail, FaultyDevice::How::Break}) {
    bool reached = true;
    for (uint64_t ordinal = 0; reached && !HasFailure(); ordinal += 1 + ordinal / 4) {
      runWithFault("DEFRAG", {.call = FaultyDevice::Call::Write, .ordinal = ordinal, .how = how},
                   reached);
    }
  }
}

TEST(HFSPlusDefragTask, AReadThatFailsCostsNothing) {
  bool reached = true;
  for (uint64_t ordinal = 0; reached && !HasFailure(); ordinal += 1 + ordinal / 3) {
    runWithFault("COMPACT", {.call = FaultyDevice::Call::Read, .ordinal = ordinal}, reached);
  }
}

TEST(HFSPlusDefragTask, ASyncThatFailsCostsNothing) {
  bool reached = true;
  for (uint64_t ordinal = 0; reached && !HasFailure(); ordinal += 1 + ordinal / 3) {
    runWithFault("DEFRAG", {.call = FaultyDevice::Call::Sync, .ordinal = ordinal}, reached);
  }
}

/// Whether every fork's bytes are where the volume, as it is in memory now, says.
void expectEveryForkReadable(HFSPlusVolume& volume, const support::BuiltVolume& built) {
  for (const support::BuiltFork& fork : built.forks) {
    if (fork.isAttribute || fork.fileID < support::kFirstUserID) {
      continue;
    }
    const auto extents = HFSPlusForkExtents::open(volume, fork.fileID, fork.forkType);
    ASSERT_TRUE(extents) << extents.error().description();
    uint64_t offset = 0;
    for (const HFSPlusExtentDescriptor& extent : (*extents)->copyExtentDescriptors(0)) {
      std::vector<std::byte> found(uint64_t{extent.blockCount} * built.blockSize);
      ASSERT_TRUE(volume.read(found, uint64_t{extent.startBlock} * built.blockSize));
      found.resize(std::min<uint64_t>(found.size(), fork.logicalSize - offset));
      std::vector<std::byte> expected(found.size());
      built.readFork(fork, offset, expected);
      ASSERT_EQ(found == expected, true) << "file " << fork.fileID << " at " << offset;
      offset += found.size();
    }
    EXPECT_EQ(offset, fork.logicalSize);
  }
}

TEST(HFSPlusDefragTask, OthersSeeASoundVolumeWheneverTheyGetATurn) {
  for (const char* command : {"DEFRAG", "COMPACT"}) {
    RewritingRun run(smallVolume());
    const auto task = RewritingRun::taskOf(run.volume(), command);
    task->limitResources(8 * 1024, 0x40000);
    std::atomic<bool> done = false;
    uint64_t turns = 0;
    std::thread reader([&] {
      while (!done && !testing::Test::HasFatalFailure()) {
        run.volume().closeGate();
        expectEveryForkReadable(run.volume(), run.built());
        run.volume().openGate();
        ++turns;
      }
    });
    const Lines lines = RewritingRun::linesOf(*task);
    done = true;
    reader.join();
    EXPECT_EQ(RewritingRun::errorIn(lines), "");
    EXPECT_GT(turns, 0u);
    EXPECT_EQ(run.faults(), "");
  }
}

}  // namespace
