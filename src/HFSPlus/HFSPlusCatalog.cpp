#include "HFSPlus/HFSPlusCatalog.hpp"

#include <algorithm>
#include <array>
#include <cerrno>
#include <span>
#include <vector>

#include "HFSPlus/HFSPlusUnicode.hpp"
#include "LWKit/LWDebug.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "LWKit/LWUnicode.hpp"

namespace {

constexpr uint32_t kNodeCacheBytes = 32U << 20;
constexpr size_t kPathUnits = 1024;

XRDefragError pathTooLong() {
  return XRDefragError::localized(
      "Unicode path conversion failed. A path component exceeded the maximum allowed length.");
}

/// Why a component of a path cannot be a name on disk, as an errno value.
XRDefragError pathNotConvertible(long status) {
  return XRDefragError::localized("Unicode path conversion failed. An error %1$ld occurred.",
                                  status);
}

XRDefragError volumeInconsistent() {
  return XRDefragError::localized("Volume is inconsistent.");
}

/// What stands in for the path of a file that has a place in the header instead of the catalog;
/// null for any other ID.
const char* pathOfSpecialFile(uint32_t cnid) {
  switch (cnid) {
    case kHFSExtentsFileID:
      return "(HFS+ Extents File)";
    case kHFSCatalogFileID:
      return "(HFS+ Catalog File)";
    case kHFSBadBlockFileID:
      return "(HFS+ Bad Block File)";
    case kHFSAllocationFileID:
      return "(HFS+ Allocation File)";
    case kHFSStartupFileID:
      return "(HFS+ Startup File)";
    case kHFSAttributesFileID:
      return "(HFS+ Attributes File)";
    default:
      return nullptr;
  }
}

HFSPlusCatalogKey hostKey(const HFSPlusCatalogKeyView& view) {
  HFSPlusCatalogKey key{};
  const size_t units = view.nameUnits.size() / 2;
  key.keyLength = static_cast<uint16_t>(HFSPlusCatalogKeyView::kMinBytes + 2 * units);
  key.parentID = view.parentID;
  key.nodeName.length = static_cast<uint16_t>(units);
  for (size_t unit = 0; unit < units; unit++) {
    key.nodeName.unicode[unit] = readBigEndian<uint16_t>(view.nameUnits.data() + 2 * unit);
  }
  return key;
}

bool isFile(const HFSPlusCatalogRecordView& record, uint32_t cnid) {
  if (record.type() != kHFSPlusFileRecord || record.file() == nullptr) {
    return false;
  }
  constexpr size_t kFileIDOffset = offsetof(HFSPlusCatalogFile, fileID);
  return readBigEndian<uint32_t>(record.file()->bytes.data() + kFileIDOffset) == cnid;
}

bool isThreadOf(const HFSPlusCatalogRecordView& record, uint32_t cnid) {
  return record.isThread() && record.key.parentID == cnid && record.key.nameUnits.empty();
}

/// `file` is a file record in disk order.
void setForkExtents(std::span<std::byte> file, const HFSPlusExtentRecord& host, uint8_t forkType,
                    bool setZeroLength) {
  const auto fork =
      file.subspan(forkType == kHFSDataForkType ? offsetof(HFSPlusCatalogFile, dataFork)
                                                : offsetof(HFSPlusCatalogFile, resourceFork),
                   sizeof(HFSPlusForkData));
  std::ranges::copy(toDisk(host).bytes, fork.begin() + offsetof(HFSPlusForkData, extents));
  if (setZeroLength) {
    writeBigEndian(fork.data() + offsetof(HFSPlusForkData, logicalSize), uint64_t{0});
    writeBigEndian(fork.data() + offsetof(HFSPlusForkData, totalBlocks), uint32_t{0});
  }
}

}  // namespace

