#include "HFSPlus/HFSPlusHotFiles.hpp"

#include <gtest/gtest.h>

#include "HFSPlus/HFSPlusFileForkSet.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumeChecker.hpp"
#include "support/doubles/MemoryDevice.hpp"

namespace {

using support::forkAt;
using support::HotFile;
using support::VolumeDescription;

constexpr uint32_t kBlockSize = 1024;
constexpr uint32_t kFirstDataBlock = 400;
constexpr uint32_t kNodeSize = 512;
constexpr const char* kInconsistent = "The hotfiles.btree file is inconsistent.";

support::ForkDescription forkOn(std::vector<support::BlockExtent> extents) {
  uint64_t blocks = 0;
  for (const auto& extent : extents) {
    blocks += extent.count;
  }
  return forkAt(std::move(extents), blocks * kBlockSize);
}

/// A volume with a hot files tree, which a test may damage before it is opened.
class HotVolume {
 public:
  VolumeDescription description;

  HotVolume() {
    description.blockSize = kBlockSize;
    description.size = 1 << 20;
  }

  void build() {
    _image = support::buildVolume(description).image;
    const auto bytes = std::span(reinterpret_cast<const uint8_t*>(_image.data()), _image.size());
    const auto truth = volumecheck::checkVolumeBytes(bytes).truth;
    const auto* item = truth.findItem("/.hotfiles.btree");
    const auto* fork = item ? truth.findFork(item->cnid, volumecheck::ForkType::Data) : nullptr;
    tree = fork ? *fork : volumecheck::Fork();
  }

  /// A big-endian number in a node of the tree.
  uint64_t get(uint32_t node, uint32_t offset, uint32_t width) {
    uint64_t value = 0;
    for (uint32_t i = 0; i < width; ++i) {
      value = value << 8 | std::to_integer<uint64_t>(byteAt(node * kNodeSize + offset + i));
    }
    return value;
  }
  void set(uint32_t node, uint32_t offset, uint32_t width, uint64_t value) {
    for (uint32_t i = 0; i < width; ++i) {
      byteAt(node * kNodeSize + offset + i) =
          static_cast<std::byte>(value >> (8 * (width - 1 - i)) & 0xFF);
    }
  }
  uint32_t firstLeaf() { return static_cast<uint32_t>(get(0, kFirstLeafOffset, 4)); }
  uint32_t lastLeaf() { return static_cast<uint32_t>(get(0, kFirstLeafOffset + 4, 4)); }

  /// What opening the tree and merging its forks ends with.
  std::string merge() {
    const auto device = std::make_shared<doubles::MemoryDevice>(_image);
    auto volume = HFSPlusVolume::open(XRDefragVolume("/nowhere/volume", device, false, true));
    if (!volume) {
      return volume.error().description();
    }
    auto hotFiles = HFSPlusHotFiles::open(**volume, **volume, (*volume)->catalog());
    if (!hotFiles) {
      return hotFiles.error().description();
    }
    if (!*hotFiles) {
      return "no tree";
    }
    const auto merged = (*hotFiles)->mergeFileIDs(forks, kFirstDataBlock);
    return merged ? "merged" : merged.error().description();
  }

  volumecheck::Fork tree;
  HFSPlusFileForkSet forks;

  static constexpr uint32_t kFirstLeafOffset = 24;

 private:
  std::byte& byteAt(uint64_t offset) {
    uint64_t block = offset / kBlockSize;
    for (const auto& extent : tree.extents) {
      if (block < extent.blockCount) {
        return _image.at((extent.startBlock + block) * kBlockSize + offset % kBlockSize);
      }
      block -= extent.blockCount;
    }
    throw std::out_of_range("the tree is shorter");
  }

