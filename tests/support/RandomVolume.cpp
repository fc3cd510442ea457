#include "support/RandomVolume.hpp"

#include <algorithm>
#include <array>
#include <string>

#include "support/VolumeGeometry.hpp"
#include "support/VolumeNames.hpp"

namespace support {

namespace {

using namespace std::string_view_literals;

constexpr std::array kNameParts = {
    "plain"sv,      "Mixed Case"sv, "a,b"sv,       "back\\slash"sv, "zero\0unit"sv,   "sl/ash"sv,
    "co:lon"sv,     "tab\tbed"sv,   "line\nend"sv, "café"sv,        "Ångström"sv,     "ﬁne"sv,
    "日本語"sv,     "한글"sv,       "Ω Ёж й"sv,    "smile 😀"sv,    "no\u200Cjoin"sv, " blank "sv,
    "\"quoted\""sv, "%1$@ %n"sv,    "Ǆ ß İ"sv,     ".hidden"sv,     "\x7F\x01"sv,     "ệ ṩ"sv};

constexpr uint32_t kMostBlocks = 24000;
constexpr uint32_t kFewestBlocks = 96;

std::string numbered(std::string_view text, uint32_t number) {
  return std::string(text) += std::to_string(number);
}

class RandomVolume {
 public:
  RandomVolume(uint64_t seed, const RandomVolumeOptions& options)
      : _random(seed), _options(options) {
    _volume.seed = seed;
  }

  VolumeDescription make() {
    drawShape();
    drawTrees();
    drawFolders();
    drawFiles();
    drawLinks();
    drawExtras();
    drawAttributes();
    if (_options.anomalies)
      drawAnomalies();
    return std::move(_volume);
  }

 private:
  uint32_t between(uint64_t low, uint64_t high) {
    return static_cast<uint32_t>(_random.between(low, high));
  }
  uint64_t bytes(uint64_t blocks) const { return blocks * _volume.blockSize; }

  void drawShape();
  void drawTrees();
  void drawTree(TreeDescription& tree, uint32_t leastNodeSize, uint32_t mostFragments);
  void drawFolders();
  void drawFiles();
  void addTwin(FolderDescription& folder, const FileDescription& file);
  void drawLinks();
  void drawExtras();
  void drawBadBlocks();
  void drawHotFiles();
  void drawPlaylist();
  void drawAttributes();
  void drawAnomalies();
  ForkDescription drawFork(uint64_t mostBlocks);
  FolderDescription& anyFolder() { return *_random.pick(_folders); }
  std::vector<BlockExtent> drawRuns(uint32_t runs, uint32_t firstPercent, uint32_t lastPercent);

