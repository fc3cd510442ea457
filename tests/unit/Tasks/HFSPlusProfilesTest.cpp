// DEFRAG with placement profiles: what it names comes first, in its order, and nothing is lost.

#include <gtest/gtest.h>

#include "LWKit/LWToolTask.hpp"
#include "support/SeededRandom.hpp"
#include "support/VolumePresets.hpp"
#include "support/doubles/FaultyDevice.hpp"
#include "unit/Tasks/RewritingRun.hpp"

namespace {

using doubles::FaultyDevice;
using support::FileDescription;
using support::PlaylistEntry;
using support::VolumeDescription;
using volumecheck::ForkType;

using Lines = std::vector<std::string>;
using Order = std::vector<HFSPlusFileFork>;

constexpr const char* kPlaylistFolder = "private/var/db";
constexpr const char* kPlaylistName = "BootCache.playlist";

/// A fragmented volume, and the files in it by number.
struct Shape {
  VolumeDescription volume;
  std::vector<FileDescription*> files;
};

Shape fragmentedShape(uint64_t seed) {
  support::SeededRandom random(seed);
  Shape shape;
  shape.volume.seed = seed;
  shape.volume.blockSize = 1024;
  shape.volume.size = 4 << 20;
  for (uint32_t i = 0; i < 40; ++i) {
    FileDescription& file =
        shape.volume.root()
            .folderAt("Documents")
            .addFile("file " + std::to_string(i), support::fork(random.between(1, 60000)));
    file.data.fragments = static_cast<uint32_t>(random.between(1, 12));
    if (i % 4 == 0) {
      file.resource = support::fork(random.between(1, 9000), 3);
    }
    shape.files.push_back(&file);
  }
  return shape;
}

PlaylistEntry entryFor(const FileDescription& file, uint32_t batch, uint8_t forkType = 0) {
  PlaylistEntry entry;
  entry.fileID = file.id;
  entry.forkType = forkType;
  entry.batch = batch;
  return entry;
}

/// A third of the files in three batches, the later batches first in the list, and a resource fork.
std::vector<PlaylistEntry> someEntries(const Shape& shape) {
  std::vector<PlaylistEntry> entries;
  for (uint32_t i = 0; i < shape.files.size(); i += 3) {
    entries.push_back(entryFor(*shape.files[i], 2 - i % 3 - (i / 3) % 2));
  }
  entries.push_back(entryFor(*shape.files[4], 0, kHFSResourceForkType));
  return entries;
}

/// The forks of a playlist by batch, and within a batch by where they lay.
Order bootOrder(const RewritingRun& run, std::vector<PlaylistEntry> entries) {
  const auto place = [&](const PlaylistEntry& entry) {
    const auto* fork =
        run.truthBefore().findFork(entry.fileID, static_cast<ForkType>(entry.forkType));
    return std::pair(entry.batch, fork->extents.at(0).startBlock);
  };
  std::ranges::sort(entries, {}, place);
  Order order;
  for (const PlaylistEntry& entry : entries) {
    const HFSPlusFileFork fork{entry.fileID, entry.forkType};
    if (std::ranges::find(order, fork) == order.end()) {
      order.push_back(fork);
    }
  }
  return order;
}

/// An "/Applications" folder of nested folders; the forks in the order of the app profile.
Order addApplications(Shape& shape) {
  auto& top = shape.volume.root().addFolder("Applications");
  auto& first = top.addFolder("A");
  auto& inner = first.addFolder("Inner");
  auto& second = top.addFolder("B");
  Order order;
  const auto add = [&](support::FolderDescription& folder, const char* name, bool hasResource) {
    FileDescription& file = folder.addFile(name, support::fork(20000, 5));
    order.push_back({file.id, kHFSDataForkType});
    if (hasResource) {
      file.resource = support::fork(7000, 3);
      order.push_back({file.id, kHFSResourceForkType});
    }
  };
  add(top, "x", true);
  add(top, "y", false);
  add(first, "z", true);
  add(inner, "deep", true);
  add(second, "b", false);
  second.addFile("empty");
  return order;
}

/// What a run says besides its progress.
Lines withoutProgress(const Lines& lines) {
  Lines others;
  for (const std::string& line : lines) {
    if (!line.contains(",PROGRESS,")) {
      others.push_back(line);
    }
  }
  return others;
}

void expectDone(const Lines& lines) {
  EXPECT_EQ(RewritingRun::errorIn(lines), "");
  EXPECT_EQ(lines.front(), "DEFRAG,START");
  EXPECT_EQ(lines.back(), "DEFRAG,DONE");
}

/// Where every fork lies.
std::vector<std::vector<volumecheck::Extent>> placesOf(const volumecheck::VolumeTruth& truth) {
  std::vector<std::vector<volumecheck::Extent>> places;
  for (const volumecheck::Fork& fork : truth.forks) {
    places.push_back(fork.extents);
  }
  return places;
}

/// The line does exactly what plain DEFRAG does.
void expectAsPlain(const VolumeDescription& volume, std::string_view line) {
  const support::BuiltVolume built = support::buildVolume(volume);
  RewritingRun plain(built);
  RewritingRun profiled(built);
  const Lines plainLines = plain.run("DEFRAG");
  const Lines lines = profiled.run(line);
  expectDone(lines);
  EXPECT_EQ(withoutProgress(lines), withoutProgress(plainLines));
  EXPECT_EQ(profiled.faults(), "");
  EXPECT_TRUE(placesOf(profiled.truth()) == placesOf(plain.truth()));
  EXPECT_TRUE(profiled.truth().freeRuns == plain.truth().freeRuns);
}

void addPlaylistBytes(VolumeDescription& volume, support::Bytes bytes) {
  volume.root().folderAt(kPlaylistFolder).addFile(kPlaylistName, support::forkWith(bytes));
}

/// A playlist of one entry, covering the whole volume, with the given first word and count.
support::Bytes playlistBytes(uint32_t magic, uint32_t entryCount) {
  support::Bytes bytes(32);
  support::ByteWriter(bytes).u32(magic).u32(entryCount).u32(0).u64(0).u64(4 << 20).u32(0);
  return bytes;
}

class ProfilesInBothOrders : public testing::TestWithParam<bool> {};

TEST_P(ProfilesInBothOrders, BootForksComeFirstByBatchAndThePlaylistIsEmptied) {
  for (const uint64_t bufferBlocks : {0, 7, 64}) {
    for (const uint64_t mapCapacity : {0x40000, 60}) {
      SCOPED_TRACE(std::to_string(bufferBlocks) + " " + std::to_string(mapCapacity));
      Shape shape = fragmentedShape(3);
      const auto entries = someEntries(shape);
      const uint32_t playlistID = shape.volume.addPlaylist(entries, GetParam()).id;
      RewritingRun run(shape.volume);
      const uint32_t playlistBlocks =
          run.truthBefore().findFork(playlistID, ForkType::Data)->totalBlocks;
      const Lines lines = run.run("DEFRAG --profile boot", {bufferBlocks, mapCapacity});
      expectDone(lines);
      EXPECT_EQ(run.firstForkOutOfOrder(bootOrder(run, entries)), "");
      EXPECT_EQ(run.faultsBesidesEmptiedPlaylist(), "");
      EXPECT_EQ(run.scatteredForks(), "");
      const auto after = run.truth();
      EXPECT_EQ(after.findFork(playlistID, ForkType::Data)->logicalSize, 0u);
      EXPECT_EQ(after.findFork(playlistID, ForkType::Data)->totalBlocks, 0u);
      EXPECT_EQ(after.clearBits, run.truthBefore().clearBits + playlistBlocks);
      EXPECT_EQ(after.header.freeBlocks, after.clearBits);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(ByteOrder, ProfilesInBothOrders, testing::Bool());

TEST(HFSPlusProfiles, ApplicationsComeFirstDepthFirst) {
  for (const uint64_t bufferBlocks : {0, 5}) {
    Shape shape = fragmentedShape(4);
    const Order order = addApplications(shape);
    RewritingRun run(shape.volume);
    expectDone(run.run("DEFRAG --profile app", {bufferBlocks, 0x40000}));
    EXPECT_EQ(run.firstForkOutOfOrder(order), "");
    EXPECT_EQ(run.faults(), "");
    EXPECT_EQ(run.scatteredForks(), "");
  }
}

TEST(HFSPlusProfiles, BootForksComeBeforeApplicationsWhateverTheOptionsOrder) {
  for (const char* line : {"DEFRAG --profile boot,app", "DEFRAG -p app,boot"}) {
    Shape shape = fragmentedShape(5);
    const auto entries = someEntries(shape);
    shape.volume.addPlaylist(entries);
    const Order applications = addApplications(shape);
    RewritingRun run(shape.volume);
    expectDone(run.run(line, {16, 0x40000}));
    Order order = bootOrder(run, entries);
    order.insert(order.end(), applications.begin(), applications.end());
    EXPECT_EQ(run.firstForkOutOfOrder(order), "");
    EXPECT_EQ(run.faultsBesidesEmptiedPlaylist(), "");
    EXPECT_EQ(run.scatteredForks(), "");
  }
}

TEST(HFSPlusProfiles, ImmovableRunsAreSteppedOver) {
  Shape shape = fragmentedShape(6);
  shape.volume.addBadBlocks({{4, 1}, {30, 3}, {90, 1}, {200, 9}},
                            support::BadBlocksPlace::overflowOnly);
  const Order order = addApplications(shape);
  RewritingRun run(shape.volume);
  expectDone(run.run("DEFRAG --profile app", {10, 0x40000}));
  EXPECT_EQ(run.firstForkOutOfOrder(order), "");
  EXPECT_EQ(run.faults(), "");
}

TEST(HFSPlusProfiles, BadBlocksStayWhereTheyAreAlsoWhenTheyAreNamed) {
  Shape shape = fragmentedShape(7);
  shape.volume.addBadBlocks({{300, 3}, {500, 2}}, support::BadBlocksPlace::catalog);
  PlaylistEntry bad;
  bad.offset = 300 * 1024;
  bad.length = 3 * 1024;
  const std::vector<PlaylistEntry> others = {entryFor(*shape.files[1], 1)};
  shape.volume.addPlaylist({bad, others[0]});
  RewritingRun run(shape.volume);
  expectDone(run.run("DEFRAG --profile boot"));
  EXPECT_EQ(run.faultsBesidesEmptiedPlaylist(), "");
  EXPECT_EQ(run.firstForkOutOfOrder(bootOrder(run, others)), "");
}

TEST(HFSPlusProfiles, ASecondRunMovesNothing) {
  Shape shape = fragmentedShape(8);
  addApplications(shape);
  RewritingRun run(shape.volume);
  expectDone(run.run("DEFRAG --profile app"));
  const Lines again = run.run("DEFRAG --profile app");
  expectDone(again);
  EXPECT_EQ(RewritingRun::blocksMovedIn(again), 0u);
}

TEST(HFSPlusProfiles, AVolumeWithNeitherIsDefragmentedAsWithoutProfiles) {
  for (const char* line : {"DEFRAG --profile boot", "DEFRAG --profile app", "DEFRAG -p boot,app"}) {
    expectAsPlain(fragmentedShape(9).volume, line);
  }
}

TEST(HFSPlusProfiles, AMalformedPlaylistChangesNothing) {
  support::Bytes oversized(0x100001);
  support::ByteWriter(oversized).u32(0xA1B2C3D6).u32(0);
  support::Bytes truncated = playlistBytes(0xA1B2C3D6, 1);
  truncated.pop_back();
  for (const support::Bytes& bytes :
       {playlistBytes(0xA1B2C3D7, 1), playlistBytes(0, 0), playlistBytes(0xA1B2C3D6, 2),
        playlistBytes(0xD6C3B2A1, 1), truncated, support::Bytes(11), oversized}) {
    Shape shape = fragmentedShape(10);
    addPlaylistBytes(shape.volume, bytes);
    expectAsPlain(shape.volume, "DEFRAG --profile boot");
  }
}

TEST(HFSPlusProfiles, AnotherItemOnTheWayIsNotThePlaylist) {
  // The bytes are a playlist's, so that taking the file for one would empty it.
  const support::Bytes bytes = playlistBytes(0xA1B2C3D6, 1);
  for (const char* path : {"private", "private/var", "private/var/db"}) {
    SCOPED_TRACE(path);
    Shape shape = fragmentedShape(11);
    const std::string_view text = path;
    const size_t slash = text.rfind('/');
    auto& folder = slash == text.npos ? shape.volume.root()
                                      : shape.volume.root().folderAt(text.substr(0, slash));
    folder.addFile(text.substr(slash + 1), support::forkWith(bytes));
    expectAsPlain(shape.volume, "DEFRAG --profile boot");
  }
  Shape folders = fragmentedShape(12);
  folders.volume.root().folderAt("private/var/db/BootCache.playlist");
  expectAsPlain(folders.volume, "DEFRAG --profile boot");
  Shape applications = fragmentedShape(13);
  applications.volume.root().addFile("Applications", support::fork(5000, 2));
  expectAsPlain(applications.volume, "DEFRAG --profile app");
}

/// What the profiles look for, with other cases of letters, and whether it is found all the same.
struct NameCase {
  bool hfsx, binaryNames;
  bool isFound() const { return !binaryNames; }
};

class ProfilesByNameOrder : public testing::TestWithParam<NameCase> {
 protected:
  static Shape shape(uint64_t seed) {
    Shape shape = fragmentedShape(seed);
    shape.volume.hfsx = GetParam().hfsx;
    shape.volume.binaryNames = GetParam().binaryNames;
    return shape;
  }
};

TEST_P(ProfilesByNameOrder, ApplicationsAreFoundAsTheVolumeComparesNames) {
  Shape applications = shape(14);
  auto& folder = applications.volume.root().addFolder("aPPLICATIONS");
  const uint32_t id = folder.addFile("x", support::fork(20000, 5)).id;
  if (!GetParam().isFound()) {
    expectAsPlain(applications.volume, "DEFRAG --profile app");
    const uint32_t other =
        applications.volume.root().addFolder("Applications").addFile("y", support::fork(9000)).id;
    RewritingRun run(applications.volume);
    expectDone(run.run("DEFRAG --profile app"));
    EXPECT_EQ(run.firstForkOutOfOrder({{other, kHFSDataForkType}}), "");
    EXPECT_EQ(run.faults(), "");
    return;
  }
  RewritingRun run(applications.volume);
  expectDone(run.run("DEFRAG --profile app"));
  EXPECT_EQ(run.firstForkOutOfOrder({{id, kHFSDataForkType}}), "");
  EXPECT_EQ(run.faults(), "");
}

TEST_P(ProfilesByNameOrder, ThePlaylistIsFoundAsTheVolumeComparesNames) {
  Shape boot = shape(15);
  const auto entries = someEntries(boot);
  boot.volume.addPlaylist(entries).name = u"bOOTcACHE.PLAYlist";
  if (!GetParam().isFound()) {
    expectAsPlain(boot.volume, "DEFRAG --profile boot");
    return;
  }
  RewritingRun run(boot.volume);
  expectDone(run.run("DEFRAG --profile boot"));
  EXPECT_EQ(run.firstForkOutOfOrder(bootOrder(run, entries)), "");
}

INSTANTIATE_TEST_SUITE_P(NameOrder, ProfilesByNameOrder,
                         testing::Values(NameCase{false, false}, NameCase{true, false},
                                         NameCase{true, true}));

/// Cancels the task that makes the n-th write.
class CancellingDevice final : public PlatformDevice {
 public:
  CancellingDevice(std::shared_ptr<PlatformDevice> device, uint64_t writes)
      : _device(std::move(device)), _writesLeft(writes) {}

  std::expected<size_t, int> readAt(std::span<std::byte> bytes, uint64_t offset) override {
    return _device->readAt(bytes, offset);
  }
  std::expected<size_t, int> writeAt(std::span<const std::byte> bytes, uint64_t offset) override {
    if (_writesLeft-- == 0) {
      LWToolTask::currentToolTask()->abort();
    }
    return _device->writeAt(bytes, offset);
  }
  std::expected<void, int> sync() override { return _device->sync(); }
  uint32_t blockSize() const override { return _device->blockSize(); }
  uint64_t blockCount() const override { return _device->blockCount(); }

 private:
  std::shared_ptr<PlatformDevice> _device;
  uint64_t _writesLeft;
};

VolumeDescription volumeWithBoth(uint64_t seed) {
  Shape shape = fragmentedShape(seed);
  shape.volume.addPlaylist(someEntries(shape));
  addApplications(shape);
  return std::move(shape.volume);
}

TEST(HFSPlusProfiles, ACancelledRunLosesNothingAndCanBeFinished) {
  const support::BuiltVolume built = support::buildVolume(volumeWithBoth(14));
  RewritingRun whole(built);
  const uint64_t blocksOfAll =
      RewritingRun::blocksMovedIn(whole.run("DEFRAG --profile boot,app", {8, 0x40000}));
  for (uint64_t writes = 1; writes < 60; writes += 7) {
    SCOPED_TRACE(writes);
    RewritingRun run(built);
    run.openThrough([&](std::shared_ptr<PlatformDevice> device) {
      return std::make_shared<CancellingDevice>(std::move(device), writes);
    });
    const Lines lines = run.run("DEFRAG --profile boot,app", {8, 0x40000});
    expectDone(lines);
    EXPECT_LT(RewritingRun::blocksMovedIn(lines), blocksOfAll);
    EXPECT_EQ(run.faultsBesidesEmptiedPlaylist(), "");
    expectDone(run.run("DEFRAG --profile boot,app", {8, 0x40000}));
    EXPECT_EQ(run.faultsBesidesEmptiedPlaylist(), "");
    EXPECT_EQ(run.scatteredForks(), "");
  }
}

TEST(HFSPlusProfiles, AFailingRunLosesNothing) {
  const support::BuiltVolume built = support::buildVolume(volumeWithBoth(15));
  for (const auto call : {FaultyDevice::Call::Write, FaultyDevice::Call::Sync}) {
    for (uint64_t ordinal = 0; ordinal < 40; ordinal += 3) {
      SCOPED_TRACE(ordinal);
      RewritingRun run(built);
      run.openThrough([&](std::shared_ptr<PlatformDevice> device) {
        auto faulty = std::make_shared<FaultyDevice>(std::move(device));
        faulty->plan({call, ordinal});
        return faulty;
      });
      const Lines lines = run.run("DEFRAG --profile boot,app", {8, 0x40000});
      EXPECT_EQ(lines.back(), "DEFRAG,DONE");
      EXPECT_EQ(run.faultsBesidesEmptiedPlaylist(), "");
    }
  }
}

}  // namespace