/// The key of an item, with its own copy of the name, so that the node it came from can go.
struct HFSPlusCatalog::ItemKey {
  uint32_t parentID = 0;
  size_t nameBytes = 0;
  std::array<std::byte, 2 * kHFSPlusMaxNameUnits> name;

  explicit ItemKey(const HFSPlusCatalogKeyView& key)
      : parentID(key.parentID), nameBytes(key.nameUnits.size()) {
    std::ranges::copy(key.nameUnits, name.begin());
  }

  /// The name must have at most 255 units.
  ItemKey(uint32_t parent, std::u16string_view units)
      : parentID(parent), nameBytes(2 * units.size()) {
    for (size_t unit = 0; unit < units.size(); unit++) {
      writeBigEndian(name.data() + 2 * unit, static_cast<uint16_t>(units[unit]));
    }
  }

  HFSPlusCatalogKeyView view() const { return {parentID, std::span(name).first(nameBytes)}; }
};

HFSPlusCatalog::HFSPlusCatalog(HFSPlusVolumeAccess& volume)
    : HFSPlusBTreeFile(volume, kHFSCatalogFileID) {}

XRDefragError HFSPlusCatalog::inconsistent() const {
  return XRDefragError::localized("Catalog file is inconsistent.");
}

Result<std::unique_ptr<HFSPlusCatalog>> HFSPlusCatalog::open(HFSPlusVolumeAccess& volume) {
  std::unique_ptr<HFSPlusCatalog> catalog(new HFSPlusCatalog(volume));
  TRY(catalog->openBTree());
  catalog->setNodeCacheSize(kNodeCacheBytes);
  const BTHeaderRec& header = catalog->headerRecord();
  catalog->_binaryKeyCompare = volume.isHFSX() && header.keyCompareType == kHFSBinaryCompare;
  if (catalog->_binaryKeyCompare) {
    catalog->_keyCompareProc = HFSPlusCompareNamesBinary;
  }
  LWDebugLog(LWDebugLevel::Info,
             "Catalog size        = %@ (node size = %@, total nodes = %lu, free nodes = %lu)\n",
             LWPrettySize(uint64_t{header.nodeSize} * header.totalNodes),
             LWPrettySize(header.nodeSize), catalog->nodeCount(), catalog->freeNodes());
  LWDebugLog(LWDebugLevel::Info,
             "Catalog root node   = %lu (first leaf node = %lu, last leaf node = %lu)\n",
             catalog->rootNode(), catalog->firstLeafNode(), catalog->lastLeafNode());
  return catalog;
}

int32_t HFSPlusCatalog::compare(const HFSPlusCatalogKeyView& a,
                                const HFSPlusCatalogKeyView& b) const {
  if (a.parentID != b.parentID) {
    return a.parentID < b.parentID ? -1 : 1;
  }
  return _keyCompareProc(a.nameUnits, b.nameUnits);
}

Result<HFSPlusCatalogRecordView> HFSPlusCatalog::_recordAt(const HFSPlusBTreeNode& node,
                                                           uint32_t index) const {
  const auto record = HFSPlusCatalogRecordView::of(node.recordDataAtIndex(index));
  if (!record) {
    return std::unexpected(inconsistent());
  }
  return *record;
}

Result<HFSPlusCatalog::Slot> HFSPlusCatalog::_searchNode(const HFSPlusBTreeNode& node,
                                                         const HFSPlusCatalogKeyView& key) const {
  uint32_t low = 0;
  uint32_t high = node.recordCount();
  while (low < high) {
    const uint32_t middle = low + (high - low) / 2;
    const auto record = TRY(_recordAt(node, middle));
    const int32_t order = compare(key, record.key);
    if (order == 0) {
      return Slot{middle, true};
    }
    if (order < 0) {
      high = middle;
    } else {
      low = middle + 1;
    }
  }
  return Slot{low, false};
}

