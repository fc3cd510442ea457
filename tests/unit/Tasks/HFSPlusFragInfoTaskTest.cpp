#include "Tasks/HFSPlusFragInfoTask.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "HFSPlus/HFSPlusByteOrder.hpp"
#include "unit/Tasks/TaskTranscript.hpp"

namespace {

using support::fork;
using support::forkAt;
using support::VolumeDescription;

Transcript fragInfo(HFSPlusVolume& volume, const std::string& options = "") {
  return transcriptOf<HFSPlusFragInfoTask>(volume, "FRAGINFO" + options);
}

Transcript result(uint32_t fragmented, uint32_t total) {
  return {"FRAGINFO,START",
          LWFormat("FRAGINFO,%u,%u,%u", fragmented, total, fragmented * 100 / std::max(total, 1U)),
          "FRAGINFO,DONE"};
}

/// The result by the checker's reading: extents of files, counted from the start block on.
Transcript expectedResult(const volumecheck::VolumeTruth& truth, uint32_t startBlock) {
  uint32_t fragmented = 0;
  uint32_t total = 0;
  for (const auto& item : truth.items) {
    if (item.type != volumecheck::RecordType::File) {
      continue;
    }
    for (const auto type : {volumecheck::ForkType::Data, volumecheck::ForkType::Resource}) {
      uint32_t blocks = 0;
      uint32_t extents = 0;
      for (const auto& extent : truth.findFork(item.cnid, type)->extents) {
        const uint32_t end = extent.startBlock + extent.blockCount;
        if (end > startBlock) {
          blocks += end - std::max(extent.startBlock, startBlock);
          extents++;
        }
      }
      total += blocks;
      fragmented += extents > 1 ? blocks : 0;
    }
  }
  return result(fragmented, total);
}

TEST(HFSPlusFragInfoTask, AVolumeWithoutFilesHasNothing) {
  VolumeDescription description;
  OpenedVolume volume(description);
  EXPECT_EQ(fragInfo(*volume), result(0, 0));
}

TEST(HFSPlusFragInfoTask, JudgesEachForkByItself) {
  VolumeDescription description;
  description.size = 8 << 20;
  description.root().addFile("both", forkAt({{100, 4}}, 4 * 4096),
                             forkAt({{110, 2}, {120, 1}}, 3 * 4096));
  description.root().addFile("whole", forkAt({{130, 10}}, 10 * 4096));
  OpenedVolume volume(description);
  EXPECT_EQ(fragInfo(*volume), result(3, 17));
}

TEST(HFSPlusFragInfoTask, CountsOverflowExtents) {
  VolumeDescription description;
  description.root().addFile("pieces", fork(60 * 4096, 30), fork(20 * 4096, 10));
  description.root().addFile("whole", fork(7 * 4096, 1));
  OpenedVolume volume(description);
  EXPECT_EQ(fragInfo(*volume), result(80, 87));
  EXPECT_EQ(fragInfo(*volume), expectedResult(volume.truth(), (*volume).firstDataBlock()));
}

constexpr uint32_t kBlockSize = 4096;

/// A sparse volume large enough for a metadata zone.
VolumeDescription zonedVolume() {
  VolumeDescription description;
  description.blockSize = kBlockSize;
  description.size = uint64_t{12} << 30;
  description.addJournal();
  return description;
}

TEST(HFSPlusFragInfoTask, OnlyBlocksFromTheFirstDataBlockOnCount) {
  const auto path = testing::TempDir() + "xrdefrag-fraginfo.img";
  (void)support::buildVolume(zonedVolume(), path);
  auto opened = XRDefragVolume::openDevice(path);
  ASSERT_TRUE(opened) << opened.error().description();
  uint32_t start = 0;
  {
    auto volume = HFSPlusVolume::open(**opened);
    ASSERT_TRUE(volume) << volume.error().description();
    ASSERT_TRUE((*volume)->hasMetadataZone());
    start = (*volume)->firstDataBlock();
  }
  opened->reset();

  struct Case {
    std::vector<support::BlockExtent> extents;
    uint32_t fragmented;
    uint32_t total;
  };
  const std::vector<Case> cases = {
      // One extent below, one above: contiguous.
      {{{start - 50, 10}, {start + 100, 20}}, 0, 20},
      // One straddles: only its blocks from the first data block on count.
      {{{start - 3, 10}}, 0, 7},
      {{{start - 3, 10}, {start + 100, 20}}, 27, 27},
      // Ending right there is below.
      {{{start - 10, 10}, {start, 5}}, 0, 5},
      {{{start - 50, 10}, {start - 20, 10}}, 0, 0},
  };
  for (const auto& [extents, fragmented, total] : cases) {
    auto description = zonedVolume();
    uint64_t blocks = 0;
    for (const auto& extent : extents) {
      blocks += extent.count;
    }
    auto data = forkAt(extents, blocks * kBlockSize);
    data.unwritten = true;
    description.root().addFile("file", data);
    (void)support::buildVolume(description, path);
    const auto device = XRDefragVolume::openDevice(path);
    ASSERT_TRUE(device) << device.error().description();
    const auto volume = HFSPlusVolume::open(**device);
    ASSERT_TRUE(volume) << volume.error().description();
    ASSERT_EQ((*volume)->firstDataBlock(), start);
    EXPECT_EQ(fragInfo(**volume), result(fragmented, total));
  }
  std::remove(path.c_str());
}

TEST(HFSPlusFragInfoTask, TakesNoOptions) {
  VolumeDescription description;
  description.root().addFile("file", fork(4096));
  OpenedVolume volume(description);
  EXPECT_EQ(
      fragInfo(*volume, " --all now"),
      (Transcript{"FRAGINFO,START", "FRAGINFO,ERROR,Unknown option: --all", "FRAGINFO,DONE"}));
}

TEST(HFSPlusFragInfoTask, AMissingOverflowRecordLeavesNoResult) {
  VolumeDescription description;
  const uint32_t id = description.root().addFile("broken", fork(12 * 4096, 12)).id;
  auto image = support::buildVolume(description).image;
  loseOverflowRecord(image, id, 8);
  OpenedVolume volume(std::move(image));
  EXPECT_EQ(fragInfo(*volume),
            (Transcript{"FRAGINFO,START", "FRAGINFO,ERROR,Overflow extent record missing.",
                        "FRAGINFO,DONE"}));
}

TEST(HFSPlusFragInfoTask, CountsWhatTheCheckerReadsOfRealVolumes) {
  const auto paths = realVolumes();
  if (paths.empty()) {
    GTEST_SKIP() << "XRDEFRAG_REAL_VOLUMES names no folder of volumes";
  }
  for (const auto& path : paths) {
    SCOPED_TRACE(path);
    OpenedVolume volume(bytesOfFile(path));
    EXPECT_EQ(fragInfo(*volume), expectedResult(volume.truth(), (*volume).firstDataBlock()));
  }
}

}  // namespace
