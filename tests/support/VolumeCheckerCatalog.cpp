#include "support/VolumeCheckerCatalog.hpp"

#include <algorithm>
#include <cstring>
#include <tuple>

#include "support/VolumeCheckerNames.hpp"

namespace volumecheck {

namespace {

constexpr std::uint16_t kCatalogMaxKeyLength = 516;
constexpr std::uint16_t kCatalogMinKeyLength = 6;
constexpr std::uint16_t kCatalogMinNodeSize = 4096;
constexpr std::size_t kFolderRecordSize = 88;
constexpr std::size_t kFileRecordSize = 248;
constexpr std::size_t kLargestThreadSize = 520;
constexpr std::size_t kDataForkOffset = 88;
constexpr std::size_t kResourceForkOffset = 168;
constexpr std::size_t kForkExtentsOffset = 16;
constexpr std::size_t kForkExtentsSize = 64;

constexpr std::uint8_t kCompareFolded = 0xCF;
constexpr std::uint8_t kCompareBinary = 0xBC;

constexpr std::uint16_t kFlagThreadExists = 0x0002;
constexpr std::uint16_t kFlagSubfolderCount = 0x0010;
constexpr std::uint32_t kIDsReused = 1U << 12;
constexpr std::uint32_t kTypeFolderLink = 0x66647270;     // 'fdrp'
constexpr std::uint32_t kCreatorFolderLink = 0x4D414353;  // 'MACS'

int compareKeys(Bytes left, Bytes right,
                int (*compareNames)(std::u16string_view, std::u16string_view)) {
  if (u32At(left, 2) != u32At(right, 2)) {
    return u32At(left, 2) < u32At(right, 2) ? -1 : 1;
  }
  return compareNames(nameFrom(left, 8, u16At(left, 6)), nameFrom(right, 8, u16At(right, 6)));
}

bool isFolder(const CatalogItem& item) {
  return item.type == RecordType::Folder;
}

}  // namespace

void checkCatalog(VolumeCheckerState& state) {
  VolumeCheckerCatalog(state).check();
}

void VolumeCheckerCatalog::check() {
  const Fork* fork = _state.truth.findFork(kCatalogFileID, ForkType::Data);
  if (fork == nullptr || !fork->sound) {
    _state.log.add(FindingKind::TreeHeader, "The catalog cannot be read through its extents.");
    return;
  }
  TreeRules rules;
  rules.name = "catalog";
  rules.maxKeyLength = kCatalogMaxKeyLength;
  rules.minKeyLength = kCatalogMinKeyLength;
  rules.minNodeSize = kCatalogMinNodeSize;
  rules.variableIndexKeys = true;
  VolumeCheckerTree tree(_state, *fork, rules);
  if (!tree.open()) {
    return;
  }
  _chooseOrder(tree);
  tree.walk([this](Bytes key, Bytes data, std::uint32_t node) {
    _leafNode = node;
    _readRecord(key, data);
  });
  _state.truth.catalogTree = tree.truth();
  _indexItems();
  _checkThreads();
  _buildPaths();
  _checkItems();
  _checkCounts();
  _nameForks();
}

void VolumeCheckerCatalog::_chooseOrder(VolumeCheckerTree& tree) {
  const std::uint8_t type = tree.header().keyCompareType;
  const bool hfsx = _state.truth.hfsx;
  if (type != kCompareFolded && !(hfsx ? type == kCompareBinary : type == 0)) {
    _state.log.add(FindingKind::TreeHeader, "The catalog's key comparison type is 0x%02X.", type);
  }
  _state.truth.caseSensitive = hfsx && type == kCompareBinary;
  const auto names = _state.truth.caseSensitive ? compareBinary : compareFolded;
  tree.setCompare([names](Bytes left, Bytes right) { return compareKeys(left, right, names); });
}

void VolumeCheckerCatalog::_readRecord(Bytes key, Bytes data) {
  const std::uint32_t parentID = u32At(key, 2);
  const std::size_t units = u16At(key, 6);
  if (key.size() != 8 + 2 * units || units > 255) {
    _state.log.add(FindingKind::TreeKey,
                   "A catalog key of folder %u has %zu bytes and a name of %zu units.", parentID,
                   key.size(), units);
  }
  std::u16string name = nameFrom(key, 8, units);
  _addPrint(parentID, name, key, data);
  const std::uint16_t type = u16At(data, 0);
  switch (type) {
    case 1:
    case 2:
      _readItem(static_cast<RecordType>(type), parentID, std::move(name), data);
      break;
    case 3:
    case 4:
      _readThread(static_cast<RecordType>(type), parentID, !name.empty(), data);
      break;
    default:
      _state.log.add(FindingKind::CatalogRecordType, "A catalog record of folder %u has type %u.",
                     parentID, type);
  }
}

void VolumeCheckerCatalog::_addPrint(std::uint32_t parentID, const std::u16string& name, Bytes key,
                                     Bytes data) {
  if (!_state.options.hashForks) {
    return;
  }
  std::vector<std::uint8_t> content(key.begin(), key.end());
  content.insert(content.end(), data.begin(), data.end());
  if (u16At(data, 0) == 2 && data.size() == kFileRecordSize) {
    for (const std::size_t fork : {kDataForkOffset, kResourceForkOffset}) {
      std::memset(&content[key.size() + fork + kForkExtentsOffset], 0, kForkExtentsSize);
    }
  }
  _state.truth.records.push_back({parentID, name, hashOf(content)});
}

void VolumeCheckerCatalog::_readItem(RecordType type, std::uint32_t parentID, std::u16string name,
                                     Bytes data) {
  const bool folder = type == RecordType::Folder;
  const std::size_t size = folder ? kFolderRecordSize : kFileRecordSize;
  if (data.size() != size) {
    _state.log.add(FindingKind::TreeRecordSize,
                   "A catalog record of folder %u has %zu bytes instead of %zu.", parentID,
                   data.size(), size);
    return;
  }
  CatalogItem item;
  item.type = type;
  item.leafNode = _leafNode;
  item.parentID = parentID;
  item.name = std::move(name);
  item.flags = u16At(data, 2);
  item.cnid = u32At(data, 8);
  item.special = u32At(data, 44);
  if (folder) {
    item.valence = u32At(data, 4);
    item.subfolderCount = u32At(data, 84);
  } else {
    item.fileType = u32At(data, 48);
    item.fileCreator = u32At(data, 52);
    _readForks(item, data);
  }
  _checkName(item);
  _state.truth.items.push_back(std::move(item));
}

void VolumeCheckerCatalog::_readForks(const CatalogItem& item, Bytes data) {
  const auto read = [&](ForkType type, std::size_t offset) {
    _state.truth.forks.push_back(
        resolveFork(_state, item.cnid, type, forkDataFrom(sliceOf(data, offset, 80))));
  };
  read(ForkType::Data, kDataForkOffset);
  read(ForkType::Resource, kResourceForkOffset);
}

void VolumeCheckerCatalog::_readThread(RecordType type, std::uint32_t cnid, bool named,
                                       Bytes data) {
  const std::size_t units = u16At(data, 8);
  const std::size_t size = 10 + 2 * units;
  if (named || units > 255 || (data.size() != size && data.size() != kLargestThreadSize)) {
    _state.log.add(FindingKind::TreeRecordSize,
                   "The thread record of ID %u has %zu bytes for a name of %zu units.", cnid,
                   data.size(), units);
    return;
  }
  _threads.push_back({type == RecordType::FolderThread, cnid, u32At(data, 4),
                      nameFrom(data, 10, units), u16At(data, 2)});
}

void VolumeCheckerCatalog::_checkName(const CatalogItem& item) {
  if (item.name.empty()) {
    _state.log.add(FindingKind::CatalogName, "Catalog ID %u has no name.", item.cnid);
  }
  if (!isDecomposed(item.name)) {
    _state.log.add(FindingKind::CatalogNameNotDecomposed,
                   "The name \"%s\" of catalog ID %u is not decomposed.",
                   displayName(item.name).c_str(), item.cnid);
  }
}

void VolumeCheckerCatalog::_indexItems() {
  const auto& items = _state.truth.items;
  _itemOf.reserve(items.size());
  for (std::size_t i = 0; i < items.size(); ++i) {
    const CatalogItem& item = items[i];
    if (!_itemOf.emplace(item.cnid, i).second) {
      _state.log.add(FindingKind::CatalogDuplicateID, "Two catalog records have ID %u.", item.cnid);
    }
    const bool isRoot = item.cnid == kRootFolderID && isFolder(item);
    const bool isBadBlocks = item.cnid == kBadBlockFileID && !isFolder(item);
    if (item.cnid < kFirstUserID && !isRoot && !isBadBlocks) {
      _state.log.add(FindingKind::CatalogReservedID, "A catalog record has the reserved ID %u.",
                     item.cnid);
    }
    if (isRoot != (item.parentID == kRootParentID)) {
      _state.log.add(FindingKind::CatalogRootFolder, "Catalog ID %u has parent %u.", item.cnid,
                     item.parentID);
    }
    Children& children = _childrenOf[item.parentID];
    children.items += 1;
    const bool folderLink =
        item.fileType == kTypeFolderLink && item.fileCreator == kCreatorFolderLink;
    children.folders += isFolder(item) || folderLink ? 1 : 0;
  }
  if (!_itemOf.contains(kRootFolderID)) {
    _state.log.add(FindingKind::CatalogRootFolder, "The catalog has no root folder.");
  }
}

void VolumeCheckerCatalog::_checkThreads() {
  for (const Thread& thread : _threads) {
    const auto found = _itemOf.find(thread.cnid);
    if (found == _itemOf.end()) {
      _state.log.add(FindingKind::CatalogThreadOrphan,
                     "There is a thread record for ID %u, which has no record.", thread.cnid);
      continue;
    }
    CatalogItem& item = _state.truth.items[found->second];
    item.hasThread = true;
    if (thread.parentID != item.parentID || thread.name != item.name ||
        thread.ofFolder != isFolder(item) || thread.reserved != 0) {
      _state.log.add(FindingKind::CatalogThreadMismatch,
                     "The thread record of ID %u names \"%s\" in folder %u; it is \"%s\" in %u.",
                     thread.cnid, displayName(thread.name).c_str(), thread.parentID,
                     displayName(item.name).c_str(), item.parentID);
    }
  }
}

void VolumeCheckerCatalog::_checkItems() {
  for (const CatalogItem& item : _state.truth.items) {
    const auto parent = _itemOf.find(item.parentID);
    const bool inFolder = parent != _itemOf.end() && isFolder(_state.truth.items[parent->second]);
    if (item.cnid != kRootFolderID && !inFolder) {
      _state.log.add(FindingKind::CatalogParent, "Catalog ID %u lies in %u, which is no folder.",
                     item.cnid, item.parentID);
    } else if (item.path.empty()) {
      _state.log.add(FindingKind::CatalogUnreachable, "The root does not lead to catalog ID %u.",
                     item.cnid);
    }
    if (isFolder(item)) {
      _checkFolder(item, _childrenOf[item.cnid]);
      continue;
    }
    if (!item.hasThread) {
      _state.log.add(FindingKind::CatalogFileThread, "File %u has no thread record.", item.cnid);
    }
    if (item.hasThread != ((item.flags & kFlagThreadExists) != 0)) {
      _state.log.add(FindingKind::CatalogThreadFlag,
                     "File %u has flags 0x%04X, which is wrong about its thread record.", item.cnid,
                     item.flags);
    }
  }
}

void VolumeCheckerCatalog::_checkFolder(const CatalogItem& item, const Children& children) {
  if (!item.hasThread) {
    _state.log.add(FindingKind::CatalogFolderThread, "Folder %u has no thread record.", item.cnid);
  }
  if (item.valence != children.items) {
    _state.log.add(FindingKind::CatalogValence, "Folder %u counts %u items, it has %u.", item.cnid,
                   item.valence, children.items);
  }
  // Without the flag the field is reserved, and some writers keep a count there.
  const bool counts = (item.flags & kFlagSubfolderCount) != 0;
  if (counts && item.subfolderCount != children.folders) {
    _state.log.add(FindingKind::CatalogSubfolderCount, "Folder %u counts %u folders, it has %u.",
                   item.cnid, item.subfolderCount, children.folders);
  }
}

void VolumeCheckerCatalog::_checkCounts() {
  const HeaderTruth& header = _state.truth.header;
  std::uint32_t files = 0;
  std::uint32_t folders = 0;
  std::uint32_t highest = 0;
  for (const CatalogItem& item : _state.truth.items) {
    (isFolder(item) ? folders : files) += 1;
    highest = std::max(highest, item.cnid);
  }
  folders -= folders > 0 ? 1 : 0;  // the root folder does not count
  if (files != header.fileCount) {
    _state.log.add(FindingKind::FileCount, "The header counts %u files, the catalog has %u.",
                   header.fileCount, files);
  }
  if (folders != header.folderCount) {
    _state.log.add(FindingKind::FolderCount, "The header counts %u folders, the catalog has %u.",
                   header.folderCount, folders);
  }
  if (highest >= header.nextCatalogID && (header.attributes & kIDsReused) == 0) {
    _state.log.add(FindingKind::NextCatalogID, "The next catalog ID is %u, but ID %u is in use.",
                   header.nextCatalogID, highest);
  }
}

void VolumeCheckerCatalog::_buildPaths() {
  for (std::size_t i = 0; i < _state.truth.items.size(); ++i) {
    _pathOf(i);
  }
}

// Paths of items that the root does not lead to stay empty. Goes up to the first ancestor whose
// path is known, then down again.
const std::string& VolumeCheckerCatalog::_pathOf(std::size_t index) {
  auto& items = _state.truth.items;
  std::vector<std::size_t> chain;
  std::size_t at = index;
  while (items[at].path.empty() && items[at].cnid != kRootFolderID) {
    chain.push_back(at);
    const auto parent = _itemOf.find(items[at].parentID);
    const bool loops = chain.size() > items.size();
    if (parent == _itemOf.end() || !isFolder(items[parent->second]) || loops) {
      return items[index].path;
    }
    at = parent->second;
  }
  if (items[at].cnid == kRootFolderID) {
    items[at].path.assign(1, '/');
  }
  for (; !chain.empty(); chain.pop_back()) {
    std::string path = items[at].cnid == kRootFolderID ? std::string() : items[at].path;
    at = chain.back();
    path += '/';
    path += displayName(items[at].name);
    items[at].path = std::move(path);
  }
  return items[index].path;
}

void VolumeCheckerCatalog::_nameForks() {
  auto& forks = _state.truth.forks;
  for (Fork& fork : forks) {
    const auto item = _itemOf.find(fork.cnid);
    if (fork.path.empty() && item != _itemOf.end()) {
      fork.path = _state.truth.items[item->second].path;
    }
  }
}

}  // namespace volumecheck
