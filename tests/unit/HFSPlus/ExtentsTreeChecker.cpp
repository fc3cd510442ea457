#include "unit/HFSPlus/ExtentsTreeChecker.hpp"

#include <cstddef>
#include <optional>
#include <set>
#include <vector>

namespace {

using Key = std::tuple<uint32_t, uint8_t, uint32_t>;

uint64_t number(std::span<const std::byte> bytes, size_t at, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i) {
    value = value << 8 | std::to_integer<uint64_t>(bytes[at + i]);
  }
  return value;
}

Key keyAt(std::span<const std::byte> record) {
  return {static_cast<uint32_t>(number(record, 4, 4)), static_cast<uint8_t>(number(record, 2, 1)),
          static_cast<uint32_t>(number(record, 8, 4))};
}

class Checker {
 public:
  Checker(MemoryTreeVolume& volume, const ExtentsModel& model) : _volume(volume), _model(model) {}

  std::string run() {
    const uint64_t depth = header(0, 2);
    const uint64_t root = header(2, 4);
    if (_model.empty()) {
      expect(depth == 0 && root == 0 && header(10, 4) == 0 && header(14, 4) == 0,
             "an empty tree has no depth, root and leaves");
    } else {
      expect(depth > 0 && root > 0, "a tree with records has a root");
      _lastOfLevel.resize(depth + 1);
      visit(static_cast<uint32_t>(root), static_cast<uint8_t>(depth), std::nullopt);
      for (size_t level = 1; level <= depth; ++level) {
        expect(number(_volume.node(_lastOfLevel[level]), 0, 4) == 0, "the last node links on");
      }
      expect(_firstLeaf == header(10, 4), "first leaf");
      expect(depth == 0 || _lastOfLevel[1] == header(14, 4), "last leaf");
    }
    expect(_records == _model, "the records are not those of the model");
    expect(header(6, 4) == _records.size(), "leaf record count");
    checkMap();
    return _wrong;
  }

 private:
  void expect(bool right, const std::string& what) {
    if (!right && _wrong.empty()) {
      _wrong = what;
    }
  }
  uint64_t header(size_t at, size_t size) { return number(_volume.node(0), 14 + at, size); }

  void visit(uint32_t index, uint8_t height, std::optional<Key> key) {
    const std::string where = "node " + std::to_string(index) + ": ";
    if (index >= header(22, 4) || !_used.insert(index).second || !_wrong.empty()) {
      expect(false, where + "out of range or seen before");
      return;
    }
    const std::span<const std::byte> node = _volume.node(index);
    expect(number(node, 8, 1) == (height == 1 ? 0xFF : 0), where + "kind");
    expect(number(node, 9, 1) == height, where + "height");
    expect(number(node, 4, 4) == _lastOfLevel[height], where + "backward link");
    if (_lastOfLevel[height] != 0) {
      expect(number(_volume.node(_lastOfLevel[height]), 0, 4) == index, where + "forward link");
    } else if (height == 1) {
      _firstLeaf = index;
    }
    _lastOfLevel[height] = index;

    const size_t count = number(node, 10, 2);
    const size_t size = height == 1 ? 76 : 16;
    expect(count > 0, where + "no records");
    expect(14 + count * size + 2 * (count + 1) <= node.size(), where + "too many records");
    for (size_t i = 0; i <= count && _wrong.empty(); ++i) {
      expect(number(node, node.size() - 2 * (i + 1), 2) == 14 + i * size, where + "offset table");
    }
    for (size_t i = 0; i < count && _wrong.empty(); ++i) {
      visitRecord(node.subspan(14 + i * size, size), height, i == 0 ? key : std::nullopt, where);
    }
  }

  void visitRecord(std::span<const std::byte> record, uint8_t height, std::optional<Key> indexKey,
                   const std::string& where) {
    const Key key = keyAt(record);
    expect(number(record, 0, 2) == 10 && number(record, 3, 1) == 0, where + "key length or pad");
    expect(!indexKey || *indexKey == key, where + "not the key that leads here");
    if (height > 1) {
      visit(static_cast<uint32_t>(number(record, 12, 4)), static_cast<uint8_t>(height - 1), key);
      return;
    }
    expect(_records.empty() || _records.rbegin()->first < key, where + "key order");
    HFSPlusExtentRecord extents;
    for (size_t i = 0; i < extents.size(); ++i) {
      extents[i] = {static_cast<uint32_t>(number(record, 12 + 8 * i, 4)),
                    static_cast<uint32_t>(number(record, 16 + 8 * i, 4))};
    }
    _records.emplace(key, extents);
  }

  void checkMap() {
    const uint64_t total = header(22, 4);
    uint64_t free = 0;
    uint64_t node = 0;
    uint32_t mapNode = 0;
    size_t mapBegin = 248;
    size_t mapEnd = _volume.nodeSize() - 8;
    do {
      _used.insert(mapNode);
      const std::span<const std::byte> image = _volume.node(mapNode);
      for (uint64_t bit = 0; bit < (mapEnd - mapBegin) * 8 && node < total; ++bit, ++node) {
        const bool used = (number(image, mapBegin + bit / 8, 1) & (0x80U >> (bit % 8))) != 0;
        free += used ? 0 : 1;
        _inMap.push_back(used);
      }
      mapNode = static_cast<uint32_t>(number(image, 0, 4));
      mapBegin = 14;
      mapEnd = _volume.nodeSize() - 6;
    } while (mapNode != 0);
    expect(node == total, "the map does not cover the tree");
    expect(free == header(26, 4), "free node count");
    for (uint32_t index = 0; index < _inMap.size(); ++index) {
      expect(_inMap[index] == _used.contains(index), "map bit of node " + std::to_string(index));
    }
  }

  MemoryTreeVolume& _volume;
  const ExtentsModel& _model;
  std::string _wrong;
  ExtentsModel _records;
  std::set<uint32_t> _used;
  std::vector<bool> _inMap;
  std::vector<uint32_t> _lastOfLevel;
  uint32_t _firstLeaf = 0;
};

}  // namespace

std::string checkExtentsTree(MemoryTreeVolume& volume, const ExtentsModel& model) {
  return Checker(volume, model).run();
}