Result<uint32_t> HFSPlusCatalog::_childForKey(const HFSPlusBTreeNode& node,
                                              const HFSPlusCatalogKeyView& key) const {
  if (node.recordCount() == 0) {
    return std::unexpected(inconsistent());
  }
  const Slot slot = TRY(_searchNode(node, key));
  const uint32_t index = slot.equal || slot.index == 0 ? slot.index : slot.index - 1;
  const auto child = TRY(_recordAt(node, index)).childNode();
  if (!child) {
    return std::unexpected(inconsistent());
  }
  return *child;
}

Result<HFSPlusCatalog::Position> HFSPlusCatalog::_findKey(const HFSPlusCatalogKeyView& key) {
  uint32_t index = rootNode();
  for (uint32_t level = kMaxDepth; level > 0; level--) {
    auto node = TRY(cachedNodeWithIndex(index));
    if (node->kind() == kBTLeafNode) {
      const Slot slot = TRY(_searchNode(*node, key));
      return Position{std::move(node), slot};
    }
    if (node->kind() != kBTIndexNode) {
      break;
    }
    index = TRY(_childForKey(*node, key));
  }
  return std::unexpected(inconsistent());
}

Result<std::optional<HFSPlusCatalog::ItemKey>> HFSPlusCatalog::_keyOfItem(
    const Position& thread) const {
  if (!thread.slot.equal) {
    return std::nullopt;
  }
  const auto record = TRY(_recordAt(*thread.leaf, thread.slot.index));
  if (!record.isThread()) {
    return std::nullopt;
  }
  const auto target = record.threadTarget();
  if (!target) {
    return std::unexpected(inconsistent());
  }
  return ItemKey(*target);
}

Result<std::optional<HFSPlusCatalog::ItemKey>> HFSPlusCatalog::_keyForCNID(uint32_t cnid) {
  auto thread = TRY(_rememberedThread(cnid));
  if (!thread) {
    thread = TRY(_findKey({cnid, {}}));
  }
  return _keyOfItem(*thread);
}

Result<HFSPlusCatalogRecord> HFSPlusCatalog::_copyRecordForKey(const HFSPlusCatalogKeyView& key) {
  const Position position = TRY(_findKey(key));
  return _copyRecordAt(position);
}

Result<HFSPlusCatalogRecord> HFSPlusCatalog::_copyRecordAt(const Position& position) const {
  HFSPlusCatalogRecord found;
  if (!position.slot.equal) {
    return found;
  }
  const auto record = TRY(_recordAt(*position.leaf, position.slot.index));
  if (record.type() == kHFSPlusFolderRecord && record.folder() != nullptr) {
    found.u = toHost(*record.folder());
  } else if (record.type() == kHFSPlusFileRecord && record.file() != nullptr) {
    found.u = toHost(*record.file());
  } else if (record.type() == kHFSPlusFolderRecord || record.type() == kHFSPlusFileRecord) {
    return std::unexpected(inconsistent());
  } else {
    return found;  // a thread, or what nobody knows
  }
  found.type = record.type();
  found.key = hostKey(record.key);
  return found;
}

Result<std::optional<HFSPlusCatalog::Position>> HFSPlusCatalog::_rememberedFile(uint32_t cnid) {
  return _rememberedRecord(cnid, isFile);
}

Result<std::optional<HFSPlusCatalog::Position>> HFSPlusCatalog::_rememberedThread(uint32_t cnid) {
  return _rememberedRecord(cnid, isThreadOf);
}

/// The record of a file or folder, if it is where it was found before.
template <typename IsSought>
Result<std::optional<HFSPlusCatalog::Position>> HFSPlusCatalog::_rememberedRecord(
    uint32_t cnid, const IsSought& isSought) {
  const auto place = _places.find(cnid);
  if (!place) {
    return std::nullopt;
  }
  auto leaf = TRY(cachedNodeWithIndex(place->node));
  if (leaf->kind() != kBTLeafNode || place->record >= leaf->recordCount() ||
      !isSought(TRY(_recordAt(*leaf, place->record)), cnid)) {
    return std::nullopt;
  }
  return Position{std::move(leaf), {.index = place->record, .equal = true}};
}

