#include "VolumeBases.hpp"

#include <algorithm>
#include <array>
#include <functional>
#include <string>

#include "FuzzTargets.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "ReportCapture.hpp"
#include "TaskRun.hpp"
#include "support/RandomVolume.hpp"
#include "support/VolumeBuilder.hpp"
#include "support/VolumePresets.hpp"
#include "support/doubles/FaultyDevice.hpp"
#include "support/doubles/MemoryDevice.hpp"

namespace fuzz {

namespace {

using support::fork;
using support::VolumeDescription;

constexpr uint64_t kKiB = 1024;

VolumeDescription plain() {
  support::PlainVolume options;
  options.files = 12;
  options.fileSize = 6 * kKiB;
  options.blockSize = 1024;
  return support::plainVolume(options);
}

/// Long names in small nodes: a catalog of several levels.
VolumeDescription deep() {
  VolumeDescription volume;
  volume.blockSize = 512;
  volume.catalog.fragments = 3;
  volume.catalog.order = support::NodeOrder::scattered;
  support::FolderDescription* folder = &volume.root();
  for (char16_t i = 0; i < 60; ++i) {
    if (i % 12 == 11) {
      folder = &folder->addFolder(std::u16string(90, static_cast<char16_t>(u'a' + i % 26)));
    }
    std::u16string name(static_cast<size_t>(120 + i * 2), static_cast<char16_t>(u'A' + i % 26));
    name += static_cast<char16_t>(u'0' + i);
    folder->addFile(name, fork(700, 2));
  }
  return volume;
}

/// Forks in very many pieces: an overflow tree of several levels.
VolumeDescription pieces() {
  VolumeDescription volume;
  volume.blockSize = 512;
  volume.extentsTree.nodeSize = 512;
  volume.extentsTree.fragments = 4;
  volume.allocationFragments = 2;
  volume.startup = fork(3000, 5);
  for (uint32_t i = 0; i < 6; ++i) {
    volume.root().addFile("file " + std::to_string(i), fork(30 * kKiB, 40 + i * 5),
                          fork(8 * kKiB, 12));
  }
  return volume;
}

/// What profiles go by, a journal, hot files and links.
VolumeDescription profiles() {
  VolumeDescription volume;
  volume.blockSize = 1024;
  volume.addJournal(16 * kKiB);
  std::vector<support::HotFile> hotFiles;
  std::vector<support::PlaylistEntry> playlist;
  for (uint32_t i = 0; i < 14; ++i) {
    const char* folder = i % 3 == 0 ? "Applications/Some.app/Contents" : "Documents";
    auto& file = volume.root().folderAt(folder).addFile("file " + std::to_string(i),
                                                        fork(9 * kKiB, 1 + i % 4));
    if (i % 4 == 0) {
      hotFiles.push_back({file.id, support::kDataFork, i + 1});
      file.data.atFront = true;
      file.data.fragments = 1;
    }
    playlist.push_back({.fileID = file.id, .extentIndex = i % 2, .batch = i % 3});
  }
  volume.addHotFilesTree(hotFiles);
  volume.addPlaylist(playlist);
  auto& inode = volume.addInode(fork(5 * kKiB, 2));
  volume.root().addHardLink("link", inode);
  volume.root().addSymbolicLink("symlink", "Documents");
  return volume;
}

/// An HFS wrapper around a volume with attributes of every kind and bad blocks.
VolumeDescription wrapped() {
  VolumeDescription volume;
  volume.blockSize = 1024;
  volume.wrapper = true;
  volume.attributesTree.fragments = 3;
  for (uint32_t i = 0; i < 12; ++i) {
    auto& file = volume.root().addFile("file " + std::to_string(i), fork(7 * kKiB, 3));
    file.addAttribute("inline", support::Bytes(100, std::byte{7}));
    if (i % 3 == 0) {
      file.addForkAttribute("fork", fork(12 * kKiB, 10));
    }
  }
  volume.size = 512 * kKiB;
  volume.addBadBlocks({{300, 2}, {310, 1}, {320, 3}}, support::BadBlocksPlace::overflowOnly);
  return volume;
}

/// Hardly any room.
VolumeDescription full() {
  support::PlainVolume options;
  options.files = 20;
  options.fileSize = 10 * kKiB;
  options.blockSize = 512;
  options.fillPercent = 96;
  return support::plainVolume(options);
}

/// Anything, as the seed has it, with what a checker would complain of.
template <uint64_t seed>
VolumeDescription random() {
  support::RandomVolumeOptions options;
  options.mostBytes = 512 * kKiB;
  options.mostFiles = 40;
  options.spareBlocks = true;
  options.strayRecords = true;
  options.anomalies = true;
  return support::randomVolume(seed, options);
}

/// A metadata zone takes a large volume, if only in name.
VolumeDescription zoned() {
  VolumeDescription volume;
  volume.blockSize = 16384;
  volume.size = uint64_t{10} << 30;
  volume.addJournal(128 * kKiB);
  std::vector<support::HotFile> hotFiles;
  for (uint32_t i = 0; i < 12; ++i) {
    auto& file = volume.root().addFile("file " + std::to_string(i), fork(200 * kKiB, 3));
    file.data.unwritten = true;
    if (i % 4 == 0) {
      file.data.fragments = 1;
      file.data.atFront = true;
      hotFiles.push_back({file.id, support::kDataFork, i + 1});
    }
  }
  volume.addHotFilesTree(hotFiles);
  return volume;
}

VolumeDescription hfsx(bool binaryNames) {
  VolumeDescription volume;
  volume.blockSize = 1024;
  volume.hfsx = true;
  volume.binaryNames = binaryNames;
  volume.addJournal(8 * kKiB);
  for (uint32_t i = 0; i < 20; ++i) {
    const std::string name =
        (i % 2 == 0 ? "Name " : "name ") + std::to_string(binaryNames ? i / 2 : i);
    volume.root().folderAt("Applications/Folder").addFile(name, fork(5 * kKiB, 1 + i % 4));
  }
  return volume;
}
VolumeDescription caseFolding() {
  return hfsx(false);
}
VolumeDescription caseSensitive() {
  return hfsx(true);
}

/// How a base is made. A run that is cut off after a number of writes leaves an interrupted one.
struct Recipe {
  std::string_view name;
  VolumeDescription (*describe)();
  uint64_t writes = 0;
  bool sparse = false;
};

constexpr std::array<Recipe, 20> kRecipes = {{
    {"plain", plain},
    {"deep", deep},
    {"pieces", pieces},
    {"profiles", profiles},
    {"wrapped", wrapped},
    {"full", full},
    {"random 1", random<1>},
    {"random 2", random<2>},
    {"random 3", random<3>},
    {"random 4", random<4>},
    {"random 5", random<5>},
    {"random 6", random<6>},
    {"zoned", zoned, 0, true},
    {"plain, interrupted early", plain, 2},
    {"plain, interrupted", plain, 14},
    {"pieces, interrupted", pieces, 31},
    {"wrapped, interrupted", wrapped, 23},
    {"HFSX, names folded", caseFolding},
    {"HFSX, names compared as they are", caseSensitive},
    {"HFSX, interrupted", caseSensitive, 17},
}};

FuzzImage imageOf(const Recipe& recipe, support::BuiltVolume& built) {
  const VolumeDescription description = recipe.describe();
  if (recipe.sparse) {
    const auto path = std::filesystem::temp_directory_path() /
                      ("xrdefrag-fuzz-" + std::to_string(::getpid()) + ".hfs");
    built = support::buildVolume(description, path);
    FuzzImage image(path);
    std::filesystem::remove(path);
    return image;
  }
  built = support::buildVolume(description);
  if (recipe.writes == 0) {
    return FuzzImage(built.image);
  }
  const auto memory = std::make_shared<doubles::MemoryDevice>(built.image);
  const auto faulty = std::make_shared<doubles::FaultyDevice>(memory);
  const XRDefragVolume device("/nowhere", faulty, false, true);
  const auto volume = HFSPlusVolume::open(device, HFSXVolumes::Accepted);
  FUZZ_CHECK(volume, "a base volume does not open");
  faulty->plan({.call = doubles::FaultyDevice::Call::Write,
                .ordinal = recipe.writes,
                .how = doubles::FaultyDevice::How::Stop});
  runRewriting(**volume, "DEFRAG", {.copyBufferBytes = 16 * kKiB});
  return FuzzImage(memory->image());
}

VolumeBase makeBase(const Recipe& recipe) {
  support::BuiltVolume built;
  FuzzImage image = imageOf(recipe, built);
  VolumePlaces places = volumePlaces(image, built);
  return {recipe.name, std::move(image), std::move(places)};
}

}  // namespace

size_t volumeBaseCount() {
  return kRecipes.size();
}

const VolumeBase& volumeBase(size_t number) {
  static std::array<std::unique_ptr<VolumeBase>, kRecipes.size()> bases;
  std::unique_ptr<VolumeBase>& base = bases.at(number);
  if (!base) {
    base = std::make_unique<VolumeBase>(makeBase(kRecipes.at(number)));
  }
  return *base;
}

}  // namespace fuzz
