#include "HFSPlus/HFSPlusBTreeFile.hpp"

#include <algorithm>
#include <bit>
#include <cstring>
#include <memory>
#include <utility>

#include "LWKit/LWDebug.hpp"

namespace {

constexpr uint32_t kMinNodeSize = 512;
constexpr uint32_t kMaxNodeSize = 32768;
constexpr uint32_t kDefaultNodeCacheBytes = 0x800000;
constexpr uint32_t kHeaderRecord = 0;  // records of the header node
constexpr uint32_t kHeaderNodeMapRecord = 2;
constexpr uint32_t kMapNodeMapRecord = 0;

XRDefragError headerError() {
  return XRDefragError::localized("B-Tree header is inconsistent.");
}

XRDefragError mapNodeError() {
  return XRDefragError::localized("B-Tree file has inconsistent map node.");
}

// One text for the counters of every tree.
XRDefragError counterError() {
  return XRDefragError::localized("Overflow extents file is inconsistent.");
}

XRDefragError outOfMemory() {
  return XRDefragError::localized("Out of memory.");
}

std::byte mapMask(uint32_t index) {
  return std::byte{0x80} >> (index % 8);
}

bool isValidHeader(const BTHeaderRec& header, uint64_t logicalSize) {
  return std::has_single_bit(header.nodeSize) && header.nodeSize >= kMinNodeSize &&
         header.nodeSize <= kMaxNodeSize && logicalSize % header.nodeSize == 0 &&
         header.freeNodes <= header.totalNodes && header.firstLeafNode <= header.totalNodes &&
         header.lastLeafNode <= header.totalNodes && (header.attributes & kBTBigKeysMask) != 0 &&
         header.totalNodes != 0 && header.totalNodes <= logicalSize / header.nodeSize;
}

}  // namespace

HFSPlusBTreeFile::~HFSPlusBTreeFile() {
  _nodeCache.evictAll();
}

// Opening

Result<> HFSPlusBTreeFile::openBTree() {
  TRY(_loadHeader());
  setNodeCacheSize(kDefaultNodeCacheBytes);
  return _loadMapRecords();
}

Result<> HFSPlusBTreeFile::discardChanges() {
  _nodeCache.forgetAll();
  _updated = false;
  ++_writtenNodes;
  // Without a header no node is in range: a tree that cannot be read again cannot be used either.
  BTHeaderRec none{};
  none.nodeSize = _hostHeaderRec.nodeSize;
  _hostHeaderRec = none;
  TRY(_loadHeader());
  return _loadMapRecords();
}

Result<> HFSPlusBTreeFile::_loadHeader() {
  _hostHeaderRec = TRY(_readHeader());
  _nodeImages = std::make_unique<HFSPlusBTreeNodeImages>(nodeSize());
  return {};
}

Result<BTHeaderRec> HFSPlusBTreeFile::_readHeader() const {
  constexpr uint32_t kHeaderBytes = sizeof(BTNodeDescriptor) + sizeof(BTHeaderRec);
  std::vector<std::byte> block(std::max(volume().blockSizeOfDevice(), kHeaderBytes));
  TRY(read(block, 0));

  const bool isHeaderNode =
      readBigEndian<uint32_t>(&block[offsetof(BTNodeDescriptor, bLink)]) == 0 &&
      static_cast<int8_t>(block[offsetof(BTNodeDescriptor, kind)]) == kBTHeaderNode &&
      block[offsetof(BTNodeDescriptor, height)] == std::byte{0};
  DiskOrder<BTHeaderRec> disk;
  std::memcpy(&disk, &block[sizeof(BTNodeDescriptor)], sizeof disk);
  const BTHeaderRec header = toHost(disk);
  if (!isHeaderNode || !isValidHeader(header, logicalSize())) {
    return std::unexpected(headerError());
  }
  return header;
}

Result<> HFSPlusBTreeFile::_loadMapRecords() {
  _freeNodeMap.clear();
  TRY(visitMapRecords([this](HFSPlusBTreeNode& node, uint32_t record) {
    const std::span<const std::byte> map = node.recordDataAtIndex(record);
    _freeNodeMap.insert(_freeNodeMap.end(), map.begin(), map.end());
    return true;
  }));
  if (_freeNodeMap.size() * 8 < nodeCount()) {
    return std::unexpected(mapNodeError());
  }
  return {};
}

