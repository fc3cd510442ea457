#include "unit/HFSPlus/MemoryCatalog.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <concepts>

namespace {

template <std::integral T>
void append(std::vector<std::byte>& bytes, T value) {
  bytes.resize(bytes.size() + sizeof value);
  writeBigEndian(bytes.data() + bytes.size() - sizeof value, value);
}

void append(std::vector<std::byte>& bytes, std::span<const std::byte> more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

char16_t lowerCase(char16_t unit) {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + 0x20) : unit;
}

}  // namespace

std::vector<std::byte> diskName(std::u16string_view text) {
  std::vector<std::byte> bytes;
  for (const char16_t unit : text) {
    append(bytes, static_cast<uint16_t>(unit));
  }
  return bytes;
}

HFSPlusCatalogKeyView keyView(uint32_t parentID, std::span<const std::byte> name) {
  return {parentID, name};
}

void MemoryCatalog::addRecord(uint32_t parentID, std::u16string name, std::vector<std::byte> data) {
  _entries.push_back({parentID, std::move(name), std::move(data)});
}

void MemoryCatalog::addThread(uint32_t id, int16_t type, uint32_t parentID,
                              std::u16string_view name) {
  std::vector<std::byte> data;
  append(data, type);
  append(data, uint16_t{0});
  append(data, parentID);
  append(data, static_cast<uint16_t>(name.size()));
  append(data, diskName(name));
  addRecord(id, u"", std::move(data));
}

void MemoryCatalog::addFolder(uint32_t parentID, std::u16string_view name, uint32_t id) {
  HFSPlusCatalogFolder folder{};
  folder.recordType = kHFSPlusFolderRecord;
  folder.folderID = id;
  const auto disk = toDisk(folder);
  addRecord(parentID, std::u16string(name), {disk.bytes.begin(), disk.bytes.end()});
  addThread(id, kHFSPlusFolderThreadRecord, parentID, name);
}

void MemoryCatalog::addFile(uint32_t parentID, std::u16string_view name, uint32_t id,
                            const HFSPlusForkData& data, const HFSPlusForkData& resource) {
  HFSPlusCatalogFile file{};
  file.recordType = kHFSPlusFileRecord;
  file.fileID = id;
  file.dataFork = data;
  file.resourceFork = resource;
  const auto disk = toDisk(file);
  addRecord(parentID, std::u16string(name), {disk.bytes.begin(), disk.bytes.end()});
  addThread(id, kHFSPlusFileThreadRecord, parentID, name);
}

bool MemoryCatalog::_less(const Entry& a, const Entry& b) const {
  if (a.parentID != b.parentID) {
    return a.parentID < b.parentID;
  }
  if (binaryNames) {
    return a.name < b.name;
  }
  return std::ranges::lexicographical_compare(a.name, b.name, {}, lowerCase, lowerCase);
}

std::vector<std::byte> MemoryCatalog::_keyOf(const Entry& entry) const {
  std::vector<std::byte> key;
  append(key, static_cast<uint16_t>(6 + 2 * entry.name.size()));
  append(key, entry.parentID);
  append(key, static_cast<uint16_t>(entry.name.size()));
  append(key, diskName(entry.name));
  return key;
}

void MemoryCatalog::_writeNode(uint32_t index, int8_t kind, uint8_t height, uint32_t fLink,
                               uint32_t bLink, const std::vector<std::vector<std::byte>>& records) {
  if (_image.size() < (index + 1) * nodeSize) {
    _image.resize((index + 1) * nodeSize);
  }
  const auto bytes = node(index);
  writeBigEndian(&bytes[0], fLink);
  writeBigEndian(&bytes[4], bLink);
  bytes[8] = static_cast<std::byte>(kind);
  bytes[9] = std::byte{height};
  writeBigEndian(&bytes[10], static_cast<uint16_t>(records.size()));
  size_t offset = sizeof(BTNodeDescriptor);
  size_t entry = nodeSize;
  for (const auto& record : records) {
    writeBigEndian(&bytes[entry -= 2], static_cast<uint16_t>(offset));
    std::ranges::copy(record, bytes.begin() + static_cast<ptrdiff_t>(offset));
    offset += record.size();
  }
  writeBigEndian(&bytes[entry - 2], static_cast<uint16_t>(offset));
}

std::vector<MemoryCatalog::Child> MemoryCatalog::_writeLeaves() {
  std::vector<std::vector<const Entry*>> leaves;
  size_t room = 0;
  for (const Entry& entry : _entries) {
    const size_t size = 8 + 2 * entry.name.size() + entry.data.size() + 2;
    if (leaves.empty() || size > room || leaves.back().size() == recordsPerLeaf) {
      leaves.emplace_back();
      room = nodeSize - sizeof(BTNodeDescriptor) - 2;
    }
    leaves.back().push_back(&entry);
    room -= size;
  }
  const auto count = static_cast<uint32_t>(leaves.size());
  const auto nodeOf = [&](uint32_t leaf) { return leavesBackward ? count - leaf : leaf + 1; };
  _firstLeaf = count == 0 ? 0 : nodeOf(0);
  _lastLeaf = count == 0 ? 0 : nodeOf(count - 1);
  std::vector<Child> children;
  for (uint32_t leaf = 0; leaf < count; leaf++) {
    std::vector<std::vector<std::byte>> records;
    for (const Entry* entry : leaves[leaf]) {
      _places[{entry->parentID, entry->name}] = {nodeOf(leaf),
                                                 static_cast<uint32_t>(records.size())};
      records.push_back(_keyOf(*entry));
      append(records.back(), entry->data);
    }
    _writeNode(nodeOf(leaf), kBTLeafNode, 1, leaf + 1 < count ? nodeOf(leaf + 1) : 0,
               leaf > 0 ? nodeOf(leaf - 1) : 0, records);
    children.push_back({nodeOf(leaf), leaves[leaf].front()});
  }
  _usedNodes += count;
  return children;
}

