#include "support/BTreeWriter.hpp"

#include <algorithm>
#include <numeric>

#include "support/SeededRandom.hpp"

namespace support {

namespace {

// Lays records into one node's image and keeps its offset table.
class NodeImage {
 public:
  explicit NodeImage(uint32_t nodeSize) : _bytes(nodeSize) {}

  void begin(uint32_t forward, uint32_t backward, int8_t kind, uint8_t height) {
    std::ranges::fill(_bytes, std::byte{0});
    ByteWriter(_bytes).u32(forward).u32(backward).u8(static_cast<uint8_t>(kind)).u8(height);
    _end = kNodeDescriptorSize;
    _records = 0;
    closeTable();
  }

  // Room for a record of `size` bytes, entered into the table.
  std::span<std::byte> append(size_t size) {
    const auto record = std::span(_bytes).subspan(_end, size);
    _end += size;
    ++_records;
    ByteWriter(_bytes).seek(10).u16(static_cast<uint16_t>(_records));
    closeTable();
    return record;
  }

  std::span<const std::byte> bytes() const { return _bytes; }

 private:
  void closeTable() {
    ByteWriter(_bytes).seek(_bytes.size() - 2 * (_records + 1)).u16(static_cast<uint16_t>(_end));
  }

  Bytes _bytes;
  size_t _end = 0;
  size_t _records = 0;
};

void setMapBit(Bytes& map, uint32_t node) {
  map[node / 8] |= std::byte{0x80} >> (node % 8);
}

bool mapBit(std::span<const std::byte> map, uint32_t node) {
  return (map[node / 8] & std::byte{0x80} >> (node % 8)) != std::byte{0};
}

}  // namespace

BTreeWriter::BTreeWriter(const RecordSource& source, TreeKind kind)
    : _source(source), _kind(std::move(kind)) {
  planLevels();
}

void BTreeWriter::planLevels() {
  const size_t room = _kind.nodeSize - kNodeDescriptorSize - 2;
  const auto target = static_cast<size_t>(static_cast<double>(room) * _kind.fill);
  size_t below = _source.count();
  while (below > 0) {
    const size_t level = _levels.size();
    // An index node of a single child would make a tree that never ends.
    const size_t fewest = level == 0 ? 1 : 2;
    Level nodes;
    size_t used = 0;
    size_t records = 0;
    for (size_t i = 0; i < below; ++i) {
      const size_t size = 2 + (level == 0 ? _source.recordSize(i) : indexRecordSize(level, i));
      if (records == 0 || used + size > room || (used + size > target && records >= fewest)) {
        nodes.push_back(i);
        used = records = 0;
      }
      used += size;
      ++records;
    }
    below = nodes.size();
    _usedNodes += static_cast<uint32_t>(below);
    _levels.push_back(std::move(nodes));
    if (below == 1)
      break;
  }
}

size_t BTreeWriter::firstRecordBelow(size_t level, size_t node) const {
  for (;; --level) {
    node = _levels[level][node];
    if (level == 0)
      return node;
  }
}

size_t BTreeWriter::indexRecordSize(size_t level, size_t child) const {
  return _source.keySize(firstRecordBelow(level - 1, child)) + sizeof(uint32_t);
}

uint32_t BTreeWriter::mapNodesFor(uint64_t totalNodes) const {
  const uint64_t inHeader = headerMapSize() * 8;
  if (totalNodes <= inHeader)
    return 0;
  return static_cast<uint32_t>(dividedUp(totalNodes - inHeader, mapNodeMapSize() * 8));
}

uint32_t BTreeWriter::totalNodesFor(uint32_t wanted, uint32_t blockSize) const {
  const uint64_t unit = std::max(1u, blockSize / _kind.nodeSize);
  uint64_t total = std::max<uint64_t>(wanted, 1);
  for (;;) {
    total = dividedUp(total, unit) * unit;
    const uint64_t least = 1 + uint64_t{_usedNodes} + mapNodesFor(total);
    if (total >= least)
      return static_cast<uint32_t>(total);
    total = least;
  }
}

// The numbers of the map nodes, then of each level's nodes from the leaves up.
std::vector<uint32_t> BTreeWriter::nodeNumbers(uint32_t totalNodes) const {
  const size_t needed = mapNodesFor(totalNodes) + size_t{_usedNodes};
  std::vector<uint32_t> numbers(_kind.order == NodeOrder::packed ? needed : totalNodes - 1);
  std::iota(numbers.begin(), numbers.end(), 1u);
  SeededRandom random(_kind.seed);
  if (_kind.order == NodeOrder::scattered) {
    random.shuffle(numbers);
  } else if (_kind.order == NodeOrder::spread) {
    // Each number stays with the probability that leaves exactly as many as are needed.
    size_t kept = 0;
    for (size_t i = 0; i < numbers.size() && kept < needed; ++i) {
      if (random.below(numbers.size() - i) < needed - kept)
        numbers[kept++] = numbers[i];
    }
  }
  numbers.resize(needed);
  return numbers;
}

void BTreeWriter::write(uint32_t totalNodes, const NodeSink& sink) const {
  const std::vector<uint32_t> numbers = nodeNumbers(totalNodes);
  for (size_t level = 0; level < _levels.size(); ++level)
    writeLevel(level, numbers, sink);
  writeHeader(totalNodes, numbers, sink);
}

void BTreeWriter::writeLevel(size_t level, const std::vector<uint32_t>& numbers,
                             const NodeSink& sink) const {
  size_t start = numbers.size() - _usedNodes;
  for (size_t below = 0; below < level; ++below)
    start += _levels[below].size();
  const size_t childStart = level == 0 ? 0 : start - _levels[level - 1].size();
  const Level& nodes = _levels[level];
  const size_t end = level == 0 ? _source.count() : _levels[level - 1].size();
  NodeImage image(_kind.nodeSize);
  Bytes record;
  for (size_t n = 0; n < nodes.size(); ++n) {
    image.begin(n + 1 < nodes.size() ? numbers[start + n + 1] : 0,
                n > 0 ? numbers[start + n - 1] : 0, level == 0 ? kLeafNode : kIndexNode,
                static_cast<uint8_t>(level + 1));
    const size_t last = n + 1 < nodes.size() ? nodes[n + 1] : end;
    for (size_t i = nodes[n]; i < last; ++i) {
      if (level == 0) {
        _source.write(i, image.append(_source.recordSize(i)));
        continue;
      }
      const size_t first = firstRecordBelow(level - 1, i);
      const size_t keySize = _source.keySize(first);
      record.resize(_source.recordSize(first));
      _source.write(first, record);
      ByteWriter(image.append(keySize + sizeof(uint32_t)))
          .bytes(std::span(record).first(keySize))
          .u32(numbers[childStart + i]);
    }
    sink(numbers[start + n], image.bytes());
  }
}

void BTreeWriter::writeHeader(uint32_t totalNodes, const std::vector<uint32_t>& numbers,
                              const NodeSink& sink) const {
  const size_t mapNodes = numbers.size() - _usedNodes;
  Bytes map(headerMapSize() + mapNodes * mapNodeMapSize());
  setMapBit(map, 0);
  for (const uint32_t number : numbers)
    setMapBit(map, number);

  const bool empty = _levels.empty();
  NodeImage image(_kind.nodeSize);
  image.begin(mapNodes == 0 ? 0 : numbers[0], 0, kHeaderNode, 0);
  ByteWriter(image.append(kHeaderRecordSize))
      .u16(static_cast<uint16_t>(_levels.size()))
      .u32(empty ? 0 : numbers.back())
      .u32(static_cast<uint32_t>(_source.count()))
      .u32(empty ? 0 : numbers[mapNodes])
      .u32(empty ? 0 : numbers[mapNodes + _levels[0].size() - 1])
      .u16(static_cast<uint16_t>(_kind.nodeSize))
      .u16(_kind.maxKeyLength)
      .u32(totalNodes)
      .u32(static_cast<uint32_t>(totalNodes - 1 - numbers.size()))
      .u16(0)
      .u32(_kind.clumpSize)
      .u8(_kind.btreeType)
      .u8(_kind.keyCompareType)
      .u32(_kind.attributes);
  ByteWriter(image.append(kUserRecordSize)).bytes(_kind.userRecord);
  ByteWriter(image.append(headerMapSize())).bytes(std::span(map).first(headerMapSize()));
  sink(0, image.bytes());
  writeMapNodes(numbers, map, sink);
  if (_kind.junkInFreeNodes)
    writeJunk(totalNodes, map, sink);
}

void BTreeWriter::writeMapNodes(const std::vector<uint32_t>& numbers,
                                std::span<const std::byte> map, const NodeSink& sink) const {
  const size_t mapNodes = numbers.size() - _usedNodes;
  NodeImage image(_kind.nodeSize);
  for (size_t n = 0; n < mapNodes; ++n) {
    image.begin(n + 1 < mapNodes ? numbers[n + 1] : 0, n == 0 ? 0 : numbers[n - 1], kMapNode, 0);
    ByteWriter(image.append(mapNodeMapSize()))
        .bytes(map.subspan(headerMapSize() + n * mapNodeMapSize(), mapNodeMapSize()));
    sink(numbers[n], image.bytes());
  }
}

// Leftovers look like leaves that once were: a reader that takes them for real finds wrong records.
void BTreeWriter::writeJunk(uint32_t totalNodes, std::span<const std::byte> map,
                            const NodeSink& sink) const {
  NodeImage image(_kind.nodeSize);
  for (uint32_t node = 1; node < totalNodes; ++node) {
    if (mapBit(map, node))
      continue;
    image.begin(node + 1, node - 1, kLeafNode, 1);
    stampFork(_kind.seed, 0, kDataFork, uint64_t{node} * _kind.nodeSize, image.append(64));
    sink(node, image.bytes());
  }
}

}  // namespace support
