// Forks that must stay where they are: hot files in the metadata zone, blocks that only attribute
// records own, and what a damaged tree of hot files means for a run.

#include <gtest/gtest.h>

#include "Tasks/HFSPlusBitmapTask.hpp"
#include "Tasks/HFSPlusDefragTask.hpp"
#include "Tasks/HFSPlusFragInfoTask.hpp"
#include "support/SeededRandom.hpp"
#include "support/VolumePresets.hpp"
#include "support/doubles/ScratchFile.hpp"
#include "unit/Tasks/RewritingRun.hpp"
#include "unit/Tasks/TaskTranscript.hpp"

namespace {

using support::VolumeDescription;
using volumecheck::ForkType;

constexpr uint64_t kGiB = uint64_t{1} << 30;

void rewriteFile(const std::string& path, const char* command) {
  const auto device = XRDefragVolume::openDevice(path);
  ASSERT_TRUE(device) << device.error().description();
  const auto volume = HFSPlusVolume::open(**device);
  ASSERT_TRUE(volume) << volume.error().description();
  ASSERT_TRUE((*volume)->hasMetadataZone());
  const bool compact = std::string_view(command) == "COMPACT";
  const auto task = std::make_shared<HFSPlusDefragTask>(**volume, compact);
  task->setArguments({command});
  testing::internal::CaptureStdout();
  const auto started = task->start();
  if (started) {
    task->join();
  }
  const std::string output = testing::internal::GetCapturedStdout();
  ASSERT_TRUE(started);
  EXPECT_EQ(output.find(",ERROR,"), std::string::npos) << output;
}

TEST(HFSPlusImmovableForks, HotFilesStayInTheMetadataZone) {
  for (const char* command : {"DEFRAG", "COMPACT"}) {
    const doubles::ScratchFile file(0);
    const VolumeDescription description = support::zonedVolume(2, 12 * kGiB);
    (void)support::buildVolume(description, file.path());
    const auto before = volumecheck::checkVolumeFile(file.path());
    ASSERT_EQ(before.report(), "");
    rewriteFile(file.path(), command);
    const auto after = volumecheck::checkVolumeFile(file.path());
    EXPECT_EQ(after.report(), "");
    for (const std::string& difference : compareVolumes(before.truth, after.truth)) {
      ADD_FAILURE() << difference;
    }
    size_t hotFiles = 0;
    for (uint32_t i = 0; i < 300; i += 20) {
      const std::string path = "/folder " + std::to_string(i % 10) + "/file " + std::to_string(i);
      const auto* item = before.truth.findItem(path);
      ASSERT_TRUE(item) << path;
      const auto* old = before.truth.findFork(item->cnid, ForkType::Data);
      const auto* now = after.truth.findFork(item->cnid, ForkType::Data);
      ++hotFiles;
      EXPECT_EQ(now->extents, old->extents) << path;
    }
    EXPECT_EQ(hotFiles, 15u);
  }
}

// Where large blocks meet a small volume, the zone reaches beyond the volume's end: all of the
// volume is metadata then, and nothing is left for anybody to count, show or move.
TEST(HFSPlusImmovableForks, AZoneLargerThanTheVolumeLeavesNothingToMove) {
  support::PlainVolume plain;
  plain.blockSize = 65536;
  plain.size = 12 * kGiB;
  plain.files = 40;
  plain.fileSize = 10 << 16;
  plain.unwritten = true;
  VolumeDescription description = support::plainVolume(plain);
  description.attributesSet = kHFSVolumeJournaledMask;  // its journal is on another device
  const doubles::ScratchFile file(0);
  (void)support::buildVolume(description, file.path());
  const auto before = volumecheck::checkVolumeFile(file.path());

  const auto device = XRDefragVolume::openDevice(file.path());
  ASSERT_TRUE(device);
  const auto opened = HFSPlusVolume::open(**device);
  ASSERT_TRUE(opened);
  HFSPlusVolume& volume = **opened;
  const uint32_t totalBlocks = volume.hostVolumeHeader().totalBlocks;
  ASSERT_GT(volume.firstDataBlock(), totalBlocks);
  for (const std::string line : {"DEFRAG", "DEFRAG --profile boot,app", "COMPACT"}) {
    const std::string name = line.substr(0, line.find(' '));
    EXPECT_EQ(RewritingRun::linesOf(*RewritingRun::taskOf(volume, line)),
              (Transcript{name + ",START", name + ",DONE"}));
  }
  EXPECT_EQ(dataLines(transcriptOf<HFSPlusFragInfoTask>(volume, "FRAGINFO")),
            Transcript{"FRAGINFO,0,0,0"});
  EXPECT_EQ(dataLines(transcriptOf<HFSPlusBitmapTask>(volume, "BITMAP -m 49152")),
            (Transcript{"BITMAP,LENGTH,1", "BITMAP,DATA,F0", "BITMAP,FIRSTUNUSEDBLOCK,4294967295",
                        "BITMAP,LASTUSEDBLOCK," + std::to_string(totalBlocks - 2)}));
  const auto after = volumecheck::checkVolumeFile(file.path());
  EXPECT_EQ(after.report(), before.report());
  EXPECT_EQ(after.truth.header.writeCount, before.truth.header.writeCount);
}

TEST(HFSPlusImmovableForks, ADamagedTreeOfHotFilesStopsARunBeforeItWrites) {
  VolumeDescription description = support::demoVolume(3);
  std::vector<support::HotFile> hotFiles;
  for (uint32_t i = 0; i < 200; ++i) {
    hotFiles.push_back({16 + i, support::kDataFork, i + 1});
  }
  const uint32_t id = description.addHotFilesTree(hotFiles).id;
  support::BuiltVolume built = support::buildVolume(description);
  const support::BuiltFork& tree = *built.fork(id, support::kDataFork);
  const size_t header = size_t{tree.extents.at(0).start} * built.blockSize;
  constexpr size_t kRootNode = 16;
  constexpr size_t kFirstLeafNode = 24;
  std::copy_n(built.image.begin() + static_cast<std::ptrdiff_t>(header + kRootNode), 4,
              built.image.begin() + static_cast<std::ptrdiff_t>(header + kFirstLeafNode));
  for (const char* command : {"DEFRAG", "COMPACT", "DEFRAG --profile app"}) {
    RewritingRun run(built);
    const auto before = run.device().image();
    EXPECT_EQ(RewritingRun::errorIn(run.run(command)), "The hotfiles.btree file is inconsistent.");
    EXPECT_TRUE(run.device().image() == before);
  }
}

/// Forks of attributes in pieces, some in more than the eight that one record names, scattered
/// among fragmented files.
VolumeDescription volumeWithAttributeForks(uint64_t seed) {
  support::SeededRandom random(seed);
  VolumeDescription volume;
  volume.seed = seed;
  volume.blockSize = 1024;
  volume.size = 4 << 20;
  for (uint32_t i = 0; i < 60; ++i) {
    auto& file = volume.root()
                     .folderAt("Applications")
                     .addFile("file " + std::to_string(i), support::fork(random.between(1, 40000)));
    file.data.fragments = static_cast<uint32_t>(random.between(1, 9));
    if (i % 5 == 0) {
      file.addForkAttribute("com.example.fork", support::fork(random.between(9000, 30000), 1));
      file.addForkAttribute("com.example.pieces", support::fork(30000, i % 10 == 0 ? 20 : 4));
    }
  }
  volume.root().addFolder("folder").addForkAttribute("com.example.folder", support::fork(9000, 3));
  return volume;
}

TEST(HFSPlusImmovableForks, BlocksOfAttributesSurviveEveryRun) {
  for (const char* command : {"DEFRAG", "COMPACT", "DEFRAG --profile app"}) {
    for (uint64_t bufferBlocks : {0, 9}) {
      RewritingRun run(volumeWithAttributeForks(4));
      size_t manyPieces = 0;
      for (const auto& fork : run.truthBefore().forks) {
        manyPieces += fork.type == ForkType::Attribute && fork.extents.size() > 8;
      }
      ASSERT_GT(manyPieces, 0u);
      EXPECT_EQ(RewritingRun::errorIn(run.run(command, {bufferBlocks, 0x40000})), "");
      // Attribute forks' bytes, and that they lie where they lay, are part of the comparison.
      EXPECT_EQ(run.faults(), "");
      EXPECT_EQ(run.truth().attributesTree.leafRecords,
                run.truthBefore().attributesTree.leafRecords);
    }
  }
}

}  // namespace
