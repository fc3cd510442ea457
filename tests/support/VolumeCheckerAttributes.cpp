#include <algorithm>
#include <unordered_set>

#include "support/VolumeCheckerNames.hpp"
#include "support/VolumeCheckerTree.hpp"

namespace volumecheck {

namespace {

constexpr std::uint16_t kAttributesMaxKeyLength = 266;
constexpr std::uint16_t kAttributesMinKeyLength = 12;
constexpr std::uint16_t kAttributesMinNodeSize = 4096;
constexpr std::size_t kLongestName = 127;
constexpr std::uint8_t kCompareFolded = 0xCF;
constexpr std::uint8_t kCompareBinary = 0xBC;

constexpr std::uint32_t kInlineData = 0x10;
constexpr std::uint32_t kForkData = 0x20;
constexpr std::uint32_t kMoreExtents = 0x30;
constexpr std::size_t kInlineHeaderSize = 16;
constexpr std::size_t kForkRecordSize = 88;
constexpr std::size_t kExtentsRecordSize = 72;
constexpr std::size_t kForkExtentsOffset = 24;
constexpr std::size_t kMoreExtentsOffset = 8;

std::u16string attributeName(Bytes key) {
  return nameFrom(key, 14, u16At(key, 12));
}

int compareKeys(Bytes left, Bytes right, bool folded) {
  if (u32At(left, 4) != u32At(right, 4)) {
    return u32At(left, 4) < u32At(right, 4) ? -1 : 1;
  }
  const auto compare = folded ? compareFolded : compareBinary;
  if (const int order = compare(attributeName(left), attributeName(right)); order != 0) {
    return order;
  }
  return u32At(left, 8) == u32At(right, 8) ? 0 : (u32At(left, 8) < u32At(right, 8) ? -1 : 1);
}

// Takes the attribute records in key order and puts attribute forks together.
class AttributeReader {
 public:
  explicit AttributeReader(VolumeCheckerState& state) : _state(state) {
    for (const CatalogItem& item : state.truth.items) {
      _cnids.insert(item.cnid);
    }
  }

  void readRecord(Bytes key, Bytes data) {
    const std::uint32_t cnid = u32At(key, 4);
    const std::size_t units = u16At(key, 12);
    if (units == 0 || units > kLongestName || key.size() != 14 + 2 * units || u16At(key, 2) != 0) {
      _state.log.add(FindingKind::AttributeRecord,
                     "An attribute key of ID %u has %zu bytes and a name of %zu units.", cnid,
                     key.size(), units);
      return;
    }
    if (!_cnids.contains(cnid)) {
      _state.log.add(FindingKind::AttributeOrphan,
                     "There is an attribute of ID %u, which is not in the catalog.", cnid);
    }
    _readData(key, data);
    _addToHash(key, data);
  }

  // Ends the attribute fork being put together, if any.
  void finishFork() {
    if (_open) {
      _open = false;
      _checkFull();
      settleFork(_state, _fork, describeFork(_fork.cnid, ForkType::Attribute));
      _state.truth.forks.push_back(std::move(_fork));
    }
  }

 private:
  void _readData(Bytes key, Bytes data) {
    const std::uint32_t type = u32At(data, 0);
    if (type != kMoreExtents) {
      finishFork();
    }
    bool wellFormed = false;
    if (type == kInlineData) {
      const std::size_t size = kInlineHeaderSize + u32At(data, 12);
      wellFormed = data.size() == size + size % 2 && u32At(key, 8) == 0;
    } else if (type == kForkData) {
      wellFormed = data.size() == kForkRecordSize && u32At(key, 8) == 0;
      if (wellFormed) {
        _startFork(key, data);
      }
    } else if (type == kMoreExtents) {
      wellFormed = data.size() == kExtentsRecordSize;
      if (wellFormed) {
        _extendFork(key, data);
      }
    }
    if (!wellFormed) {
      _state.log.add(
          FindingKind::AttributeRecord,
          "The attribute \"%s\" of ID %u has a record of type 0x%X, %zu bytes, start %u.",
          displayName(attributeName(key)).c_str(), u32At(key, 4), type, data.size(), u32At(key, 8));
    }
  }