Result<> HFSPlusBTreeFile::visitMapRecords(
    const std::function<bool(HFSPlusBTreeNode& node, uint32_t record)>& visit) {
  // A chain that goes in circles comes back to the anchor, which moves on at every power of two.
  uint32_t anchor = 0;
  uint64_t anchorHop = 1;
  uint32_t index = 0;
  for (uint64_t hop = 1;; ++hop) {
    HFSPlusBTreeNodeHold node = TRY(_mapNode(index));
    if (!visit(*node, index == 0 ? kHeaderNodeMapRecord : kMapNodeMapRecord)) {
      return {};
    }
    index = node->fLink();
    if (index == 0) {
      return {};
    }
    if (index == anchor) {
      return std::unexpected(mapNodeError());
    }
    if (hop == anchorHop) {
      anchor = index;
      anchorHop *= 2;
    }
  }
}

Result<HFSPlusBTreeNodeHold> HFSPlusBTreeFile::_mapNode(uint32_t index) {
  HFSPlusBTreeNode* retained = TRY(_retainNode(index));
  if (retained == nullptr) {
    return std::unexpected(index == 0 ? headerError() : mapNodeError());
  }
  HFSPlusBTreeNodeHold node(_nodeCache, *retained);
  if (index == 0) {
    if (node->kind() != kBTHeaderNode || node->recordCount() <= kHeaderNodeMapRecord ||
        node->recordSizeAtIndex(kHeaderRecord) < sizeof(BTHeaderRec)) {
      return std::unexpected(headerError());
    }
  } else if (node->kind() != kBTMapNode || node->recordCount() <= kMapNodeMapRecord) {
    return std::unexpected(mapNodeError());
  }
  return node;
}

// Nodes

Result<HFSPlusBTreeNodeHold> HFSPlusBTreeFile::cachedNodeWithIndex(uint32_t index,
                                                                   std::span<std::byte> data) {
  if (!data.empty() && !_nodeCache.contains(index)) {
    return _showNode(index, data);
  }
  HFSPlusBTreeNode* node = TRY(_retainNode(index));
  if (node == nullptr) {
    return std::unexpected(inconsistent());
  }
  return HFSPlusBTreeNodeHold(_nodeCache, *node);
}

Result<HFSPlusBTreeNode*> HFSPlusBTreeFile::_retainNode(uint32_t index) {
  if (HFSPlusBTreeNode* cached = _nodeCache.retain(index)) {
    return cached;
  }
  std::unique_ptr<HFSPlusBTreeNode> node = TRY(_blankNode(index));
  TRY(readNode(index, {node->_data.get(), node->size()}));
  return _isSound(*node) ? &_nodeCache.add(std::move(node)) : nullptr;
}

Result<HFSPlusBTreeNodeHold> HFSPlusBTreeFile::_showNode(uint32_t index,
                                                         std::span<std::byte> image) {
  LW_ASSERT(image.size() == nodeSize());
  TRY(_checkRange(index));
  auto node = HFSPlusBTreeNode::create(*this, nodeSize(), _nodeImages->show(image));
  if (!node) {
    return std::unexpected(outOfMemory());
  }
  node->_index = index;
  if (!_isSound(*node)) {
    return std::unexpected(inconsistent());
  }
  return HFSPlusBTreeNodeHold(std::move(node));
}

bool HFSPlusBTreeFile::_isSound(const HFSPlusBTreeNode& node) const {
  return node.hasSoundOffsets() && hasSoundRecords(node);
}

Result<std::unique_ptr<HFSPlusBTreeNode>> HFSPlusBTreeFile::_blankNode(uint32_t index) {
  TRY(_checkRange(index));
  std::unique_ptr<HFSPlusBTreeNode> node = _nodeCache.takeSpare();
  if (!node) {
    node = HFSPlusBTreeNode::create(*this, nodeSize(), _nodeImages->take());
  }
  if (!node) {
    return std::unexpected(outOfMemory());
  }
  node->_index = index;
  node->_dirty = false;
  return node;
}

