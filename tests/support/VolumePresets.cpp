#include "support/VolumePresets.hpp"

#include <algorithm>
#include <array>
#include <string>

#include "support/RandomVolume.hpp"
#include "support/VolumeNames.hpp"

namespace support {

namespace {

constexpr uint64_t kKiB = 1024;
constexpr uint64_t kMiB = 1024 * kKiB;
constexpr uint64_t kGiB = 1024 * kMiB;
constexpr uint64_t kTiB = 1024 * kGiB;

constexpr std::array kDemoFolders = {
    "Applications",    "Documents",           "Documents/Letters", "Documents/Invoices",
    "Music",           "Music/Live, 1999",    "Pictures",          "Pictures/Été",
    "Pictures/Winter", "Library/Preferences", "Library/Caches/Old"};
constexpr std::array kDemoNames = {"Report", "Photo", "Draft",  "Track", "Scan",
                                   "Notes",  "Index", "Sketch", "Café",  "a/b"};

std::string numbered(std::string_view text, uint64_t number) {
  return std::string(text) += std::to_string(number);
}

VolumeDescription zoned2T(uint64_t seed) {
  return zonedVolume(seed, 2 * kTiB);
}
VolumeDescription zoned8T(uint64_t seed) {
  return zonedVolume(seed, 8 * kTiB);
}
VolumeDescription randomOne(uint64_t seed) {
  return randomVolume(seed);
}

VolumeDescription fullVolume(uint64_t seed) {
  PlainVolume options;
  options.seed = seed;
  options.size = 64 * kMiB;
  options.fillPercent = 99;
  options.files = 400;
  return plainVolume(options);
}

constexpr std::array<VolumePreset, 9> kPresets = {{
    {"demo", "64 MiB, some hundred files in pieces, resource forks", demoVolume},
    {"random", "anything, up to 24 MiB, as the seed has it", randomOne},
    {"full", "64 MiB, fragmented, 99 % full", fullVolume},
    {"names", "names with every escape, links, nested folders", namesVolume},
    {"pieces", "every special file in pieces", piecesVolume},
    {"runs", "more than 300,000 runs of blocks", manyRunsVolume},
    {"million", "a million files, contents unwritten", millionVolume},
    {"2tib", "sparse, journaled, with a metadata zone", zoned2T},
    {"8tib", "the same, as large as blocks of 4 KiB can make it", zoned8T},
}};

}  // namespace

std::span<const VolumePreset> volumePresets() {
  return kPresets;
}

VolumeDescription plainVolume(const PlainVolume& options) {
  SeededRandom random(options.seed);
  VolumeDescription volume;
  volume.seed = options.seed;
  volume.name = u"Plain";
  volume.blockSize = options.blockSize;
  volume.size = options.size;
  volume.fillPercent = options.fillPercent;
  uint64_t average = options.fileSize;
  if (average == 0)
    average = options.size == 0 ? 64 * kKiB
                                : options.size / 100 * options.fillPercent / (options.files + 1);
  // What blocks round up and the trees take is not there for the forks.
  const uint64_t overhead = options.fileSize == 0 ? options.blockSize / 2 + 1200 : 0;
  average = average > 2 * overhead ? average - overhead : average / 2;
  std::vector<FolderDescription*> folders;
  for (uint32_t i = 0; i < options.files; ++i) {
    if (i % 100 == 0)
      folders.push_back(&volume.root().addFolder(numbered("folder ", i / 100)));
    ForkDescription data = fork(average / 2 + random.below(average + 1));
    data.fragments = static_cast<uint32_t>(random.between(1, std::max(1u, options.fragments)));
    data.unwritten = options.unwritten;
    random.pick(folders)->addFile(numbered("file ", i), std::move(data));
  }
  return volume;
}

VolumeDescription demoVolume(uint64_t seed) {
  SeededRandom random(seed);
  VolumeDescription volume;
  volume.seed = seed;
  volume.name = u"Demo";
  volume.size = 64 * kMiB;
  volume.extentsTree.nodeSize = 1024;
  volume.catalog.fragments = 3;
  volume.layout.gapShare = 0.8;
  for (uint64_t i = 0; i < 320; ++i) {
    const std::string name = numbered(kDemoNames[i % kDemoNames.size()], i + 1);
    FolderDescription& folder =
        volume.root().folderAt(kDemoFolders[random.below(kDemoFolders.size())]);
    const uint64_t size =
        random.chance(10) ? random.between(256 * kKiB, 1536 * kKiB) : random.between(1, 160 * kKiB);
    const auto fragments = static_cast<uint32_t>(random.chance(30) ? 1 : random.between(2, 12));
    ForkDescription resource;
    if (random.chance(15))
      resource = fork(random.between(300, 40 * kKiB), static_cast<uint32_t>(random.between(1, 4)));
    folder.addFile(name, fork(size, fragments), resource);
  }
  volume.root().addFile("Archive.dmg", fork(6 * kMiB, 60));
  volume.root().addFile("Empty file");
  volume.root().addSymbolicLink("Shortcut", "Documents/Letters");
  return volume;
}

VolumeDescription millionVolume(uint64_t seed) {
  SeededRandom random(seed);
  VolumeDescription volume;
  volume.seed = seed;
  volume.name = u"Million";
  volume.size = 16 * kGiB;
  volume.catalog.nodeSize = 8192;
  volume.layout.shuffled = false;
  for (uint32_t i = 0; i < 1000; ++i) {
    FolderDescription& folder = volume.root().addFolder(numbered("folder ", i));
    for (uint32_t j = 0; j < 1000; ++j) {
      ForkDescription data = fork(random.between(1, 12 * kKiB));
      data.unwritten = true;
      folder.addFile(numbered("file ", j), std::move(data));
    }
  }
  return volume;
}

VolumeDescription manyRunsVolume(uint64_t seed) {
  constexpr uint32_t kFiles = 64;
  constexpr uint32_t kRuns = 320000 / kFiles;
  VolumeDescription volume;
  volume.seed = seed;
  volume.name = u"Runs";
  volume.blockSize = 1024;
  volume.fillPercent = 75;
  volume.extentsTree.nodeSize = 4096;
  for (uint32_t i = 0; i < kFiles; ++i)
    volume.root().addFile(numbered("file ", i), fork(kRuns * 2 * kKiB, kRuns));
  return volume;
}

VolumeDescription zonedVolume(uint64_t seed, uint64_t size) {
  SeededRandom random(seed);
  VolumeDescription volume;
  volume.seed = seed;
  volume.name = u"Zoned";
  volume.size = size;
  volume.addJournal(16 * kMiB);
  volume.catalog.fragments = 3;
  std::vector<HotFile> hotFiles;
  for (uint32_t i = 0; i < 300; ++i) {
    FolderDescription& folder = volume.root().folderAt(numbered("folder ", i % 10));
    FileDescription& file =
        folder.addFile(numbered("file ", i), fork(random.between(1, 256 * kKiB)));
    file.data.fragments = static_cast<uint32_t>(random.between(1, 12));
    if (i % 20 != 0)
      continue;
    file.data.fragments = 1;
    file.data.atFront = true;
    hotFiles.push_back({file.id, kDataFork, i + 1});
  }
  volume.addHotFilesTree(hotFiles);
  return volume;
}

VolumeDescription namesVolume(uint64_t seed) {
  SeededRandom random(seed);
  VolumeDescription volume;
  volume.seed = seed;
  volume.name = storedName("Names, and so on");
  FolderDescription* folder = &volume.root();
  for (uint32_t i = 0; i < 200; ++i) {
    if (i % 20 == 10)
      folder = &folder->addFolder(randomName(random, i));
    folder->addFile(randomName(random, 1000 + i), fork(random.below(20000), 1 + i % 3));
  }
  volume.root().addFile(std::u16string(kMaxNameUnits, u'n'), fork(5000));
  FileDescription& inode = volume.addInode(fork(30000, 3), fork(3000));
  volume.root().addHardLink("hard link 1", inode);
  folder->addHardLink("hard link 2", inode);
  volume.root().addSymbolicLink("symbolic link", "hard link 1");
  return volume;
}

VolumeDescription piecesVolume(uint64_t seed) {
  PlainVolume options;
  options.seed = seed;
  options.files = 800;
  options.fragments = 30;
  VolumeDescription volume = plainVolume(options);
  volume.name = u"Pieces";
  volume.catalog.fragments = 30;
  volume.catalog.totalNodes = 256;
  volume.attributesTree.fragments = 12;
  volume.attributesTree.totalNodes = 64;
  volume.extentsTree.fragments = 7;
  volume.extentsTree.nodeSize = 512;
  volume.allocationFragments = 2;
  volume.startup = fork(90000, 10);
  return volume;
}

}  // namespace support
