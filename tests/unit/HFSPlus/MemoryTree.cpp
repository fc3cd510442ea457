#include "unit/HFSPlus/MemoryTree.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "HFSPlus/HFSPlusByteOrder.hpp"

namespace {

constexpr uint32_t kHeaderNodeMapOffset = 248;
constexpr uint32_t kMapNodeMapOffset = sizeof(BTNodeDescriptor);

uint32_t headerNodeMapBytes(uint32_t nodeSize) {
  return nodeSize - kHeaderNodeMapOffset - 8;
}

// A map node's record keeps two bytes clear of the offset table, as the format lays it out.
uint32_t mapNodeMapBytes(uint32_t nodeSize) {
  return nodeSize - kMapNodeMapOffset - 6;
}

void setOffsets(std::span<std::byte> node, std::initializer_list<uint32_t> offsets) {
  size_t at = node.size();
  for (const uint32_t offset : offsets) {
    at -= 2;
    writeBigEndian(&node[at], static_cast<uint16_t>(offset));
  }
}

}  // namespace

MemoryTreeVolume::MemoryTreeVolume(uint32_t fileID, uint32_t nodeSize, uint32_t totalNodes)
    : _fileID(fileID), _nodeSize(nodeSize), _bytes(size_t{nodeSize} * totalNodes) {
  _header.blockSize = 512;
  _forkData.logicalSize = _bytes.size();
  _forkData.totalBlocks = static_cast<uint32_t>(_bytes.size() / 512);
  _forkData.extents[0] = {1, _forkData.totalBlocks};

  const std::span<std::byte> header = node(0);
  header[8] = std::byte{kBTHeaderNode};
  writeBigEndian<uint16_t>(&header[10], 3);
  setOffsets(header, {14, 120, kHeaderNodeMapOffset, nodeSize - 8});

  uint32_t mapNodes = 0;
  for (uint64_t bits = uint64_t{headerNodeMapBytes(nodeSize)} * 8; bits < totalNodes;
       bits += uint64_t{mapNodeMapBytes(nodeSize)} * 8) {
    const uint32_t index = ++mapNodes;
    writeBigEndian<uint32_t>(node(index - 1).data(), index);
    const std::span<std::byte> map = node(index);
    map[8] = std::byte{kBTMapNode};
    writeBigEndian<uint16_t>(&map[10], 1);
    setOffsets(map, {kMapNodeMapOffset, nodeSize - 6});
  }
  editHeader([&](BTHeaderRec& record) {
    record.nodeSize = static_cast<uint16_t>(nodeSize);
    record.maxKeyLength = 10;
    record.totalNodes = totalNodes;
    record.freeNodes = totalNodes - 1 - mapNodes;
    record.attributes = kBTBigKeysMask;
  });
  for (uint32_t index = 0; index <= mapNodes; ++index) {
    setUsed(index, true);
  }
}

std::byte& MemoryTreeVolume::_mapByte(uint32_t index) {
  uint32_t byte = index / 8;
  if (byte < headerNodeMapBytes(_nodeSize)) {
    return _bytes[kHeaderNodeMapOffset + byte];
  }
  byte -= headerNodeMapBytes(_nodeSize);
  const uint32_t mapNode = 1 + byte / mapNodeMapBytes(_nodeSize);
  return node(mapNode)[kMapNodeMapOffset + byte % mapNodeMapBytes(_nodeSize)];
}

void MemoryTreeVolume::setUsed(uint32_t index, bool used) {
  const std::byte mask = std::byte{0x80} >> (index % 8);
  if (used) {
    _mapByte(index) |= mask;
  } else {
    _mapByte(index) &= ~mask;
  }
}

std::vector<uint32_t> MemoryTreeVolume::heldNodes() const {
  std::vector<uint32_t> nodes;
  for (const auto& [key, bytes] : _heldWrites.pieces()) {
    EXPECT_EQ(key.fileID, _fileID);
    EXPECT_EQ(bytes.size(), _nodeSize);
    EXPECT_EQ(key.offset % _nodeSize, 0U);
    nodes.push_back(static_cast<uint32_t>(key.offset / _nodeSize));
  }
  return nodes;
}

std::vector<uint32_t> MemoryTreeVolume::writeHeld() {
  std::vector<uint32_t> nodes = heldNodes();
  for (const auto& [key, bytes] : _heldWrites.pieces()) {
    std::ranges::copy(bytes, &_bytes.at(key.offset));
  }
  _heldWrites.clear();
  return nodes;
}

Result<> MemoryTreeVolume::readVolume(std::span<std::byte> bytes, uint64_t offset) {
  reads.push_back({offset, bytes.size()});
  const auto unreadable = unreadableNodes.lower_bound(offset / _nodeSize);
  if (unreadable != unreadableNodes.end() && *unreadable * _nodeSize < offset + bytes.size()) {
    return std::unexpected(XRDefragError::localized("Read failure."));
  }
  if (offset > _bytes.size() || bytes.size() > _bytes.size() - offset) {
    return std::unexpected(XRDefragError::localized("Read beyond the volume."));
  }
  std::memcpy(bytes.data(), &_bytes[offset], bytes.size());
  return {};
}

Result<HFSPlusTranslation> MemoryTreeVolume::translateOffset(uint64_t offset, uint32_t fileID,
                                                             uint8_t, const HFSPlusForkData&) {
  if (fileID != _fileID || offset >= _bytes.size()) {
    return std::unexpected(XRDefragError::localized(
        "Offset %1$llu is out of range for file ID %2$lu.", offset, fileID));
  }
  return HFSPlusTranslation{offset, _bytes.size() - offset};
}

std::unique_ptr<PlainTree> openPlainTree(MemoryTreeVolume& volume) {
  auto tree = PlainTree::open(volume, kHFSCatalogFileID);
  if (!tree) {
    ADD_FAILURE() << tree.error().description();
    return nullptr;
  }
  return *std::move(tree);
}