Result<> HFSPlusBTreeFile::_checkRange(uint32_t index) const {
  if (index >= nodeCount()) {
    return std::unexpected(XRDefragError::localized("B-Tree node %1$lu is out of range.", index));
  }
  return {};
}

Result<HFSPlusBTreeNodeHold> HFSPlusBTreeFile::newNodeWithIndex(uint32_t index, int8_t kind) {
  HFSPlusBTreeNode* node = _nodeCache.retain(index);
  if (node == nullptr) {
    node = &_nodeCache.add(TRY(_blankNode(index)));
  }
  HFSPlusBTreeNodeHold hold(_nodeCache, *node);
  if (node->_cacheRetainCount > 1) {
    return std::unexpected(inconsistent());
  }
  node->setupNewNode(kind);
  return hold;
}

Result<> HFSPlusBTreeFile::readNode(uint32_t index, std::span<std::byte> image) const {
  const auto atHand =
      _nodesAtHand != nullptr ? _nodesAtHand->imageAtHand(index) : std::span<const std::byte>();
  if (!atHand.empty()) {
    std::ranges::copy(atHand, image.begin());
    return {};
  }
  return read(image, uint64_t{index} * nodeSize());
}

Result<> HFSPlusBTreeFile::writeNode(uint32_t index, std::span<const std::byte> image) {
  ++_writtenNodes;
  return write(image, uint64_t{index} * nodeSize());
}

uint32_t HFSPlusBTreeFile::nodeCacheSize() const {
  return static_cast<uint32_t>(nodeSize() * _nodeCache.nodeCacheLimit());
}

void HFSPlusBTreeFile::setNodeCacheSize(uint32_t bytes) {
  _nodeCache.setNodeCacheLimit(bytes / nodeSize());
}

Result<uint32_t> HFSPlusBTreeFile::childNodeOfRecord(std::span<const std::byte> record) const {
  if (record.size() >= 2) {
    const size_t child = size_t{2} + readBigEndian<uint16_t>(record.data());
    if (child + sizeof(uint32_t) <= record.size()) {
      return readBigEndian<uint32_t>(&record[child]);
    }
  }
  return std::unexpected(inconsistent());
}

// The map of free nodes

uint32_t HFSPlusBTreeFile::getNextFreeNodeIndex() const {
  if (freeNodes() == 0) {
    return 0;
  }
  const auto byte =
      std::ranges::find_if(_freeNodeMap, [](std::byte b) { return b != std::byte{0xFF}; });
  if (byte == _freeNodeMap.end()) {
    return 0;
  }
  const uint64_t index = static_cast<uint64_t>(byte - _freeNodeMap.begin()) * 8 +
                         static_cast<unsigned>(std::countl_one(std::to_integer<uint8_t>(*byte)));
  return index < nodeCount() ? static_cast<uint32_t>(index) : 0;
}

bool HFSPlusBTreeFile::hasFreeNodes(uint32_t count) const {
  if (freeNodes() < count) {
    return false;
  }
  for (uint64_t index = 0; count > 0 && index < nodeCount(); index += 8) {
    const unsigned nodes = static_cast<unsigned>(std::min<uint64_t>(8, nodeCount() - index));
    const uint8_t used =
        std::to_integer<uint8_t>(_freeNodeMap[index / 8] | std::byte{0xFF} >> nodes);
    count -= std::min<uint32_t>(count, static_cast<uint32_t>(std::popcount(uint8_t(~used))));
  }
  return count == 0;
}

void HFSPlusBTreeFile::markNodeAsUsed(uint32_t index) {
  LW_ASSERT(index < nodeCount());
  _freeNodeMap[index / 8] |= mapMask(index);
  if (_hostHeaderRec.freeNodes > 0) {
    --_hostHeaderRec.freeNodes;
  }
  _updated = true;
}

