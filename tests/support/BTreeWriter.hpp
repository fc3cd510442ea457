#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

#include "support/ByteWriter.hpp"
#include "support/VolumeDescription.hpp"

namespace support {

/// The records of a tree in key order. Sizes are even, as records are padded to even bytes.
class RecordSource {
 public:
  virtual ~RecordSource() = default;
  virtual size_t count() const = 0;
  /// Bytes of record `index`'s key, its length word included.
  virtual size_t keySize(size_t index) const = 0;
  /// Bytes of the whole record, key included.
  virtual size_t recordSize(size_t index) const = 0;
  /// Writes the record, key first, into recordSize() bytes.
  virtual void write(size_t index, std::span<std::byte> into) const = 0;
};

/// What a tree's header record says of its kind, and how its nodes are packed and numbered.
struct TreeKind {
  uint32_t nodeSize = 4096;
  uint16_t maxKeyLength = 0;
  uint8_t btreeType = 0;
  uint8_t keyCompareType = 0;
  uint32_t attributes = kTreeBigKeys;
  uint32_t clumpSize = 0;
  double fill = 1.0;
  NodeOrder order = NodeOrder::packed;
  bool junkInFreeNodes = false;
  uint64_t seed = 0;
  /// Contents of the header node's second record, which most trees leave empty.
  Bytes userRecord;
};

/// Builds a B-tree bottom-up from sorted records, in one pass over the leaves and one over each
/// index level. Only the first record of every node is remembered, so that trees of millions of
/// records stream to the disk.
class BTreeWriter {
 public:
  using NodeSink = std::function<void(uint32_t node, std::span<const std::byte> bytes)>;

  /// Plans the nodes. `source` must outlive the writer and not change in size.
  BTreeWriter(const RecordSource& source, TreeKind kind);

  /// Nodes of all levels, without the header node and map nodes.
  uint32_t usedNodes() const { return _usedNodes; }

  /// The smallest number of nodes, at least `wanted`, that holds the tree with its map and makes
  /// the file's length a multiple of `blockSize`.
  uint32_t totalNodesFor(uint32_t wanted, uint32_t blockSize) const;

  /// Hands every node that is not all zeros to the sink.
  void write(uint32_t totalNodes, const NodeSink& sink) const;

  uint32_t nodeSize() const { return _kind.nodeSize; }

 private:
  // The index of the first record (leaves) or first child (index levels) of every node of a level.
  using Level = std::vector<size_t>;

  void planLevels();
  size_t indexRecordSize(size_t level, size_t child) const;
  size_t firstRecordBelow(size_t level, size_t node) const;
  uint32_t mapNodesFor(uint64_t totalNodes) const;
  std::vector<uint32_t> nodeNumbers(uint32_t totalNodes) const;
  void writeLevel(size_t level, const std::vector<uint32_t>& numbers, const NodeSink& sink) const;
  void writeHeader(uint32_t totalNodes, const std::vector<uint32_t>& numbers,
                   const NodeSink& sink) const;
  void writeMapNodes(const std::vector<uint32_t>& numbers, std::span<const std::byte> map,
                     const NodeSink& sink) const;
  void writeJunk(uint32_t totalNodes, std::span<const std::byte> map, const NodeSink& sink) const;
  size_t headerMapSize() const { return _kind.nodeSize - 256; }
  size_t mapNodeMapSize() const { return _kind.nodeSize - 20; }

  const RecordSource& _source;
  TreeKind _kind;
  std::vector<Level> _levels;
  uint32_t _usedNodes = 0;
};

}  // namespace support
