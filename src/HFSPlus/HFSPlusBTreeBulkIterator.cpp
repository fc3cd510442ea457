#include "HFSPlus/HFSPlusBTreeBulkIterator.hpp"

#include <algorithm>
#include <cstring>
#include <new>

namespace {

constexpr uint32_t kChunkBytes = 0x100000;

}  // namespace

Result<std::unique_ptr<HFSPlusBTreeBulkIterator>> HFSPlusBTreeBulkIterator::open(
    HFSPlusBTreeFile& btree) {
  std::unique_ptr<HFSPlusBTreeBulkIterator> iterator(new HFSPlusBTreeBulkIterator(btree));
  if (!iterator->_bufferData || !iterator->_mapData) {
    return std::unexpected(XRDefragError::localized("Out of memory."));
  }
  TRY(iterator->_copyMap());
  btree.setNodesAtHand(iterator.get());
  return iterator;
}

// Chunks hold whole bytes of the map.
HFSPlusBTreeBulkIterator::HFSPlusBTreeBulkIterator(HFSPlusBTreeFile& btree)
    : _btree(btree),
      _nodesPerBuffer(((btree.nodeSize() - 1 + kChunkBytes) / btree.nodeSize() + 7) / 8 * 8),
      _bufferSize(uint64_t{btree.nodeSize()} * _nodesPerBuffer),
      _bufferData(PlatformAllocatePages(_bufferSize)),
      _mapSize((uint64_t{btree.nodeCount()} + 7) / 8),
      _mapData(new(std::nothrow) std::byte[_mapSize]) {}

Result<> HFSPlusBTreeBulkIterator::_copyMap() {
  std::span<std::byte> rest{_mapData.get(), _mapSize};
  TRY(_btree.visitMapRecords([&rest](HFSPlusBTreeNode& node, uint32_t record) {
    const std::span<const std::byte> map = node.recordDataAtIndex(record);
    const size_t size = std::min(map.size(), rest.size());
    std::memcpy(rest.data(), map.data(), size);
    rest = rest.subspan(size);
    return !rest.empty();
  }));
  // What a shortened chain does not tell is taken for unused.
  std::ranges::fill(rest, std::byte{0});
  return {};
}

Result<HFSPlusBTreeNodeHold> HFSPlusBTreeBulkIterator::nextCachedNode() {
  const uint32_t nodeCount = _btree.nodeCount();
  uint32_t index = _nextNodeIndex;
  while (index < nodeCount && !_isUsed(index)) {
    // A byte of unused nodes is passed in one step.
    index +=
        index % 8 == 0 && _mapData[index / 8] == std::byte{0} ? std::min(8U, nodeCount - index) : 1;
  }
  if (index >= nodeCount) {
    _nextNodeIndex = nodeCount;
    return HFSPlusBTreeNodeHold();
  }
  _nextNodeIndex = index + 1;
  if (!_chunkHolds(index)) {
    TRY(_loadChunk(index));
  }
  return _btree.cachedNodeWithIndex(index, _image(index));
}

bool HFSPlusBTreeBulkIterator::visits(uint32_t index) const {
  return index < _btree.nodeCount() && _isUsed(index);
}

bool HFSPlusBTreeBulkIterator::_isUsed(uint32_t index) const {
  return (_mapData[index / 8] & (std::byte{0x80} >> (index % 8))) != std::byte{0};
}

// A node that was written since the chunk was read may have left the cache: the chunk's image of it
// would bring back what it was before.
bool HFSPlusBTreeBulkIterator::_chunkHolds(uint32_t index) const {
  return _bufferValid && _bufferWrittenNodes == _btree.writtenNodes() &&
         index >= _bufferBaseIndex && index - _bufferBaseIndex < _nodesPerBuffer;
}

std::span<std::byte> HFSPlusBTreeBulkIterator::_image(uint32_t index) const {
  const uint64_t nodeSize = _btree.nodeSize();
  return {&_bufferData[(index - _bufferBaseIndex) * nodeSize], nodeSize};
}

std::span<const std::byte> HFSPlusBTreeBulkIterator::imageAtHand(uint32_t index) const {
  return _chunkHolds(index) ? _image(index) : std::span<std::byte>();
}

Result<> HFSPlusBTreeBulkIterator::_loadChunk(uint32_t index) {
  const uint64_t nodeSize = _btree.nodeSize();
  const uint32_t count = std::min(_nodesPerBuffer, _btree.nodeCount() - index);
  _bufferValid = false;
  _bufferBaseIndex = index;
  TRY(_btree.read({_bufferData.get(), count * nodeSize}, index * nodeSize));
  _bufferWrittenNodes = _btree.writtenNodes();
  _bufferValid = true;
  return {};
}
