#include "support/VolumePresets.hpp"

#include <array>
#include <string>

#include "support/SeededRandom.hpp"

namespace support {

namespace {

constexpr uint64_t kKiB = 1024;
constexpr uint64_t kMiB = 1024 * kKiB;

constexpr std::array kDemoFolders = {
    "Applications",    "Documents",           "Documents/Letters", "Documents/Invoices",
    "Music",           "Music/Live, 1999",    "Pictures",          "Pictures/Été",
    "Pictures/Winter", "Library/Preferences", "Library/Caches/Old"};
constexpr std::array kDemoNames = {"Report", "Photo", "Draft",  "Track", "Scan",
                                   "Notes",  "Index", "Sketch", "Café",  "a/b"};

}  // namespace

VolumeDescription demoVolume(uint64_t seed) {
  SeededRandom random(seed);
  VolumeDescription volume;
  volume.seed = seed;
  volume.name = u"Demo";
  volume.size = 64 * kMiB;
  volume.extentsTree.nodeSize = 1024;
  volume.catalog.fragments = 3;
  volume.layout.gapShare = 0.8;
  for (int i = 0; i < 320; ++i) {
    const std::string name = std::string(kDemoNames[static_cast<size_t>(i) % kDemoNames.size()]) +
                             " " + std::to_string(i + 1);
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

}  // namespace support
