#include "support/CatalogRecords.hpp"

#include <algorithm>

#include "support/VolumeNames.hpp"

namespace support {

namespace {

constexpr size_t kEmptyKeySize = 8;
constexpr size_t kEmptyThreadSize = 10;
// A day in 2014; every item is a second younger than the one before.
constexpr uint32_t kFirstDate = 0xD0000000;

void collect(const FolderDescription& folder, std::vector<CatalogItem>& items) {
  for (const FileDescription& file : folder.files()) {
    CatalogItem& item = items.emplace_back();
    item.id = file.id;
    item.parentID = folder.id;
    item.name = &file.name;
    item.file = &file;
  }
  for (const FolderDescription& child : folder.folders()) {
    CatalogItem& item = items.emplace_back();
    item.id = child.id;
    item.parentID = folder.id;
    item.name = &child.name;
    item.folder = &child;
    collect(child, items);
  }
}

bool hasThread(const CatalogItem& item) {
  return item.folder != nullptr || (item.file->flags & kThreadExistsFlag) != 0;
}

uint16_t attributesFlag(const ItemDescription& item) {
  return item.attributes.empty() ? 0 : kHasAttributesFlag;
}

}  // namespace

std::vector<CatalogItem> catalogItems(const VolumeDescription& description) {
  std::vector<CatalogItem> items(1);
  items[0].id = kRootFolderID;
  items[0].parentID = kRootParentID;
  items[0].name = &description.name;
  items[0].folder = &description.root();
  collect(description.root(), items);
  return items;
}

void writeForkData(ByteWriter& writer, const BuiltFork& fork, uint32_t clumpSize) {
  writer.u64(fork.logicalSize).u32(clumpSize).u32(fork.totalBlocks);
  const size_t count = std::min(fork.extents.size(), kExtentsInRecord);
  for (size_t i = 0; i < count; ++i)
    writer.u32(fork.extents[i].start).u32(fork.extents[i].count);
  writer.zeros((kExtentsInRecord - count) * 8);
}

// Keys sort by parent and name, and a thread's key has its own item for parent and no name. So the
// records of one "parent" are its thread, then its children, and only children need comparing.
CatalogRecords::CatalogRecords(const VolumeDescription& description,
                               const std::vector<CatalogItem>& items,
                               const std::vector<BuiltFork>& forks)
    : _description(description), _items(items), _forks(forks) {
  std::vector<uint32_t> byID(items.size());
  for (uint32_t i = 0; i < items.size(); ++i)
    byID[i] = i;
  std::vector<uint32_t> byParent = byID;
  std::ranges::sort(byID, {}, [&](uint32_t i) { return items[i].id; });
  std::ranges::sort(byParent, [&](uint32_t a, uint32_t b) { return lessByName(a, b); });

  _records.reserve(2 * items.size());
  size_t child = 0;
  for (size_t i = 0; i < byID.size(); ++i) {
    const CatalogItem& item = items[byID[i]];
    if (i > 0 && items[byID[i - 1]].id == item.id)
      _conflict = "two items have the ID " + std::to_string(item.id);
    while (child < byParent.size() && items[byParent[child]].parentID < item.id)
      _records.push_back({byParent[child++], false});
    if (hasThread(item))
      _records.push_back({byID[i], true});
  }
  while (child < byParent.size())
    _records.push_back({byParent[child++], false});
  for (size_t i = 1; i < byParent.size(); ++i) {
    if (!lessByName(byParent[i - 1], byParent[i]))
      _conflict = "two items are called " + utf8FromUnits(*items[byParent[i]].name);
  }
}

std::string CatalogRecords::conflict() const {
  return _conflict;
}

int CatalogRecords::compareNames(const std::u16string& a, const std::u16string& b) const {
  return _description.hfsx && _description.binaryNames ? compareNamesBinary(a, b)
                                                       : compareNamesFolded(a, b);
}

bool CatalogRecords::lessByName(uint32_t a, uint32_t b) const {
  const CatalogItem& left = _items[a];
  const CatalogItem& right = _items[b];
  if (left.parentID != right.parentID)
    return left.parentID < right.parentID;
  return compareNames(*left.name, *right.name) < 0;
}

size_t CatalogRecords::keySize(size_t index) const {
  const Record& record = _records[index];
  return kEmptyKeySize + (record.isThread ? 0 : 2 * _items[record.item].name->size());
}

size_t CatalogRecords::recordSize(size_t index) const {
  const Record& record = _records[index];
  const CatalogItem& item = _items[record.item];
  if (record.isThread)
    return kEmptyKeySize + kEmptyThreadSize + 2 * item.name->size();
  return keySize(index) + (item.folder != nullptr ? kFolderRecordSize : kFileRecordSize);
}

void CatalogRecords::write(size_t index, std::span<std::byte> into) const {
  const Record& record = _records[index];
  const CatalogItem& item = _items[record.item];
  ByteWriter writer(into);
  writeKey(writer, record);
  if (record.isThread)
    writeThread(writer, item);
  else if (item.folder != nullptr)
    writeFolder(writer, item);
  else
    writeFile(writer, item);
}

void CatalogRecords::writeKey(ByteWriter& writer, const Record& record) const {
  const CatalogItem& item = _items[record.item];
  if (record.isThread) {
    writer.u16(6).u32(item.id).u16(0);
    return;
  }
  const auto units = static_cast<uint16_t>(item.name->size());
  writer.u16(static_cast<uint16_t>(6 + 2 * units)).u32(item.parentID).u16(units).units(*item.name);
}

void CatalogRecords::writeThread(ByteWriter& writer, const CatalogItem& item) const {
  writer.u16(item.folder != nullptr ? kFolderThreadRecord : kFileThreadRecord)
      .u16(0)
      .u32(item.parentID)
      .u16(static_cast<uint16_t>(item.name->size()))
      .units(*item.name);
}

uint32_t CatalogRecords::dateOf(const CatalogItem& item) const {
  return kFirstDate + item.id;
}

void CatalogRecords::writeFolder(ByteWriter& writer, const CatalogItem& item) const {
  const FolderDescription& folder = *item.folder;
  const size_t valence = folder.files().size() + folder.folders().size();
  const uint32_t date = dateOf(item);
  const uint16_t counted = _description.hfsx ? kHasFolderCountFlag : 0;
  writer.u16(kFolderRecord)
      .u16(static_cast<uint16_t>(attributesFlag(folder) | counted))
      .u32(static_cast<uint32_t>(valence))
      .u32(item.id)
      .u32(date)  // created, changed, attributes changed, read, backed up
      .u32(date)
      .u32(date)
      .u32(date)
      .u32(0)
      .u32(501)  // owner, group
      .u32(20)
      .u16(0)
      .u16(folder.mode)
      .u32(1)
      .zeros(32)  // Finder information
      .u32(0)     // text encoding
      .u32(counted ? static_cast<uint32_t>(folder.folders().size()) : 0);
}

void CatalogRecords::writeFile(ByteWriter& writer, const CatalogItem& item) const {
  const FileDescription& file = *item.file;
  const uint32_t date = dateOf(item);
  const bool isLink = file.type == fourCharCode("hlnk");
  writer.u16(kFileRecord)
      .u16(static_cast<uint16_t>(file.flags | attributesFlag(file)))
      .u32(file.firstLink)
      .u32(item.id)
      .u32(date)  // created, changed, attributes changed, read, backed up
      .u32(date)
      .u32(date)
      .u32(date)
      .u32(0)
      .u32(isLink ? file.previousLink : 501)  // owner, group
      .u32(isLink ? file.nextLink : 20)
      .u16(0)
      .u16(file.mode)
      .u32(file.special)
      .u32(file.type)
      .u32(file.creator)
      .u16(file.finderFlags)
      .zeros(4 + 2 + 16)  // the rest of the Finder information
      .u32(0)             // text encoding
      .u32(0);
  writeFork(writer, file.data, item.dataFork);
  writeFork(writer, file.resource, item.resourceFork);
}

void CatalogRecords::writeFork(ByteWriter& writer, const ForkDescription& fork,
                               uint32_t index) const {
  if (index == kNoFork)
    writer.u64(fork.logicalSize).zeros(kForkDataSize - 8);
  else
    writeForkData(writer, _forks[index], 0);
}

}  // namespace support
