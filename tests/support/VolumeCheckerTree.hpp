#pragma once

#include <functional>
#include <string>
#include <vector>

#include "support/VolumeCheckerState.hpp"

namespace volumecheck {

struct TreeHeader {
  std::uint16_t treeDepth = 0;
  std::uint32_t rootNode = 0, leafRecords = 0, firstLeafNode = 0, lastLeafNode = 0;
  std::uint16_t nodeSize = 0, maxKeyLength = 0;
  std::uint32_t totalNodes = 0, freeNodes = 0, clumpSize = 0, attributes = 0;
  std::uint8_t btreeType = 0, keyCompareType = 0;
};

// What one kind of tree demands beyond the rules for all.
struct TreeRules {
  std::string name;  // "catalog"
  std::uint16_t maxKeyLength = 0;
  std::uint16_t minNodeSize = 512;
  std::uint16_t minKeyLength = 0;
  bool variableIndexKeys = false;
  std::uint8_t btreeType = 0;
  // Negative, zero or positive. Keys come with their length word.
  std::function<int(Bytes, Bytes)> compare;
};

// Walks a B-tree level by level from its root and checks everything that holds for every B-tree.
// The tree's user gets each leaf record once, in key order.
class VolumeCheckerTree {
 public:
  using LeafVisitor = std::function<void(Bytes key, Bytes data, std::uint32_t node)>;

  VolumeCheckerTree(VolumeCheckerState& state, const Fork& fork, TreeRules rules);

  // Reads the header node and the map. False when the tree cannot be walked.
  bool open();
  const TreeHeader& header() const { return _header; }
  // The header node's user data record.
  Bytes userData() const { return sliceOf(_headerNode, 120, 128); }
  void setCompare(std::function<int(Bytes, Bytes)> compare) { _rules.compare = std::move(compare); }
  // Walks the tree, then checks counts, map and unused nodes.
  void walk(const LeafVisitor& visitor);
  TreeTruth truth() const;

 private:
  using Node = std::vector<std::uint8_t>;
  struct NodeVisit {
    std::uint32_t index = 0;
    std::vector<std::uint8_t> indexKey;  // the parent's key for it; empty for the root
  };

  void _readHeaderRecord();
  bool _checkHeaderSizes();
  void _checkHeaderFields();
  void _checkHeaderOffsets();
  void _readMap();
  bool _appendMapNode(std::uint32_t index, std::uint32_t previous, std::uint32_t& next);
  bool _readNode(std::uint32_t index, Node& node);
  bool _isMarked(std::uint32_t index) const;
  bool _reach(std::uint32_t index);
  std::vector<NodeVisit> _walkLevel(const std::vector<NodeVisit>& level, unsigned height,
                                    const LeafVisitor& visitor);
  bool _checkDescriptor(Bytes node, std::uint32_t index, unsigned height);
  void _checkLinks(Bytes node, const std::vector<NodeVisit>& level, std::size_t at);
  // The offsets of all records and of the free space; empty when they are unusable.
  std::vector<std::size_t> _recordOffsets(Bytes node, std::uint32_t index);
  // The record's key with its length word; empty when it is malformed.
  Bytes _keyOf(Bytes record, std::uint32_t index, std::size_t number, bool isLeaf);
  void _walkIndexRecord(Bytes record, Bytes key, std::uint32_t index, std::size_t number,
                        std::vector<NodeVisit>& children);
  void _checkLeafTotals(const std::vector<NodeVisit>& leaves);
  void _checkMapAgainstReached();

  VolumeCheckerState& _state;
  VolumeCheckerForkReader _reader;
  std::uint64_t _logicalSize;
  TreeRules _rules;
  TreeHeader _header;
  Node _headerNode;
  std::vector<std::uint8_t> _map;
  std::vector<bool> _reached;
  std::uint64_t _leafRecords = 0;
  // The last key of the level walked so far.
  std::vector<std::uint8_t> _previousKey;
};

}  // namespace volumecheck