  void _startFork(Bytes key, Bytes data) {
    const ForkData described = forkDataFrom(sliceOf(data, 8, 80));
    _fork = Fork();
    _fork.cnid = u32At(key, 4);
    _fork.type = ForkType::Attribute;
    _fork.attributeName = displayName(attributeName(key));
    _fork.logicalSize = described.logicalSize;
    _fork.totalBlocks = described.totalBlocks;
    _blocks = 0;
    _open = true;
    _append(described.extents);
  }

  void _extendFork(Bytes key, Bytes data) {
    const bool belongs = _open && _fork.cnid == u32At(key, 4) &&
                         _fork.attributeName == displayName(attributeName(key));
    if (!belongs || u32At(key, 8) != _blocks || !_full || _blocks >= _fork.totalBlocks) {
      _state.log.add(FindingKind::AttributeExtents,
                     "The attribute \"%s\" of ID %u has more extents from block %u on, where none "
                     "belong.",
                     displayName(attributeName(key)).c_str(), u32At(key, 4), u32At(key, 8));
      return;
    }
    Extent extents[8];
    for (std::size_t i = 0; i < 8; ++i) {
      const std::size_t at = kMoreExtentsOffset + 8 * i;
      extents[i] = {u32At(data, at), u32At(data, at + 4)};
    }
    _fork.overflowRecords += 1;
    _append(extents);
  }

  void _append(const Extent (&extents)[8]) {
    _full = appendExtents(_state, _fork, extents, describeFork(_fork.cnid, ForkType::Attribute));
    _blocks = 0;
    for (const Extent& extent : _fork.extents) {
      _blocks += extent.blockCount;
    }
  }

  void _checkFull() {
    if (_full && _blocks < _fork.totalBlocks) {
      _state.log.add(FindingKind::AttributeExtents,
                     "The attribute \"%s\" of ID %u has %u blocks, its extents end after %llu.",
                     _fork.attributeName.c_str(), _fork.cnid, _fork.totalBlocks,
                     static_cast<unsigned long long>(_blocks));
    }
  }

  void _addToHash(Bytes key, Bytes data) {
    std::vector<std::uint8_t> content(key.begin(), key.end());
    const std::uint32_t type = u32At(data, 0);
    const std::size_t keep = type == kForkData      ? kForkExtentsOffset
                             : type == kMoreExtents ? kMoreExtentsOffset
                                                    : data.size();
    const Bytes kept = sliceOf(data, 0, keep);
    content.insert(content.end(), kept.begin(), kept.end());
    const Hash128 hash = hashOf(content);
    _state.truth.attributesHash.high = _state.truth.attributesHash.high * 31 + hash.high;
    _state.truth.attributesHash.low = _state.truth.attributesHash.low * 37 + hash.low;
  }

  VolumeCheckerState& _state;
  std::unordered_set<std::uint32_t> _cnids;
  bool _open = false;
  bool _full = false;  // the last record's eight descriptors are all in use
  std::uint64_t _blocks = 0;
  Fork _fork;
};

}  // namespace

void checkAttributes(VolumeCheckerState& state) {
  const Fork* fork = state.truth.findFork(kAttributesFileID, ForkType::Data);
  if (fork == nullptr || fork->totalBlocks == 0 || !fork->sound) {
    return;
  }
  TreeRules rules;
  rules.name = "attributes file";
  rules.maxKeyLength = kAttributesMaxKeyLength;
  rules.minKeyLength = kAttributesMinKeyLength;
  rules.minNodeSize = kAttributesMinNodeSize;
  rules.variableIndexKeys = true;
  VolumeCheckerTree tree(state, *fork, rules);
  if (!tree.open()) {
    return;
  }
  const std::uint8_t order = tree.header().keyCompareType;
  if (order != 0 && order != kCompareBinary && order != kCompareFolded) {
    state.log.add(FindingKind::TreeHeader, "The attributes file's key comparison type is 0x%02X.",
                  order);
  }
  tree.setCompare([folded = order == kCompareFolded](Bytes left, Bytes right) {
    return compareKeys(left, right, folded);
  });
  AttributeReader reader(state);
  tree.walk([&reader](Bytes key, Bytes data, std::uint32_t) { reader.readRecord(key, data); });
  reader.finishFork();
  state.truth.attributesTree = tree.truth();
}

}  // namespace volumecheck