Result<HFSPlusCatalogRecord> HFSPlusCatalog::copyRecordForCNID(uint32_t cnid) {
  if (const auto remembered = TRY(_rememberedFile(cnid))) {
    return _copyRecordAt(*remembered);
  }
  const auto key = TRY(_keyForCNID(cnid));
  if (!key) {
    return HFSPlusCatalogRecord{};
  }
  const Position position = TRY(_findKey(key->view()));
  auto found = TRY(_copyRecordAt(position));
  if (found.isFile() && found.itemID() == cnid) {
    _places.add(cnid, {position.leaf->index(), position.slot.index});
  }
  return found;
}

Result<HFSPlusCatalogRecord> HFSPlusCatalog::copyRecordForPath(std::string_view utf8) {
  HFSPlusCatalogRecord deepest;
  uint32_t parentID = kHFSRootFolderID;
  while (!utf8.empty()) {
    const std::string_view component = utf8.substr(0, utf8.find('/'));
    utf8.remove_prefix(std::min(component.size() + 1, utf8.size()));
    if (component.empty()) {
      continue;
    }
    std::u16string name = TRY(_nameForComponent(component));
    auto found = TRY(_copyRecordForKey(ItemKey(parentID, name).view()));
    if (found.type == 0 && name.contains(u':')) {
      deepest = {};
      std::ranges::replace(name, u':', u'/');
      found = TRY(_copyRecordForKey(ItemKey(parentID, name).view()));
    }
    if (found.type == 0) {
      break;
    }
    deepest = found;
    parentID = found.itemID();
  }
  return deepest;
}

bool HFSPlusCatalog::isNamed(const HFSPlusCatalogRecord& record, std::u16string_view name) const {
  std::u16string found;
  for (size_t unit = 0; unit < record.key.nodeName.length; unit++) {
    found += char16_t{record.key.nodeName.unicode[unit]};
  }
  const uint32_t parentID = record.key.parentID;
  return compare(ItemKey(parentID, found).view(), ItemKey(parentID, name).view()) == 0;
}

Result<std::u16string> HFSPlusCatalog::_nameForComponent(std::string_view component) const {
  const auto units = LWUTF16FromUTF8(component);
  if (!units) {
    return std::unexpected(pathNotConvertible(EILSEQ));
  }
  if (units->size() > kHFSPlusMaxNameUnits) {
    return std::unexpected(pathTooLong());
  }
  std::u16string name = HFSPlusDecomposedName(*units);
  if (name.size() > kHFSPlusMaxNameUnits) {
    return std::unexpected(pathNotConvertible(ENAMETOOLONG));
  }
  return name;
}

Result<std::optional<std::string>> HFSPlusCatalog::copyPathForCNID(uint32_t cnid) {
  if (const char* text = pathOfSpecialFile(cnid)) {
    return std::string(text);
  }
  std::array<char16_t, kPathUnits> path;  // filled from its end
  size_t freeUnits = path.size();
  std::vector<uint32_t> seen;
  while (cnid > kHFSRootFolderID) {
    if (std::ranges::find(seen, cnid) != seen.end()) {
      return std::unexpected(inconsistent());
    }
    seen.push_back(cnid);
    const auto key = TRY(_keyForCNID(cnid));
    if (!key) {
      return std::nullopt;
    }
    const size_t units = key->nameBytes / 2;
    if (freeUnits <= units + 1) {
      return std::unexpected(pathTooLong());
    }
    freeUnits -= units + 1;
    path[freeUnits] = u'/';
    for (size_t unit = 0; unit < units; unit++) {
      const auto value = readBigEndian<uint16_t>(key->name.data() + 2 * unit);
      path[freeUnits + 1 + unit] = value == '/' ? u':' : char16_t{value};
    }
    cnid = key->parentID;
  }
  return LWUTF8FromUTF16({path.data() + freeUnits, path.size() - freeUnits});
}

