// The built program's placement profiles: what sleuthkit finds at which block afterwards is what
// the profiles ask for. The expected order is worked out without the program, from the volume
// before.

#include <chrono>
#include <fstream>
#include <set>

#include "support/OutsideReaders.hpp"
#include "support/PlacementOrder.hpp"
#include "support/RandomVolume.hpp"
#include "support/SeededRandom.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "system/RewritingFixture.hpp"

namespace {

namespace fs = std::filesystem;
using support::FileDescription;
using support::PlaylistEntry;
using support::VolumeDescription;
using volumecheck::CheckResult;
using volumecheck::Fork;
using volumecheck::ForkType;
using volumecheck::PlacedFork;
using volumecheck::VolumeTruth;

using Blocks = std::vector<uint32_t>;

constexpr const char* kPlaylist = "/private/var/db/BootCache.playlist";
constexpr uint32_t kPlaylistMagic = 0xA1B2C3D6;
constexpr size_t kPlaylistBytesMax = 1 << 20;
constexpr uint32_t kPlaylistEntriesMax = (kPlaylistBytesMax - 12) / 20;

/// The first block behind the boot blocks and the volume header, on a volume without a zone for
/// metadata.
uint32_t firstDataBlockOf(const VolumeTruth& truth) {
  return (1536 + truth.header.blockSize - 1) / truth.header.blockSize;
}

std::vector<PlacedFork> orderOf(const fs::path& volume, const VolumeTruth& truth,
                                uint32_t firstDataBlock) {
  std::string whyNot;
  const auto source = volumecheck::VolumeCheckerSource::openFile(volume, whyNot);
  EXPECT_TRUE(source) << whyNot;
  return source ? bootAndApplicationOrder(*source, truth, firstDataBlock)
                : std::vector<PlacedFork>();
}

/// The blocks of a fork as sleuthkit sees them.
Blocks blocksSeen(const fs::path& volume, const PlacedFork& fork) {
  const auto answer = outsidereaders::istat(volume, fork.cnid);
  EXPECT_TRUE(answer.value) << answer.whyNot;
  if (!answer.value) {
    return {};
  }
  return fork.type == ForkType::Data ? answer.value->data : answer.value->resource;
}

/// The first `count` blocks from `block` on that a run may lay something on.
Blocks movableBlocksFrom(uint32_t block, size_t count, const std::vector<bool>& immovable) {
  Blocks blocks;
  for (; blocks.size() < count && block < immovable.size(); ++block) {
    if (!immovable[block]) {
      blocks.push_back(block);
    }
  }
  return blocks;
}

Blocks blocksOf(const Fork& fork) {
  Blocks blocks;
  for (const auto& extent : fork.extents) {
    for (uint32_t i = 0; i < extent.blockCount; ++i) {
      blocks.push_back(extent.startBlock + i);
    }
  }
  return blocks;
}

/// Where a volume's forks lie, seen from outside.
class OutsideView {
 public:
  explicit OutsideView(const fs::path& volume)
      : _volume(volume), _truth(volumecheck::checkVolumeFile(volume).truth) {
    for (const Fork& fork : _truth.forks) {
      if (fork.type == ForkType::Attribute) {
        _unreadable.insert(fork.cnid);
      }
    }
  }

  Blocks blocks(const PlacedFork& fork) {
    // Sleuthkit stops at attributes that have forks, and tells no places of the volume's own files.
    // Every fork takes a run of it; the checker tells the places of those beyond the first few
    // hundred.
    const bool isSeen =
        fork.cnid >= volumecheck::kFirstUserID && !_unreadable.contains(fork.cnid) && _runs++ < 150;
    return isSeen ? blocksSeen(_volume, fork) : blocksOf(*_truth.findFork(fork.cnid, fork.type));
  }

