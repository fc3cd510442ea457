#include "unit/support/SampleVolumes.hpp"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/VolumeBuilder.hpp"

std::vector<std::uint8_t> sampleVolume() {
  using namespace support;
  VolumeDescription volume;
  volume.seed = 42;
  volume.blockSize = 512;
  volume.extentsTree.nodeSize = 512;
  volume.extentsTree.totalNodes = 40;
  volume.addJournal(8 * 1024);
  FolderDescription& folder = volume.root().addFolder("folder");
  for (int i = 0; i < 40; ++i) {
    folder.addFile("file " + std::to_string(i), fork(700 + 100 * static_cast<std::uint64_t>(i)));
  }
  folder.addFolder("inner").addFile("leaf", fork(1000));
  for (int i = 0; i < 3; ++i) {
    volume.root().addFile("pieces " + std::to_string(i), fork(60 * 512, 60), fork(12 * 512, 12));
  }
  volume.root().addFile("four", fork(4 * 512, 4));
  volume.root().addSymbolicLink("symlink", "folder/inner");
  FileDescription& inode = volume.addInode(fork(2000, 2));
  volume.root().addHardLink("link a", inode);
  folder.addHardLink("link b", inode);
  FileDescription& tagged = volume.root().addFile("tagged", fork(100));
  tagged.addAttribute("inline", Bytes(21));
  tagged.addForkAttribute("large", fork(20 * 512, 20));
  volume.addBadBlocks({{3000, 2}, {3010, 1}}, BadBlocksPlace::overflowOnly);
  volume.addHotFilesTree({{tagged.id, kDataFork, 7}, {tagged.id + 1, kDataFork, 9}});
  volume.size = 3333 * 512;
  const BuiltVolume built = buildVolume(volume);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(built.image.data());
  return {bytes, bytes + built.image.size()};
}

std::vector<std::string> realVolumes() {
  std::vector<std::string> paths;
  const char* directory = std::getenv("XRDEFRAG_REAL_VOLUMES");
  if (directory == nullptr || !std::filesystem::is_directory(directory)) {
    return paths;
  }
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    if (entry.path().extension() == ".hfs") {
      paths.push_back(entry.path());
    }
  }
  std::sort(paths.begin(), paths.end());
  return paths;
}

std::vector<std::uint8_t> bytesOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