Result<> HFSPlusCatalog::iterateFolderID(uint32_t folderID, HFSPlusFolderDelegate& delegate) {
  delegate.iterateFolderWillStart();
  auto outcome = _iterateFolderID(folderID, delegate);
  delegate.iterateFolderDidFinish();
  return outcome;
}

Result<> HFSPlusCatalog::_iterateFolderID(uint32_t folderID, HFSPlusFolderDelegate& delegate) {
  Position position = TRY(_findKey({folderID, {}}));
  if (!position.slot.equal ||
      TRY(_recordAt(*position.leaf, position.slot.index)).type() != kHFSPlusFolderThreadRecord) {
    return {};
  }
  uint32_t index = position.slot.index + 1;
  for (uint32_t nodes = 0; nodes <= nodeCount(); nodes++) {
    for (; index < position.leaf->recordCount(); index++) {
      const auto record = TRY(_recordAt(*position.leaf, index));
      if (record.key.parentID != folderID) {
        return {};
      }
      TRY(_showChild(record, delegate));
    }
    const uint32_t next = position.leaf->fLink();
    if (next == 0 && position.leaf->index() == lastLeafNode()) {
      return {};  // the folder's children are the last records of all
    }
    if (next == 0) {
      return std::unexpected(inconsistent());
    }
    position.leaf = TRY(cachedNodeWithIndex(next));
    if (position.leaf->kind() != kBTLeafNode) {
      return std::unexpected(inconsistent());
    }
    index = 0;
  }
  return std::unexpected(inconsistent());  // the chain of leaves bites its tail
}

Result<> HFSPlusCatalog::_showChild(const HFSPlusCatalogRecordView& record,
                                    HFSPlusFolderDelegate& delegate) const {
  if (record.type() == kHFSPlusFolderRecord) {
    const auto* folder = record.folder();
    return folder != nullptr ? delegate.iterateFolderFolder(*folder, record.key)
                             : std::unexpected(inconsistent());
  }
  if (record.type() == kHFSPlusFileRecord) {
    const auto* file = record.file();
    return file != nullptr ? delegate.iterateFolderFile(*file, record.key)
                           : std::unexpected(inconsistent());
  }
  return {};
}

Result<> HFSPlusCatalog::updateForkExtents(const HFSPlusExtentRecord& host, uint32_t fileID,
                                           uint8_t forkType, bool setZeroLength) {
  if (forkType != kHFSDataForkType && forkType != kHFSResourceForkType) {
    return std::unexpected(volumeInconsistent());
  }
  auto position = TRY(_rememberedFile(fileID));
  if (!position) {
    const Position thread = TRY(_findKey({fileID, {}}));
    if (!TRY(_isThere(thread))) {
      return {};
    }
    const auto key = TRY(_keyOfItem(thread));
    if (!key) {
      return std::unexpected(volumeInconsistent());
    }
    position = TRY(_findKey(key->view()));
    if (!TRY(_isThere(*position))) {
      return {};
    }
  }
  HFSPlusBTreeNode& leaf = *position->leaf;
  const auto record = TRY(_recordAt(leaf, position->slot.index));
  if (record.type() != kHFSPlusFileRecord || record.file() == nullptr) {
    return std::unexpected(volumeInconsistent());
  }
  const auto whole = leaf.mutableRecordDataAtIndex(position->slot.index);
  setForkExtents(whole.subspan(whole.size() - record.data.size()), host, forkType, setZeroLength);
  leaf.setDirty(true);
  return {};
}

Result<bool> HFSPlusCatalog::_isThere(const Position& position) {
  if (position.slot.index == position.leaf->recordCount()) {
    return std::unexpected(volumeInconsistent());
  }
  return position.slot.equal;
}