 private:
  fs::path _volume;
  VolumeTruth _truth;
  std::set<uint32_t> _unreadable;
  size_t _runs = 0;
};

/// The profile's forks lie side by side from the data area's first block on, in their order; only
/// what cannot move lies between them, and everything else behind them.
void expectOutsideReadersSeeOrder(const fs::path& volume, const VolumeTruth& before,
                                  const std::vector<PlacedFork>& order, uint32_t firstDataBlock) {
  const std::vector<bool> immovable = immovableBlocks(before);
  OutsideView view(volume);
  Blocks profile;
  for (const PlacedFork& fork : order) {
    const Blocks blocks = view.blocks(fork);
    profile.insert(profile.end(), blocks.begin(), blocks.end());
  }
  ASSERT_FALSE(profile.empty());
  EXPECT_EQ(profile, movableBlocksFrom(firstDataBlock, profile.size(), immovable));

  std::set<PlacedFork> named(order.begin(), order.end());
  for (const Fork& fork : before.forks) {
    if (named.contains({fork.cnid, fork.type}) || !isMovable(fork) || fork.totalBlocks == 0) {
      continue;
    }
    const Blocks blocks = view.blocks({fork.cnid, fork.type});
    for (const uint32_t block : blocks) {
      ASSERT_TRUE(block > profile.back() || block < firstDataBlock) << fork.path;
    }
  }
}

/// Nothing but the playlist's bytes is gone, and what they lay on is free.
void expectOnlyThePlaylistEmptied(const fs::path& volume, const CheckResult& before) {
  const CheckResult after = volumecheck::checkVolumeFile(volume);
  ASSERT_TRUE(after.readable) << after.report();
  EXPECT_LE(after.findings.size(), before.findings.size()) << after.report();
  for (const std::string& difference : compareVolumes(before.truth, after.truth)) {
    EXPECT_NE(difference.find("BootCache.playlist"), std::string::npos) << difference;
  }
  const auto* item = before.truth.findItem(kPlaylist);
  const uint32_t freed = item ? before.truth.findFork(item->cnid, ForkType::Data)->totalBlocks : 0;
  if (item) {
    EXPECT_EQ(after.truth.findFork(item->cnid, ForkType::Data)->logicalSize, 0U);
    EXPECT_EQ(after.truth.findFork(item->cnid, ForkType::Data)->totalBlocks, 0U);
  }
  EXPECT_EQ(after.truth.clearBits, before.truth.clearBits + freed);
  EXPECT_EQ(after.truth.header.freeBlocks, after.truth.clearBits);
  outsidereaders::AgreeOptions options;
  options.askPartclone = false;
  for (const std::string& line : outsideReadersAgree(volume, after.truth, options)) {
    ADD_FAILURE() << line;
  }
}

class Profiles : public RewritingFixture {
 protected:
  void expectDone(const Lines& lines) {
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "DEFRAG,DONE");
    EXPECT_EQ(joined(lines).find("ERROR"), std::string::npos) << joined(lines);
  }

  /// Runs both profiles on a volume and looks at it from outside; the forks placed.
  std::vector<PlacedFork> placeForks(const fs::path& volume) {
    const CheckResult before = volumecheck::checkVolumeFile(volume);
    EXPECT_TRUE(before.readable) << before.report();
    const uint32_t firstDataBlock = firstDataBlockOf(before.truth);
    const auto order = orderOf(volume, before.truth, firstDataBlock);
    expectDone(run(volume, "DEFRAG -q --profile boot,app"));
    expectOutsideReadersSeeOrder(volume, before.truth, order, firstDataBlock);
    expectOnlyThePlaylistEmptied(volume, before);
    return order;
  }

  /// A profile run does here what plain DEFRAG does: the same moves, the same volume in the end.
  void expectAsPlain(const VolumeDescription& description, const std::string& line) {
    const fs::path plain = path("plain.hfs");
    const fs::path profiled = path("profiled.hfs");
    support::buildVolume(description, plain);
    fs::copy_file(plain, profiled, fs::copy_options::overwrite_existing);
    const Lines plainLines = run(plain, "DEFRAG");
    expectDone(plainLines);
    EXPECT_EQ(run(profiled, line), plainLines);
    const VolumeTruth one = volumecheck::checkVolumeFile(plain).truth;
    const VolumeTruth other = volumecheck::checkVolumeFile(profiled).truth;
    EXPECT_EQ(joined(compareVolumes(one, other)), "");
    ASSERT_EQ(one.forks.size(), other.forks.size());
    for (size_t i = 0; i < one.forks.size(); ++i) {
      EXPECT_EQ(one.forks[i].extents, other.forks[i].extents) << one.forks[i].path;
    }
    EXPECT_EQ(one.freeRuns, other.freeRuns);
  }
};