void HFSPlusBTreeFile::markNodeAsFree(uint32_t index) {
  LW_ASSERT(index < nodeCount());
  HFSPlusBTreeNode* node = _nodeCache.retain(index);
  if (node == nullptr) {
    if (auto blank = _blankNode(index)) {
      node = &_nodeCache.add(*std::move(blank));
    }
  }
  if (node != nullptr) {
    node->clear();
    _nodeCache.release(*node);
  }
  _freeNodeMap[index / 8] &= ~mapMask(index);
  if (_hostHeaderRec.freeNodes < nodeCount()) {
    ++_hostHeaderRec.freeNodes;
  }
  _updated = true;
}

// Header changes

void HFSPlusBTreeFile::setFirstLeafNode(uint32_t index) {
  _hostHeaderRec.firstLeafNode = index;
  _updated = true;
}

void HFSPlusBTreeFile::setLastLeafNode(uint32_t index) {
  _hostHeaderRec.lastLeafNode = index;
  _updated = true;
}

void HFSPlusBTreeFile::setEmptyTree() {
  _hostHeaderRec.treeDepth = 0;
  _hostHeaderRec.rootNode = 0;
  _hostHeaderRec.leafRecords = 0;
  setFirstLeafNode(0);
  setLastLeafNode(0);
}

void HFSPlusBTreeFile::setFirstRoot(uint32_t index) {
  _hostHeaderRec.treeDepth = 1;
  _hostHeaderRec.rootNode = index;
  _hostHeaderRec.leafRecords = 0;
  setFirstLeafNode(index);
  setLastLeafNode(index);
}

Result<> HFSPlusBTreeFile::incrementLeafRecordCount() {
  if (_hostHeaderRec.leafRecords == UINT32_MAX) {
    return std::unexpected(counterError());
  }
  ++_hostHeaderRec.leafRecords;
  _updated = true;
  return {};
}

Result<> HFSPlusBTreeFile::decrementLeafRecordCount() {
  if (_hostHeaderRec.leafRecords == 0) {
    return std::unexpected(counterError());
  }
  --_hostHeaderRec.leafRecords;
  _updated = true;
  return {};
}

Result<> HFSPlusBTreeFile::incrementTreeDepth(uint32_t newRoot) {
  if (_hostHeaderRec.treeDepth >= nodeCount() || _hostHeaderRec.treeDepth == UINT16_MAX) {
    return std::unexpected(counterError());
  }
  ++_hostHeaderRec.treeDepth;
  _hostHeaderRec.rootNode = newRoot;
  _updated = true;
  return {};
}

Result<> HFSPlusBTreeFile::decrementTreeDepth(uint32_t newRoot) {
  if (_hostHeaderRec.treeDepth < 2) {
    return std::unexpected(counterError());
  }
  --_hostHeaderRec.treeDepth;
  _hostHeaderRec.rootNode = newRoot;
  _updated = true;
  return {};
}

// Writing back

Result<> HFSPlusBTreeFile::flush() {
  Result<> result;
  if (_updated) {
    result = _updateHeaderAndMapRecords();
    if (result) {
      _updated = false;
    } else {
      LWDebugLog(LWDebugLevel::Warning, "%@\n", result.error().description());
    }
  }
  for (HFSPlusBTreeNode* node : _nodeCache.dirtyNodes()) {
    Result<> written = node->flush();
    if (result && !written) {
      result = std::move(written);
    }
  }
  return result;
}

Result<> HFSPlusBTreeFile::_updateHeaderAndMapRecords() {
  std::span<const std::byte> map = _freeNodeMap;
  return visitMapRecords([&](HFSPlusBTreeNode& node, uint32_t record) {
    const auto updateRecord = [&node](uint32_t index, std::span<const std::byte> bytes) {
      if (!std::ranges::equal(node.recordDataAtIndex(index).first(bytes.size()), bytes)) {
        std::ranges::copy(bytes, node.mutableRecordDataAtIndex(index).begin());
      }
    };
    if (node.index() == 0) {
      updateRecord(kHeaderRecord, toDisk(_hostHeaderRec).bytes);
    }
    const size_t size = std::min<size_t>(node.recordSizeAtIndex(record), map.size());
    updateRecord(record, map.first(size));
    map = map.subspan(size);
    return true;
  });
}