  SeededRandom _random;
  RandomVolumeOptions _options;
  VolumeDescription _volume;
  std::vector<FolderDescription*> _folders;
  std::vector<FileDescription*> _files;
  uint32_t _names = 0;
  uint64_t _blocks = 0;  // about how many the volume will have
  uint64_t _budget = 0;  // how many of them ordinary forks may own
};

void RandomVolume::drawShape() {
  _volume.name = randomName(_random, between(1, 99));
  _volume.blockSize = _options.blockSize.value_or(512u << _random.below(8));
  const uint64_t most =
      std::clamp<uint64_t>(_options.mostBytes / _volume.blockSize, kFewestBlocks, kMostBlocks);
  _blocks = between(std::max<uint64_t>(kFewestBlocks, most / 8), most);
  constexpr std::array<std::array<uint32_t, 2>, 5> kFills = {
      {{1, 10}, {10, 50}, {50, 85}, {85, 97}, {97, 100}}};
  const auto& range = kFills[_random.below(kFills.size())];
  _volume.fillPercent = _options.fillPercent.value_or(between(range[0], range[1]));
  _budget = std::max<uint64_t>(_blocks * _volume.fillPercent / 100, 8);

  _volume.hfsx = _options.hfsx;
  _volume.binaryNames = _options.hfsx && _random.chance(50);
  _volume.wrapper = _options.wrapper.value_or(_random.chance(20));
  if (!_volume.wrapper && _random.chance(20))
    _volume.trailingBytes = 512 * between(0, _volume.blockSize / 512 - 1);
  if (_options.journaled.value_or(_random.chance(40)))
    _volume.addJournal(bytes(between(2, std::max<uint64_t>(2, _budget / 12))));
  _volume.layout.shuffled = _random.chance(85);
  _volume.layout.gapShare = _random.chance(20) ? 0 : _random.fraction();
  _volume.layout.gaps = _random.chance(50) ? 0 : between(1, 200);
  _volume.nextID() += between(0, 3) * between(0, 5000);
}

void RandomVolume::drawTrees() {
  drawTree(_volume.catalog, 4096, 14);
  drawTree(_volume.extentsTree, 512, 8);
  drawTree(_volume.attributesTree, 4096, 12);
  _volume.hasAttributesFile = _options.placementHints || _random.chance(80);
  if (_random.chance(25))
    _volume.allocationFragments = between(2, 4);
  if (_random.chance(20))
    _volume.startup = fork(between(1, bytes(12)), between(1, 11));
}

void RandomVolume::drawTree(TreeDescription& tree, uint32_t leastNodeSize, uint32_t mostFragments) {
  do {
    tree.nodeSize = 512u << _random.below(7);
  } while (tree.nodeSize < leastNodeSize);
  // A node of many blocks on a volume of few would be most of the volume.
  while (tree.nodeSize > leastNodeSize && tree.nodeSize * 16u > bytes(_budget))
    tree.nodeSize /= 2;
  tree.fill = _random.chance(50) ? 1.0 : 0.4 + _random.fraction() * 0.6;
  constexpr std::array kOrders = {NodeOrder::packed, NodeOrder::spread, NodeOrder::scattered};
  tree.order = kOrders[_random.below(kOrders.size())];
  tree.junkInFreeNodes = _random.chance(15);
  tree.nodesMayStraddle = _random.chance(15);
  if (_random.chance(40))
    tree.fragments = between(2, mostFragments);
  const uint64_t nodesThatFit = bytes(_budget) / 8 / tree.nodeSize;
  if (_random.chance(30) && nodesThatFit > 8)
    tree.totalNodes = between(8, std::min<uint64_t>(nodesThatFit, 6000));
}

void RandomVolume::drawFolders() {
  _folders.push_back(&_volume.root());
  if (_options.placementHints || _random.chance(30)) {
    _folders.push_back(&_volume.root().folderAt("Applications"));
    _folders.push_back(&_volume.root().folderAt("Applications/Utilities"));
  }
  const uint32_t count = between(0, 20);
  for (uint32_t i = 0; i < count; ++i)
    _folders.push_back(&anyFolder().addFolder(randomName(_random, ++_names)));
}

ForkDescription RandomVolume::drawFork(uint64_t mostBlocks) {
  uint64_t blocks = 1 + _random.below(mostBlocks);
  for (int i = between(0, 3); i > 0; --i)
    blocks = 1 + _random.below(blocks);
  ForkDescription fork;
  fork.logicalSize = bytes(blocks) - _random.below(_volume.blockSize);
  if (_options.spareBlocks && _random.chance(3))
    fork.spareBlocks = between(1, 4);
  if (_options.strayRecords && _random.chance(5))
    fork.strayRecords = between(1, 3);
  if (_random.chance(60))
    return fork;
  fork.fragments = between(2, _random.chance(25) ? 40 : 10);
  return fork;
}

void RandomVolume::drawFiles() {
  const uint32_t count = between(1, _options.mostFiles);
  const uint64_t most = std::max<uint64_t>(1, _budget * between(2, 12) / count);
  uint64_t used = 0;
  const auto account = [&](const ForkDescription& fork) {
    used += dividedUp(fork.logicalSize, _volume.blockSize) + fork.spareBlocks;
  };
  // One fork in very many pieces, so that overflow records fill leaves and index nodes.
  if (_random.chance(25) && _budget > 400) {
    const uint64_t blocks = _budget / 3;
    FileDescription& file = anyFolder().addFile(
        randomName(_random, ++_names), fork(bytes(blocks), between(blocks / 8, blocks / 2)));
    _files.push_back(&file);
    account(file.data);
  }
  for (uint32_t i = 0; i < count && used < _budget; ++i) {
    FolderDescription& folder = anyFolder();
    FileDescription& file = folder.addFile(randomName(_random, ++_names));
    file.type = fourCharCode("TEXT");
    file.creator = fourCharCode("ttxt");
    if (!_random.chance(8))
      file.data = drawFork(std::min(most, _budget - used));
    account(file.data);
    if (_random.chance(25) && used < _budget)
      file.resource = drawFork(std::min(most / 2 + 1, _budget - used));
    account(file.resource);
    _files.push_back(&file);
    addTwin(folder, file);
  }
}

// Where case tells names apart, some files have a neighbour whose name differs in nothing else.
void RandomVolume::addTwin(FolderDescription& folder, const FileDescription& file) {
  if (!_volume.binaryNames || !_random.chance(20))
    return;
  std::u16string name = file.name;
  for (char16_t& unit : name) {
    if ((unit >= u'a' && unit <= u'z') || (unit >= u'A' && unit <= u'Z'))
      unit ^= u'a' ^ u'A';
  }
  if (name != file.name)
    _files.push_back(&folder.addFile(name, fork(between(0, 5000))));
}

void RandomVolume::drawLinks() {
  for (uint32_t inodes = _random.chance(30) ? between(1, 4) : 0; inodes > 0; --inodes) {
    FileDescription& inode =
        _volume.addInode(drawFork(8), _random.chance(30) ? drawFork(4) : fork(0));
    for (uint32_t links = between(1, 4); links > 0; --links)
      anyFolder().addHardLink(numbered("link ", ++_names), inode);
    _files.push_back(&inode);
  }
  for (uint32_t links = between(0, 3); links > 0; --links)
    anyFolder().addSymbolicLink(numbered("symlink ", ++_names), "../some/where");
}

void RandomVolume::drawExtras() {
  if (_random.chance(25))
    drawBadBlocks();
  if (_options.placementHints || _random.chance(25))
    drawHotFiles();
  if (_options.placementHints || _random.chance(25))
    drawPlaylist();
  if (_random.chance(15))
    _volume.keptFree = drawRuns(between(1, 4), 30, 45);
}

// Runs that neither touch nor overlap, in the given part of the volume.
std::vector<BlockExtent> RandomVolume::drawRuns(uint32_t runs, uint32_t firstPercent,
                                                uint32_t lastPercent) {
  const uint64_t first = _blocks * firstPercent / 100;
  const uint64_t stride = _blocks * (lastPercent - firstPercent) / 100 / runs;
  std::vector<BlockExtent> extents;
  for (uint64_t i = 0; i < runs && stride >= 4; ++i) {
    const uint32_t count = between(1, std::min<uint64_t>(3, stride / 2));
    extents.push_back(
        {static_cast<uint32_t>(first + i * stride + _random.below(stride / 2)), count});
  }
  return extents;
}

void RandomVolume::drawBadBlocks() {
  const auto place = _options.anomalies && _random.chance(30) ? BadBlocksPlace::catalog
                                                              : BadBlocksPlace::overflowOnly;
  std::vector<BlockExtent> blocks = drawRuns(between(1, 12), 50, 70);
  if (!blocks.empty())
    _volume.addBadBlocks(std::move(blocks), place);
}

void RandomVolume::drawHotFiles() {
  std::vector<HotFile> hotFiles;
  for (FileDescription* file : _files) {
    if (!_random.chance(30))
      continue;
    const bool hasData = file->data.logicalSize > 0;
    if (!hasData && file->resource.logicalSize == 0)
      continue;
    hotFiles.push_back({file->id, hasData ? kDataFork : kResourceFork, between(1, 1000)});
    file->data.atFront = file->data.fragments == 1 && _random.chance(50);
  }
  _volume.addHotFilesTree(hotFiles, _random.chance(30) ? between(2, 10) : 1);
}

void RandomVolume::drawPlaylist() {
  std::vector<PlaylistEntry> entries;
  for (const FileDescription* file : _files) {
    if (!_random.chance(30) || file->data.logicalSize == 0)
      continue;
    PlaylistEntry& entry = entries.emplace_back();
    entry.fileID = file->id;
    entry.extentIndex = between(0, 2);
    entry.batch = between(0, 3);
  }
  for (uint32_t i = between(0, 3); i > 0; --i) {
    PlaylistEntry& entry = entries.emplace_back();
    entry.offset = _random.below(bytes(_blocks));
    entry.length = _random.below(bytes(9));
    entry.batch = between(0, 3);
  }
  FileDescription& file = _volume.addPlaylist(std::move(entries), _random.chance(50));
  file.data.fragments = between(1, 3);
}

void RandomVolume::drawAttributes() {
  if (!_volume.hasAttributesFile)
    return;
  const auto addTo = [&](ItemDescription& item) {
    const uint32_t count = between(1, 3);
    for (uint32_t i = 0; i < count; ++i) {
      const std::string attributeName = numbered("com.example.", i);
      if (_random.chance(75)) {
        Bytes value(_random.below(300));
        stampFork(_volume.seed, item.id, static_cast<uint8_t>(i), 0, value);
        item.addAttribute(attributeName, std::move(value));
      } else {
        item.addForkAttribute(attributeName, drawFork(30)).fork.strayRecords = 0;
      }
    }
  };
  if (!_options.placementHints && !_random.chance(50))
    return;
  const uint32_t percent = between(2, 60);
  for (FileDescription* file : _files) {
    if (_random.chance(percent))
      addTo(*file);
  }
  for (FolderDescription* folder : _folders) {
    if (_random.chance(percent))
      addTo(*folder);
  }
}

void RandomVolume::drawAnomalies() {
  if (_random.chance(60))
    _volume.markedWithoutOwner = drawRuns(between(1, 8), 75, 90);
  if (_random.chance(60))
    _volume.unmarked = drawRuns(between(1, 8), 10, 28);
}

}  // namespace

std::u16string randomName(SeededRandom& random, uint32_t number) {
  std::u16string name;
  const uint64_t parts = random.chance(70) ? random.below(3) : random.below(40);
  for (uint64_t i = 0; i < parts; ++i)
    name += storedName(kNameParts[random.below(kNameParts.size())]);
  const std::u16string suffix = storedName(numbered(" ", number));
  if (random.chance(3))
    name.append(kMaxNameUnits, u'x');
  if (name.size() + suffix.size() > kMaxNameUnits) {
    name.resize(kMaxNameUnits - suffix.size());
    // Half a surrogate pair would be no text any more.
    if ((name.back() & 0xFC00) == 0xD800)
      name.back() = u'x';
  }
  return name + suffix;
}

VolumeDescription randomVolume(uint64_t seed, const RandomVolumeOptions& options) {
  return RandomVolume(seed, options).make();
}

}  // namespace support