std::vector<MemoryCatalog::Child> MemoryCatalog::_writeIndexNodes(
    const std::vector<Child>& children, uint8_t height) {
  std::vector<std::vector<std::byte>> records;
  std::vector<Child> parents;
  size_t room = nodeSize - sizeof(BTNodeDescriptor) - 2;
  const auto finish = [&] {
    _writeNode(parents.back().node, kBTIndexNode, height, 0, 0, records);
    records.clear();
    room = nodeSize - sizeof(BTNodeDescriptor) - 2;
  };
  for (const Child& child : children) {
    auto record = _keyOf(*child.first);
    append(record, child.node);
    if (!records.empty() && (record.size() + 2 > room || records.size() == recordsPerIndexNode)) {
      finish();
    }
    if (records.empty()) {
      parents.push_back({_usedNodes++, child.first});
    }
    room -= record.size() + 2;
    records.push_back(std::move(record));
  }
  finish();
  return parents;
}

void MemoryCatalog::_writeHeaderNode(uint16_t depth) {
  const uint32_t total = _usedNodes + freeNodes;
  BTHeaderRec header{};
  header.treeDepth = depth;
  header.rootNode = _root;
  header.leafRecords = static_cast<uint32_t>(_entries.size());
  header.firstLeafNode = _firstLeaf;
  header.lastLeafNode = _lastLeaf;
  header.nodeSize = static_cast<uint16_t>(nodeSize);
  header.maxKeyLength = 516;
  header.totalNodes = total;
  header.freeNodes = freeNodes;
  header.keyCompareType = binaryNames ? kHFSBinaryCompare : kHFSCaseFolding;
  header.attributes = kBTBigKeysMask | 4;
  const auto disk = toDisk(header);
  std::vector<std::byte> map(nodeSize - 256);
  ASSERT_LE(total, map.size() * 8);
  for (uint32_t used = 0; used < _usedNodes; used++) {
    map[used / 8] |= std::byte{0x80} >> (used % 8);
  }
  _writeNode(0, kBTHeaderNode, 0, 0, 0,
             {{disk.bytes.begin(), disk.bytes.end()}, std::vector<std::byte>(128), map});
  _image.resize(size_t{total} * nodeSize);
}

void MemoryCatalog::build() {
  std::ranges::stable_sort(_entries,
                           [this](const Entry& a, const Entry& b) { return _less(a, b); });
  _image.resize(nodeSize);
  auto level = _writeLeaves();
  uint16_t depth = level.empty() ? 0 : 1;
  while (level.size() > 1) {
    depth++;
    level = _writeIndexNodes(level, static_cast<uint8_t>(depth));
  }
  _root = level.empty() ? 0 : level[0].node;
  _writeHeaderNode(depth);
  _header.blockSize = 512;
  _fork.logicalSize = _image.size();
  _fork.totalBlocks = static_cast<uint32_t>(_image.size() / 512);
  _fork.extents[0] = {1, _fork.totalBlocks};
}

std::span<std::byte> MemoryCatalog::node(uint32_t index) {
  return std::span(_image).subspan(size_t{index} * nodeSize, nodeSize);
}

std::span<std::byte> MemoryCatalog::record(Place place) {
  const auto bytes = node(place.node);
  const auto offset = [&](uint32_t entry) {
    return readBigEndian<uint16_t>(&bytes[nodeSize - 2 * (entry + 1)]);
  };
  return bytes.subspan(offset(place.record),
                       size_t{offset(place.record + 1)} - offset(place.record));
}

std::span<std::byte> MemoryCatalog::recordData(Place place) {
  const auto bytes = record(place);
  return bytes.subspan(2 + size_t{readBigEndian<uint16_t>(bytes.data())});
}

MemoryCatalog::Place MemoryCatalog::place(uint32_t parentID, std::u16string name) const {
  return _places.at({parentID, std::move(name)});
}

std::unique_ptr<HFSPlusCatalog> MemoryCatalog::open() {
  auto catalog = HFSPlusCatalog::open(*this);
  if (!catalog) {
    ADD_FAILURE() << catalog.error().description();
    return nullptr;
  }
  return std::move(*catalog);
}

Result<> MemoryCatalog::readVolume(std::span<std::byte> bytes, uint64_t offset) {
  _bytesRead += bytes.size();
  std::ranges::copy(std::span(_image).subspan(offset, bytes.size()), bytes.begin());
  return {};
}

const HFSPlusForkData* MemoryCatalog::hostForkData(uint32_t fileID) const {
  return fileID == kHFSCatalogFileID ? &_fork : nullptr;
}

Result<HFSPlusTranslation> MemoryCatalog::translateOffset(uint64_t offset, uint32_t, uint8_t,
                                                          const HFSPlusForkData&) {
  return HFSPlusTranslation{offset, _image.size() - offset};
}

MemoryCatalog smallTree() {
  MemoryCatalog tree;
  tree.addFolder(kHFSRootParentID, u"Disk", kHFSRootFolderID);
  tree.addFolder(2, u"Documents", 20);
  tree.addFolder(20, u"Letters", 21);
  tree.addFile(20, u"note", 22);
  tree.addFile(2, u"a/b", 23);
  tree.addFile(2, u"zoo", 24);
  return tree;
}
