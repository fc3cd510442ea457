#include "support/VolumeCheckerTree.hpp"

#include <bit>
#include <utility>

namespace volumecheck {

namespace {

constexpr std::size_t kDescriptorSize = 14;
constexpr std::uint32_t kAttributeBadClose = 0x1;
constexpr std::uint32_t kAttributeBigKeys = 0x2;
constexpr std::uint32_t kAttributeVariableIndexKeys = 0x4;
constexpr std::uint32_t kUnusedNodesZeroed = 0x80000000;

constexpr int kLeafNode = -1;
constexpr int kIndexNode = 0;
constexpr int kHeaderNode = 1;
constexpr int kMapNode = 2;

int kindOf(Bytes node) {
  return static_cast<std::int8_t>(u8At(node, 8));
}

}  // namespace

VolumeCheckerTree::VolumeCheckerTree(VolumeCheckerState& state, const Fork& fork, TreeRules rules)
    : _state(state),
      _reader(state.readerOf(fork)),
      _logicalSize(fork.logicalSize),
      _rules(std::move(rules)) {}

bool VolumeCheckerTree::open() {
  _headerNode.resize(512);
  if (_logicalSize < 512 || !_reader.read(0, _headerNode)) {
    _state.log.add(FindingKind::TreeHeader, "The %s's header node cannot be read.",
                   _rules.name.c_str());
    return false;
  }
  _readHeaderRecord();
  if (!_checkHeaderSizes()) {
    return false;
  }
  _reached.assign(_header.totalNodes, false);
  if (!_readNode(0, _headerNode)) {
    return false;
  }
  _checkHeaderFields();
  _checkHeaderOffsets();
  _readMap();
  return true;
}

void VolumeCheckerTree::_readHeaderRecord() {
  const Bytes record = sliceOf(_headerNode, kDescriptorSize, 106);
  _header.treeDepth = u16At(record, 0);
  _header.rootNode = u32At(record, 2);
  _header.leafRecords = u32At(record, 6);
  _header.firstLeafNode = u32At(record, 10);
  _header.lastLeafNode = u32At(record, 14);
  _header.nodeSize = u16At(record, 18);
  _header.maxKeyLength = u16At(record, 20);
  _header.totalNodes = u32At(record, 22);
  _header.freeNodes = u32At(record, 26);
  _header.clumpSize = u32At(record, 32);
  _header.btreeType = u8At(record, 36);
  _header.keyCompareType = u8At(record, 37);
  _header.attributes = u32At(record, 38);
}

// What must hold before a single node can be looked at.
bool VolumeCheckerTree::_checkHeaderSizes() {
  const char* name = _rules.name.c_str();
  if (!std::has_single_bit(_header.nodeSize) || _header.nodeSize < 512 ||
      _header.nodeSize > 32768) {
    _state.log.add(FindingKind::TreeHeader, "The %s's node size is %u.", name, _header.nodeSize);
    return false;
  }
  const std::uint64_t size = std::uint64_t{_header.totalNodes} * _header.nodeSize;
  if (size != _logicalSize) {
    _state.log.add(
        FindingKind::TreeFileSize, "The %s has %u nodes of %u bytes, its file %llu bytes.", name,
        _header.totalNodes, _header.nodeSize, static_cast<unsigned long long>(_logicalSize));
  }
  // Later steps count nodes, so there may be no more of them than the fork has room for.
  const std::uint64_t room = std::min(_logicalSize, _reader.mappedSize()) / _header.nodeSize;
  _header.totalNodes =
      static_cast<std::uint32_t>(std::min<std::uint64_t>(_header.totalNodes, room));
  if (_header.totalNodes == 0) {
    _state.log.add(FindingKind::TreeHeader, "The %s has no nodes.", name);
    return false;
  }
  return true;
}

void VolumeCheckerTree::_checkHeaderFields() {
  const auto demand = [this](bool holds, const char* what, unsigned long long value) {
    if (!holds) {
      _state.log.add(FindingKind::TreeHeader, "The %s's header has %s %llu.", _rules.name.c_str(),
                     what, value);
    }
  };
  const Bytes node = _headerNode;
  demand(kindOf(node) == kHeaderNode, "node kind", u8At(node, 8));
  demand(u8At(node, 9) == 0, "node height", u8At(node, 9));
  demand(u32At(node, 4) == 0, "a backward link", u32At(node, 4));
  demand(u16At(node, 12) == 0, "a reserved word", u16At(node, 12));
  demand(_header.nodeSize >= _rules.minNodeSize, "a node size of only", _header.nodeSize);
  demand(_header.maxKeyLength == _rules.maxKeyLength, "a maximal key length of",
         _header.maxKeyLength);
  demand(_header.btreeType == _rules.btreeType, "tree type", _header.btreeType);
  demand((_header.attributes & kAttributeBadClose) == 0, "the badly closed mark in attributes",
         _header.attributes);
  demand((_header.attributes & kAttributeBigKeys) != 0, "no big keys in attributes",
         _header.attributes);
  const bool variable = (_header.attributes & kAttributeVariableIndexKeys) != 0;
  demand(variable == _rules.variableIndexKeys, "the wrong kind of index keys in attributes",
         _header.attributes);
  demand((_header.attributes & ~7U) == 0, "unknown attributes", _header.attributes);
  demand(_header.rootNode < _header.totalNodes, "root node", _header.rootNode);
  demand(_header.firstLeafNode < _header.totalNodes, "first leaf node", _header.firstLeafNode);
  demand(_header.lastLeafNode < _header.totalNodes, "last leaf node", _header.lastLeafNode);
  demand(_header.freeNodes < _header.totalNodes, "free nodes", _header.freeNodes);
  const bool empty = _header.rootNode == 0;
  demand(empty == (_header.treeDepth == 0), "a root that does not fit depth", _header.treeDepth);
  demand(allZero(sliceOf(node, 56, 64)), "reserved bytes that are not zero, node", 0);
}

void VolumeCheckerTree::_checkHeaderOffsets() {
  const std::size_t size = _header.nodeSize;
  const std::size_t expected[] = {14, 120, 248, size - 8};
  if (u16At(_headerNode, 10) != 3) {
    _state.log.add(FindingKind::TreeRecordOffsets, "The %s's header node has %u records, not 3.",
                   _rules.name.c_str(), u16At(_headerNode, 10));
  }
  for (std::size_t i = 0; i < 4; ++i) {
    const std::size_t found = u16At(_headerNode, size - 2 * (i + 1));
    if (found != expected[i]) {
      _state.log.add(FindingKind::TreeRecordOffsets,
                     "The %s's header node has record %zu at offset %zu instead of %zu.",
                     _rules.name.c_str(), i, found, expected[i]);
    }
  }
}

void VolumeCheckerTree::_readMap() {
  const Bytes headerMap = sliceOf(_headerNode, 248, _header.nodeSize - 256U);
  _map.assign(headerMap.begin(), headerMap.end());
  _reached[0] = true;
  std::uint32_t previous = 0;
  std::uint32_t next = u32At(_headerNode, 0);
  while (next != 0) {
    const std::uint32_t index = next;
    if (!_appendMapNode(index, previous, next)) {
      break;
    }
    previous = index;
  }
  const std::uint64_t bits = std::uint64_t{_map.size()} * 8;
  if (bits < _header.totalNodes) {
    _state.log.add(FindingKind::TreeMapNode, "The %s's map has %llu bits for %u nodes.",
                   _rules.name.c_str(), static_cast<unsigned long long>(bits), _header.totalNodes);
  }
  for (std::uint64_t bit = _header.totalNodes; bit < bits; ++bit) {
    if (_isMarked(static_cast<std::uint32_t>(bit))) {
      _state.log.add(FindingKind::TreeMapTail, "The %s's map marks node %llu, but has %u nodes.",
                     _rules.name.c_str(), static_cast<unsigned long long>(bit), _header.totalNodes);
      break;
    }
  }
}

bool VolumeCheckerTree::_appendMapNode(std::uint32_t index, std::uint32_t previous,
                                       std::uint32_t& next) {
  Node node;
  if (!_reach(index) || !_readNode(index, node)) {
    return false;
  }
  const std::size_t size = _header.nodeSize;
  const bool shaped = kindOf(node) == kMapNode && u8At(node, 9) == 0 && u16At(node, 10) == 1 &&
                      u16At(node, 12) == 0 && u16At(node, size - 2) == kDescriptorSize &&
                      u16At(node, size - 4) == size - 6;
  const std::uint32_t backward = u32At(node, 4);
  if (!shaped || (backward != 0 && backward != previous)) {
    _state.log.add(FindingKind::TreeMapNode, "The %s's node %u is not a well-formed map node.",
                   _rules.name.c_str(), index);
  }
  if (kindOf(node) != kMapNode) {
    return false;
  }
  const Bytes record = sliceOf(node, kDescriptorSize, size - 20);
  _map.insert(_map.end(), record.begin(), record.end());
  next = u32At(node, 0);
  return true;
}

bool VolumeCheckerTree::_readNode(std::uint32_t index, Node& node) {
  node.resize(_header.nodeSize);
  if (!_reader.read(std::uint64_t{index} * _header.nodeSize, node)) {
    _state.log.add(FindingKind::ReadFailed, "The %s's node %u cannot be read.", _rules.name.c_str(),
                   index);
    return false;
  }
  return true;
}

bool VolumeCheckerTree::_isMarked(std::uint32_t index) const {
  return index / 8 < _map.size() && (_map[index / 8] & (0x80 >> (index % 8))) != 0;
}

bool VolumeCheckerTree::_reach(std::uint32_t index) {
  if (index == 0 || index >= _header.totalNodes) {
    _state.log.add(FindingKind::TreeChildPointer, "The %s refers to node %u of %u.",
                   _rules.name.c_str(), index, _header.totalNodes);
    return false;
  }
  if (_reached[index]) {
    _state.log.add(FindingKind::TreeNodeReachedTwice, "The %s's node %u is reached twice.",
                   _rules.name.c_str(), index);
    return false;
  }
  _reached[index] = true;
  return true;
}

void VolumeCheckerTree::walk(const LeafVisitor& visitor) {
  std::vector<NodeVisit> level;
  if (_header.rootNode != 0 && _reach(_header.rootNode)) {
    level.push_back({_header.rootNode, {}});
    Node root;
    unsigned height = _header.treeDepth;
    if (_readNode(_header.rootNode, root) && u8At(root, 9) != height) {
      _state.log.add(FindingKind::TreeDepth, "The %s's depth is %u, its root's height %u.",
                     _rules.name.c_str(), height, u8At(root, 9));
      height = u8At(root, 9);
    }
    for (; height > 1; --height) {
      level = _walkLevel(level, height, visitor);
    }
    _walkLevel(level, 1, visitor);
  }
  _checkLeafTotals(level);
  _checkMapAgainstReached();
}

std::vector<VolumeCheckerTree::NodeVisit> VolumeCheckerTree::_walkLevel(
    const std::vector<NodeVisit>& level, unsigned height, const LeafVisitor& visitor) {
  std::vector<NodeVisit> children;
  _previousKey.clear();
  const bool isLeaf = height == 1;
  Node node;
  for (std::size_t at = 0; at < level.size(); ++at) {
    const std::uint32_t index = level[at].index;
    if (!_readNode(index, node) || !_checkDescriptor(node, index, height)) {
      continue;
    }
    _checkLinks(node, level, at);
    const std::vector<std::size_t> offsets = _recordOffsets(node, index);
    for (std::size_t i = 0; i + 1 < offsets.size(); ++i) {
      const Bytes record = sliceOf(node, offsets[i], offsets[i + 1] - offsets[i]);
      const Bytes key = _keyOf(record, index, i, isLeaf);
      if (key.empty()) {
        continue;
      }
      if (i == 0 && !level[at].indexKey.empty() &&
          !std::equal(key.begin(), key.end(), level[at].indexKey.begin(),
                      level[at].indexKey.end())) {
        _state.log.add(FindingKind::TreeIndexKey,
                       "The %s's node %u does not begin with the key its parent has for it.",
                       _rules.name.c_str(), index);
      }
      if (!_previousKey.empty() && _rules.compare(_previousKey, key) >= 0) {
        _state.log.add(FindingKind::TreeKeyOrder,
                       "The %s's node %u has record %zu not above the record before it.",
                       _rules.name.c_str(), index, i);
      }
      _previousKey.assign(key.begin(), key.end());
      if (isLeaf) {
        ++_leafRecords;
        visitor(key, sliceOf(record, key.size() + key.size() % 2, record.size()), index);
      } else {
        _walkIndexRecord(record, key, index, i, children);
      }
    }
  }
  return children;
}

bool VolumeCheckerTree::_checkDescriptor(Bytes node, std::uint32_t index, unsigned height) {
  const int wanted = height == 1 ? kLeafNode : kIndexNode;
  if (u16At(node, 12) != 0) {
    _state.log.add(FindingKind::TreeNodeReserved, "The %s's node %u has a reserved word of %u.",
                   _rules.name.c_str(), index, u16At(node, 12));
  }
  if (u8At(node, 9) != height) {
    _state.log.add(FindingKind::TreeNodeHeight, "The %s's node %u has height %u instead of %u.",
                   _rules.name.c_str(), index, u8At(node, 9), height);
  }
  if (kindOf(node) != wanted) {
    _state.log.add(FindingKind::TreeNodeKind, "The %s's node %u has kind %d instead of %d.",
                   _rules.name.c_str(), index, kindOf(node), wanted);
    return false;
  }
  return true;
}

void VolumeCheckerTree::_checkLinks(Bytes node, const std::vector<NodeVisit>& level,
                                    std::size_t at) {
  const std::uint32_t before = at > 0 ? level[at - 1].index : 0;
  const std::uint32_t after = at + 1 < level.size() ? level[at + 1].index : 0;
  if (u32At(node, 0) != after) {
    _state.log.add(FindingKind::TreeLinks, "The %s's node %u links forward to %u instead of %u.",
                   _rules.name.c_str(), level[at].index, u32At(node, 0), after);
  }
  if (u32At(node, 4) != before) {
    _state.log.add(FindingKind::TreeLinks, "The %s's node %u links backward to %u instead of %u.",
                   _rules.name.c_str(), level[at].index, u32At(node, 4), before);
  }
}

std::vector<std::size_t> VolumeCheckerTree::_recordOffsets(Bytes node, std::uint32_t index) {
  const std::size_t count = u16At(node, 10);
  if (count == 0) {
    _state.log.add(FindingKind::TreeEmptyNode, "The %s's node %u has no records.",
                   _rules.name.c_str(), index);
  }
  if (count > (node.size() - kDescriptorSize) / 2 - 1) {
    _state.log.add(FindingKind::TreeRecordOffsets, "The %s's node %u claims %zu records.",
                   _rules.name.c_str(), index, count);
    return {};
  }
  const std::size_t tableStart = node.size() - 2 * (count + 1);
  std::vector<std::size_t> offsets;
  for (std::size_t i = 0; i <= count; ++i) {
    const std::size_t offset = u16At(node, node.size() - 2 * (i + 1));
    const bool starts = i > 0 || offset == kDescriptorSize;
    if (!starts || offset % 2 != 0 || offset > tableStart || (i > 0 && offset <= offsets.back())) {
      _state.log.add(FindingKind::TreeRecordOffsets,
                     "The %s's node %u has record %zu of %zu at offset %zu.", _rules.name.c_str(),
                     index, i, count, offset);
      return {};
    }
    offsets.push_back(offset);
  }
  return offsets;
}

Bytes VolumeCheckerTree::_keyOf(Bytes record, std::uint32_t index, std::size_t number,
                                bool isLeaf) {
  const std::size_t length = u16At(record, 0);
  if (length < _rules.minKeyLength || length > _header.maxKeyLength || length + 2 > record.size()) {
    _state.log.add(FindingKind::TreeKey,
                   "The %s's node %u has a key of %zu bytes in record %zu of %zu bytes.",
                   _rules.name.c_str(), index, length, number, record.size());
    return {};
  }
  if (!isLeaf) {
    // A tree without variable index keys gives every key the greatest room.
    const std::size_t room = _rules.variableIndexKeys ? length : _header.maxKeyLength;
    const std::size_t wanted = 2 + room + room % 2 + 4;
    if (record.size() != wanted) {
      _state.log.add(FindingKind::TreeRecordSize,
                     "The %s's node %u has an index record %zu of %zu bytes instead of %zu.",
                     _rules.name.c_str(), index, number, record.size(), wanted);
      return {};
    }
  }
  return record.first(length + 2);
}

void VolumeCheckerTree::_walkIndexRecord(Bytes record, Bytes key, std::uint32_t index,
                                         std::size_t number, std::vector<NodeVisit>& children) {
  const std::uint32_t child = u32At(record, record.size() - 4);
  if (child >= _header.totalNodes || child == 0) {
    _state.log.add(FindingKind::TreeChildPointer, "The %s's node %u has child %u in record %zu.",
                   _rules.name.c_str(), index, child, number);
  } else if (_reach(child)) {
    children.push_back({child, {key.begin(), key.end()}});
  }
}

void VolumeCheckerTree::_checkLeafTotals(const std::vector<NodeVisit>& leaves) {
  if (_leafRecords != _header.leafRecords) {
    _state.log.add(FindingKind::TreeLeafRecords, "The %s counts %u leaf records, there are %llu.",
                   _rules.name.c_str(), _header.leafRecords,
                   static_cast<unsigned long long>(_leafRecords));
  }
  const std::uint32_t first = leaves.empty() ? 0 : leaves.front().index;
  const std::uint32_t last = leaves.empty() ? 0 : leaves.back().index;
  if (_header.firstLeafNode != first || _header.lastLeafNode != last) {
    _state.log.add(FindingKind::TreeFirstLastLeaf,
                   "The %s names leaves %u to %u, but they go from %u to %u.", _rules.name.c_str(),
                   _header.firstLeafNode, _header.lastLeafNode, first, last);
  }
}

void VolumeCheckerTree::_checkMapAgainstReached() {
  const bool mustBeZero = (_state.truth.header.attributes & kUnusedNodesZeroed) != 0;
  std::uint32_t freeNodes = 0;
  Node node;
  for (std::uint32_t index = 0; index < _header.totalNodes; ++index) {
    const bool marked = _isMarked(index);
    freeNodes += marked ? 0 : 1;
    if (_reached[index] && !marked) {
      _state.log.add(FindingKind::TreeNodeNotInMap, "The %s's node %u is used, but marked free.",
                     _rules.name.c_str(), index);
    } else if (!_reached[index] && marked) {
      _state.log.add(FindingKind::TreeMapNodeUnreached,
                     "The %s's node %u is marked used, but nothing leads to it.",
                     _rules.name.c_str(), index);
    } else if (!marked && mustBeZero &&
               !_reader.isHole(std::uint64_t{index} * _header.nodeSize, _header.nodeSize) &&
               _readNode(index, node) && !allZero(node)) {
      _state.log.add(FindingKind::TreeUnusedNodeNotZero,
                     "The %s's unused node %u is not all zeros.", _rules.name.c_str(), index);
    }
  }
  if (freeNodes != _header.freeNodes) {
    _state.log.add(FindingKind::TreeFreeNodes, "The %s counts %u free nodes, its map has %u.",
                   _rules.name.c_str(), _header.freeNodes, freeNodes);
  }
}

TreeTruth VolumeCheckerTree::truth() const {
  return {_header.nodeSize, _header.totalNodes, _header.freeNodes, _header.leafRecords,
          _header.treeDepth};
}

}  // namespace volumecheck