/// Files in pieces, every fifth with a resource fork; half of them applications in nested folders.
std::vector<FileDescription*> addFiles(VolumeDescription& volume, uint32_t count,
                                       uint64_t mostBytes) {
  support::SeededRandom random(volume.seed);
  std::vector<support::FolderDescription*> folders = {
      &volume.root().folderAt("Applications"),
      &volume.root().folderAt("Applications/Utilities"),
      &volume.root().folderAt("Applications/A.app/Contents/Resources"),
      &volume.root().folderAt("Applications/A.app/Contents"),
      &volume.root().folderAt("Documents"),
      &volume.root().folderAt("Documents/Old")};
  std::vector<FileDescription*> files;
  for (uint32_t i = 0; i < count; ++i) {
    FileDescription& file = random.pick(folders)->addFile(
        "file " + std::to_string(i), support::fork(random.between(1, mostBytes)));
    file.data.fragments = static_cast<uint32_t>(random.between(1, 12));
    if (i % 5 == 0) {
      file.resource = support::fork(random.between(1, mostBytes / 4), 3);
    }
    files.push_back(&file);
  }
  return files;
}

PlaylistEntry entryFor(const FileDescription& file, uint32_t batch, uint8_t forkType = 0) {
  PlaylistEntry entry;
  entry.fileID = file.id;
  entry.forkType = forkType;
  entry.batch = batch;
  return entry;
}

/// A volume with everything that a profile run has to step over: a journal, bad blocks, a startup
/// file, attributes with forks, and special files in pieces.
VolumeDescription volumeToStepOverThings(uint64_t seed, uint32_t blockSize) {
  VolumeDescription volume;
  volume.seed = seed;
  volume.blockSize = blockSize;
  volume.size = uint64_t{blockSize} * 12000;
  volume.addJournal(64 * 1024);
  volume.startup = support::fork(9000, 3);
  volume.catalog.fragments = 5;
  volume.addBadBlocks({{300, 3}, {700, 1}, {1500, 9}, {2500, 40}},
                      support::BadBlocksPlace::overflowOnly);
  const auto files = addFiles(volume, 80, 40 * blockSize);
  std::vector<PlaylistEntry> entries;
  for (size_t i = 0; i < files.size(); i += 3) {
    entries.push_back(entryFor(*files[i], 3 - i % 4));
    if (i % 5 == 0) {
      entries.push_back(entryFor(*files[i], 1, support::kResourceFork));
    }
  }
  for (uint32_t i = 0; i < 20; ++i) {
    volume.root()
        .folderAt("Library/" + std::to_string(i))
        .addForkAttribute("com.example.fork", support::fork(5 * blockSize, 2));
  }
  volume.addPlaylist(entries, seed % 2 == 0).data.fragments = 2;
  return volume;
}

TEST_F(Profiles, OutsideReadersSeeTheProfilesForksInOrderFromTheFirstMovableBlock) {
  for (const uint32_t blockSize : {512, 1024, 4096}) {
    SCOPED_TRACE(blockSize);
    const fs::path volume = path("volume.hfs");
    support::buildVolume(volumeToStepOverThings(blockSize, blockSize), volume);
    EXPECT_GT(placeForks(volume).size(), 40U);
  }
}

TEST_F(Profiles, OutsideReadersSeeTheOrderOnRandomVolumes) {
  for (uint64_t seed = 1; seed <= 8; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    support::RandomVolumeOptions options;
    options.mostBytes = 6 << 20;
    options.mostFiles = 50;
    options.fillPercent = 20 + static_cast<uint32_t>(seed % 4) * 10;
    options.wrapper = false;  // sleuthkit does not look into one
    options.placementHints = true;
    const fs::path volume = path("volume.hfs");
    if (support::tryBuildVolume(support::randomVolume(seed, options), volume)) {
      placeForks(volume);
    }
    ASSERT_FALSE(HasFailure());
  }
}