  support::Bytes _image;
};

/// A tree of several leaves.
void addManyHotFiles(HotVolume& volume, uint32_t fragments = 1) {
  std::vector<HotFile> hotFiles;
  for (uint32_t i = 0; i < 200; ++i) {
    auto& file =
        volume.description.root().addFile("hot " + std::to_string(i), forkOn({{i + 100, 1}}));
    hotFiles.push_back({file.id, support::kDataFork, 1 + i});
  }
  auto& tree = volume.description.addHotFilesTree(hotFiles, fragments);
  tree.data.atFront = false;
  volume.build();
}

TEST(HFSPlusHotFiles, OnlyForksInOnePieceBelowTheDataAreaAreTaken) {
  HotVolume volume;
  auto& root = volume.description.root();
  std::vector<HotFile> hotFiles;
  const auto add = [&](const char* name, std::vector<support::BlockExtent> extents) {
    const uint32_t id = root.addFile(name, forkOn(std::move(extents))).id;
    hotFiles.push_back({id, support::kDataFork, static_cast<uint32_t>(hotFiles.size()) + 1});
    return id;
  };
  const uint32_t below = add("below", {{100, 5}});
  const uint32_t endsThere = add("ends there", {{394, 6}});
  add("reaches past too", {{380, 5}, {700, 2}});
  add("one reaches past", {{370, 2}, {500, 1}});
  add("second one above", {{392, 1}, {602, 5}});
  add("two extents", {{110, 2}, {120, 2}});
  add("above", {{410, 5}});
  root.addFile("cold", forkOn({{200, 5}}));
  volume.description.addHotFilesTree(hotFiles);
  volume.build();
  EXPECT_EQ(volume.merge(), "merged");
  EXPECT_EQ(volume.forks.count(), 2u);
  EXPECT_TRUE(volume.forks.contains(below, kHFSDataForkType));
  EXPECT_TRUE(volume.forks.contains(endsThere, kHFSDataForkType));
}

TEST(HFSPlusHotFiles, AnExtentAcrossTheBoundDoesNotQualify) {
  HotVolume volume;
  const uint32_t id =
      volume.description.root().addFile("across", forkOn({{kFirstDataBlock - 1, 2}})).id;
  volume.description.addHotFilesTree({{id, support::kDataFork, 1}});
  volume.build();
  EXPECT_EQ(volume.merge(), "merged");
  EXPECT_TRUE(volume.forks.empty());
}

TEST(HFSPlusHotFiles, TakesTheForkThatTheRecordNames) {
  HotVolume volume;
  auto& root = volume.description.root();
  const uint32_t resource = root.addFile("resource", forkOn({{500, 2}}), forkOn({{100, 2}})).id;
  const uint32_t both = root.addFile("both", forkOn({{110, 2}}), forkOn({{120, 2}})).id;
  const uint32_t odd = root.addFile("odd", forkOn({{130, 2}})).id;
  const uint32_t folder = root.addFolder("folder").id;
  volume.description.addHotFilesTree({{resource, kHFSResourceForkType, 1},
                                      {both, kHFSDataForkType, 2},
                                      {both, kHFSResourceForkType, 3},
                                      {odd, 7, 4},
                                      {folder, kHFSDataForkType, 5},
                                      {9999, kHFSDataForkType, 6}});
  volume.build();
  EXPECT_EQ(volume.merge(), "merged");
  EXPECT_EQ(volume.forks.count(), 3u);
  EXPECT_TRUE(volume.forks.contains(resource, kHFSResourceForkType));
  EXPECT_TRUE(volume.forks.contains(both, kHFSDataForkType));
  EXPECT_TRUE(volume.forks.contains(both, kHFSResourceForkType));
}

TEST(HFSPlusHotFiles, ThreadRecordsAreSkipped) {
  HotVolume volume;
  const uint32_t id = volume.description.root().addFile("hot", forkOn({{100, 2}})).id;
  volume.description.addHotFilesTree({{id, support::kDataFork, 0xFFFFFFFF}});
  volume.build();
  EXPECT_EQ(volume.get(volume.firstLeaf(), 10, 2), 2u);  // both records are threads
  EXPECT_EQ(volume.merge(), "merged");
  EXPECT_TRUE(volume.forks.empty());
}

TEST(HFSPlusHotFiles, AVolumeWithoutTheFileHasNoTree) {
  HotVolume volume;
  volume.build();
  EXPECT_EQ(volume.merge(), "no tree");
  HotVolume folder;
  folder.description.root().addFolder(".hotfiles.btree");
  folder.build();
  EXPECT_EQ(folder.merge(), "no tree");
}

TEST(HFSPlusHotFiles, AllLeavesAreReadAlsoFromAFileInManyPieces) {
  HotVolume whole;
  addManyHotFiles(whole);
  EXPECT_NE(whole.firstLeaf(), whole.lastLeaf());
  EXPECT_EQ(whole.merge(), "merged");
  EXPECT_EQ(whole.forks.count(), 200u);

  HotVolume pieces;
  addManyHotFiles(pieces, 11);
  ASSERT_GT(pieces.tree.extents.size(), 8u);
  EXPECT_EQ(pieces.merge(), "merged");
  EXPECT_EQ(pieces.forks.count(), 200u);
}

TEST(HFSPlusHotFiles, AnEmptyTreeMergesNothing) {
  HotVolume volume;
  addManyHotFiles(volume);
  volume.set(0, HotVolume::kFirstLeafOffset, 4, 0);
  EXPECT_EQ(volume.merge(), "merged");
  EXPECT_TRUE(volume.forks.empty());
}

TEST(HFSPlusHotFiles, ANodeThatIsNoLeafInTheChainIsAnError) {
  HotVolume index;
  addManyHotFiles(index);
  index.set(0, HotVolume::kFirstLeafOffset, 4, index.get(0, 16, 4));  // the root
  EXPECT_EQ(index.merge(), kInconsistent);

  HotVolume header;
  addManyHotFiles(header);
  header.set(header.lastLeaf(), 8, 1, 1);
  EXPECT_EQ(header.merge(), kInconsistent);
}

TEST(HFSPlusHotFiles, ALeafChainThatRunsInACircleIsAnError) {
  for (const bool toItself : {true, false}) {
    HotVolume volume;
    addManyHotFiles(volume);
    volume.set(volume.lastLeaf(), 0, 4, toItself ? volume.lastLeaf() : volume.firstLeaf());
    EXPECT_EQ(volume.merge(), kInconsistent);
  }
}

TEST(HFSPlusHotFiles, ALinkOutOfTheFileIsAnError) {
  HotVolume volume;
  addManyHotFiles(volume);
  volume.set(volume.lastLeaf(), 0, 4, 0x7FFFFFFF);
  EXPECT_NE(volume.merge(), "merged");
}

}  // namespace