/// As many entries as the largest file holds, in batches of any order: some name forks, most lie
/// anywhere, below the data area, on free blocks and over each other.
std::vector<PlaylistEntry> mostEntries(const std::vector<FileDescription*>& files,
                                       uint64_t volumeBytes) {
  support::SeededRandom random(5);
  std::vector<PlaylistEntry> entries;
  for (uint32_t i = 0; i < kPlaylistEntriesMax; ++i) {
    PlaylistEntry entry;
    if (random.chance(2)) {
      entry = entryFor(*random.pick(files), 0);
      entry.extentIndex = static_cast<uint32_t>(random.below(4));
    } else {
      entry.offset = random.chance(5) ? random.below(2048) : random.below(volumeBytes + 4096);
      entry.length = random.chance(90) ? random.below(5000) : random.below(100'000);
    }
    entry.batch = static_cast<uint32_t>(random.chance(50) ? random.below(8) : random.next());
    entries.push_back(entry);
  }
  return entries;
}

TEST_F(Profiles, TheLargestPlaylistIsFollowedInBothByteOrders) {
  std::vector<volumecheck::VolumeTruth> truths;
  for (const bool swapped : {false, true}) {
    SCOPED_TRACE(swapped);
    VolumeDescription description;
    description.seed = 9;
    description.blockSize = 1024;
    description.size = 24 << 20;
    const auto files = addFiles(description, 300, 60'000);
    description.addPlaylist(mostEntries(files, description.size), swapped).data.fragments = 20;
    const fs::path volume = path("volume.hfs");
    support::buildVolume(description, volume);
    EXPECT_GT(placeForks(volume).size(), 200U);
    truths.push_back(volumecheck::checkVolumeFile(volume).truth);
  }
  ASSERT_EQ(truths[0].forks.size(), truths[1].forks.size());
  for (size_t i = 0; i < truths[0].forks.size(); ++i) {
    EXPECT_EQ(truths[0].forks[i].extents, truths[1].forks[i].extents) << truths[0].forks[i].path;
  }
}

/// A playlist of one entry that covers the volume, with the given first word and count.
support::Bytes playlistBytes(uint32_t magic, uint32_t entryCount) {
  support::Bytes bytes(32);
  support::ByteWriter(bytes).u32(magic).u32(entryCount).u32(0).u64(0).u64(8 << 20).u32(0);
  return bytes;
}

VolumeDescription volumeWithPlaylistBytes(support::Bytes bytes) {
  VolumeDescription volume;
  volume.seed = 21;
  volume.blockSize = 1024;
  volume.size = 8 << 20;
  addFiles(volume, 40, 60'000);
  volume.root()
      .folderAt("private/var/db")
      .addFile("BootCache.playlist", support::forkWith(std::move(bytes)));
  return volume;
}

TEST_F(Profiles, AMalformedPlaylistIsLeftAloneAndChangesNothing) {
  support::Bytes oversized(kPlaylistBytesMax + 1);
  support::ByteWriter(oversized).u32(kPlaylistMagic).u32(1);
  support::Bytes cutEntry = playlistBytes(kPlaylistMagic, 1);
  cutEntry.pop_back();
  support::Bytes cutHeader = playlistBytes(kPlaylistMagic, 0);
  cutHeader.resize(11);
  const std::pair<const char*, support::Bytes> cases[] = {
      {"another magic", playlistBytes(kPlaylistMagic + 1, 1)},
      {"no magic", playlistBytes(0, 0)},
      {"a count in the other byte order", playlistBytes(0xD6C3B2A1, 1)},
      {"more entries than bytes", playlistBytes(kPlaylistMagic, 0xFFFFFFFF)},
      {"the last entry cut", cutEntry},
      {"the header cut", cutHeader},
      {"more than a mebibyte", oversized},
      {"empty", {}}};
  for (const auto& [what, bytes] : cases) {
    SCOPED_TRACE(what);
    expectAsPlain(volumeWithPlaylistBytes(bytes), "DEFRAG --profile boot");
  }
}

TEST_F(Profiles, APlaylistWithoutEntriesIsEmptiedToo) {
  support::Bytes header(12);
  support::ByteWriter(header).u32(kPlaylistMagic).u32(0).u32(0);
  const fs::path volume = path("volume.hfs");
  support::buildVolume(volumeWithPlaylistBytes(header), volume);
  const CheckResult before = volumecheck::checkVolumeFile(volume);
  expectDone(run(volume, "DEFRAG -q --profile boot"));
  expectOnlyThePlaylistEmptied(volume, before);
}

TEST_F(Profiles, ARangeThatReachesAcrossTheVolumesEndIsCut) {
  VolumeDescription description;
  description.seed = 22;
  description.blockSize = 1024;
  description.size = 8 << 20;
  const auto files = addFiles(description, 40, 60'000);
  PlaylistEntry everything;
  everything.offset = 4 << 20;
  everything.length = ~uint64_t{0};
  PlaylistEntry behind;
  behind.offset = ~uint64_t{0} - 5;
  behind.length = ~uint64_t{0};
  description.addPlaylist({entryFor(*files[7], 9), everything, behind});
  const fs::path volume = path("volume.hfs");
  support::buildVolume(description, volume);
  placeForks(volume);
}

TEST_F(Profiles, AVolumeWithNeitherIsDefragmentedAsWithoutProfiles) {
  VolumeDescription description;
  description.seed = 23;
  description.size = 16 << 20;
  for (uint32_t i = 0; i < 60; ++i) {
    description.root()
        .folderAt("Documents")
        .addFile("file " + std::to_string(i), support::fork(90'000, 1 + i % 9));
  }
  expectAsPlain(description, "DEFRAG --profile boot,app");
}

TEST_F(Profiles, RealVolumesWithNeitherAreDefragmentedAsWithoutProfiles) {
  const char* folder = std::getenv("XRDEFRAG_REAL_VOLUMES");
  if (folder == nullptr) {
    GTEST_SKIP() << "XRDEFRAG_REAL_VOLUMES names no folder of volumes.";
  }
  size_t volumes = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (entry.path().extension() != ".hfs") {
      continue;
    }
    SCOPED_TRACE(entry.path());
    const CheckResult before = volumecheck::checkVolumeFile(entry.path());
    if (before.truth.findItem("/Applications") || before.truth.findItem(kPlaylist)) {
      continue;
    }
    ++volumes;
    Lines linesOfPlain;
    for (const char* line : {"DEFRAG", "DEFRAG --profile boot,app"}) {
      const fs::path copy = path("copy.hfs");
      fs::copy_file(entry.path(), copy, fs::copy_options::overwrite_existing);
      const Lines lines = run(copy, line);
      linesOfPlain = linesOfPlain.empty() ? lines : linesOfPlain;
      EXPECT_EQ(lines, linesOfPlain);
      expectOnlyThePlaylistEmptied(copy, before);
    }
  }
  EXPECT_GT(volumes, 0U);
}

TEST_F(Profiles, EveryOtherValueIsRefused) {
  const fs::path volume = path("volume.hfs");
  support::buildVolume(volumeWithPlaylistBytes(playlistBytes(kPlaylistMagic, 1)), volume);
  const auto bytesOf = [](const fs::path& file) {
    std::ifstream stream(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
  };
  const std::string before = bytesOf(volume);
  const std::pair<const char*, const char*> cases[] = {
      {"DEFRAG --profile", "Option --profile requires an argument."},
      {"DEFRAG -q -p", "Option -p requires an argument."},
      {"DEFRAG --profile ,", "Unknown profile: \\,"},
      {"DEFRAG --profile boo", "Unknown profile: boo"},
      {"DEFRAG --profile Boot", "Unknown profile: Boot"},
      {"DEFRAG --profile boot,apps", "Unknown profile: apps"},
      {"DEFRAG --profile boot;app", "Unknown profile: boot;app"},
      {"DEFRAG --profile boot, app", "Unknown option: app"},
      {"DEFRAG --profile boot ,app", "Unknown option: \\,app"},
      {"DEFRAG --profile=boot", "Unknown option: --profile=boot"},
      {"COMPACT --profile boot", "Unknown option: --profile"}};
  for (const auto& [line, message] : cases) {
    const std::string name = std::string(line).substr(0, std::string(line).find(' '));
    EXPECT_EQ(run(volume, line),
              (Lines{"READY", name + ",START", name + ",ERROR," + message, name + ",DONE"}))
        << line;
  }
  EXPECT_TRUE(bytesOf(volume) == before);
}

/// `count` small files in folders twenty deep.
VolumeDescription volumeOfApplications(uint32_t count) {
  VolumeDescription volume;
  volume.seed = 31;
  volume.blockSize = 512;
  volume.fillPercent = 60;
  auto* folder = &volume.root().folderAt("Applications");
  for (uint32_t i = 0; i < count; ++i) {
    if (i % 2000 == 0) {
      folder = &volume.root().folderAt("Applications");
    }
    if (i % 100 == 0) {
      folder = &folder->addFolder("folder " + std::to_string(i % 7) + std::to_string(i));
    }
    folder->addFile("file " + std::to_string(i), support::fork(1 + i % 512));
  }
  for (uint32_t i = 0; i < 2000; ++i) {
    volume.root()
        .folderAt("Documents")
        .addFile("file " + std::to_string(i), support::fork(1 + i % 900, 2));
  }
  return volume;
}

TEST_F(Profiles, FiftyThousandApplicationsAreLaidDownInOrderWithLittleMemory) {
  constexpr uint32_t kFiles = 50'000;
  const fs::path volume = path("volume.hfs");
  const fs::path copy = path("copy.hfs");
  support::buildVolume(volumeOfApplications(kFiles), volume);
  fs::copy_file(volume, copy);
  const CheckResult before = volumecheck::checkVolumeFile(volume);
  const auto order = orderOf(volume, before.truth, firstDataBlockOf(before.truth));
  ASSERT_EQ(order.size(), kFiles);
  expectDone(run(copy, "DEFRAG -q"));
  const uint64_t peakWithout = peakMemory();
  expectDone(run(volume, "DEFRAG -q --profile app"));
  RecordProperty("peakWithoutKiB", static_cast<int>(peakWithout));
  RecordProperty("peakWithKiB", static_cast<int>(peakMemory()));
  // A member takes at most 64 bytes; the allocator may keep some more around.
  EXPECT_LT(peakMemory(), peakWithout + kFiles * 64 / 1024 + 2048);

  const CheckResult after = volumecheck::checkVolumeFile(volume);
  EXPECT_EQ(after.report(), "");
  EXPECT_EQ(joined(compareVolumes(before.truth, after.truth)), "");
  const Blocks expected =
      movableBlocksFrom(firstDataBlockOf(before.truth), kFiles, immovableBlocks(before.truth));
  const volumecheck::ForkIndex forks(after.truth);
  for (size_t i = 0; i < order.size(); ++i) {
    const Fork* fork = forks.find(order[i].cnid, order[i].type);
    ASSERT_EQ(fork->extents.size(), 1U) << fork->path;
    ASSERT_EQ(fork->extents[0].startBlock, expected[i]) << fork->path;
    if (i % 5000 == 0) {
      EXPECT_EQ(blocksSeen(volume, order[i]), (Blocks{expected[i]})) << fork->path;
    }
  }
}

/// A sparse volume with a zone for metadata and thousands of hot files in it; the tree that names
/// them comes in many pieces.
VolumeDescription volumeOfHotFiles(uint32_t count, uint32_t fragments) {
  VolumeDescription volume;
  volume.seed = 41;
  volume.size = uint64_t{12} << 30;
  volume.addJournal(8 << 20);
  std::vector<support::HotFile> hotFiles;
  for (uint32_t i = 0; i < count; ++i) {
    auto& file = volume.root()
                     .folderAt("folder " + std::to_string(i % 10))
                     .addFile("hot " + std::to_string(i), support::fork(1 + i % 9000));
    file.data.atFront = true;
    hotFiles.push_back({file.id, support::kDataFork, i + 1});
  }
  for (uint32_t i = 0; i < 60; ++i) {
    volume.root()
        .folderAt("Applications")
        .addFile("file " + std::to_string(i), support::fork(60'000, 7));
  }
  auto& tree = volume.addHotFilesTree(hotFiles, fragments);
  tree.data.atFront = fragments == 1;
  return volume;
}

TEST_F(Profiles, ThousandsOfHotFilesStayWhereTheyAre) {
  constexpr uint32_t kHotFiles = 5000;
  constexpr uint32_t kFirstDataBlock = 65536;  // behind the zone of a journaled volume of 12 GiB
  for (const std::string line : {"DEFRAG -q --profile boot,app", "COMPACT -q"}) {
    for (const uint32_t fragments : {1, 20}) {
      SCOPED_TRACE(line + " " + std::to_string(fragments));
      const fs::path volume = path("volume.hfs");
      support::buildVolume(volumeOfHotFiles(kHotFiles, fragments), volume);
      const CheckResult before = volumecheck::checkVolumeFile(volume);
      const auto* tree = before.truth.findItem("/.hotfiles.btree");
      ASSERT_EQ(before.truth.findFork(tree->cnid, ForkType::Data)->extents.size() > 8,
                fragments > 8);
      const Lines lines = run(volume, line);
      EXPECT_EQ(joined(lines).find("ERROR"), std::string::npos) << joined(lines);
      const CheckResult after = volumecheck::checkVolumeFile(volume);
      EXPECT_EQ(after.report(), before.report());
      EXPECT_EQ(joined(compareVolumes(before.truth, after.truth)), "");
      size_t stayed = 0;
      for (const Fork& fork : before.truth.forks) {
        if (fork.path.find("/hot ") != std::string::npos && fork.type == ForkType::Data) {
          const auto& now = after.truth.findFork(fork.cnid, ForkType::Data)->extents;
          ASSERT_EQ(now, fork.extents) << fork.path;
          if (++stayed % 500 == 0) {
            ASSERT_EQ(blocksSeen(volume, {fork.cnid, ForkType::Data}).front(), now[0].startBlock);
          }
        }
      }
      EXPECT_EQ(stayed, kHotFiles);
      if (line.starts_with("DEFRAG")) {
        const auto order = orderOf(volume, before.truth, kFirstDataBlock);
        EXPECT_EQ(order.size(), 60U);
        expectOutsideReadersSeeOrder(volume, before.truth, order, kFirstDataBlock);
      }
    }
  }
}

TEST_F(Profiles, ADamagedTreeOfHotFilesEndsARunBeforeItWrites) {
  const fs::path volume = path("volume.hfs");
  VolumeDescription description;
  description.seed = 42;
  description.size = 16 << 20;
  std::vector<support::HotFile> hotFiles;
  for (const FileDescription* file : addFiles(description, 200, 50'000)) {
    hotFiles.push_back({file->id, support::kDataFork, file->id});
  }
  const uint32_t id = description.addHotFilesTree(hotFiles).id;
  const auto built = support::buildVolume(description, volume);
  const uint64_t header =
      uint64_t{built.fork(id, support::kDataFork)->extents.at(0).start} * built.blockSize;
  // The first leaf is said to be the root, which is an index node.
  std::fstream stream(volume, std::ios::binary | std::ios::in | std::ios::out);
  char root[4];
  stream.seekg(static_cast<std::streamoff>(header + 16)).read(root, sizeof root);
  stream.seekp(static_cast<std::streamoff>(header + 24)).write(root, sizeof root);
  stream.close();
  const auto hashesBefore = volumecheck::checkVolumeFile(volume).truth;
  for (const std::string line : {"DEFRAG", "DEFRAG --profile boot,app", "COMPACT"}) {
    const std::string name = line.substr(0, line.find(' '));
    EXPECT_EQ(run(volume, line),
              (Lines{"READY", name + ",START",
                     name + ",ERROR,The hotfiles.btree file is inconsistent.", name + ",DONE"}));
  }
  const auto now = volumecheck::checkVolumeFile(volume).truth;
  EXPECT_EQ(joined(compareVolumes(hashesBefore, now)), "");
  EXPECT_EQ(now.header.writeCount, hashesBefore.header.writeCount);
}

}  // namespace
