#include "support/VolumePlan.hpp"

#include <algorithm>
#include <bit>

#include "support/VolumeNames.hpp"

namespace support {

namespace {

constexpr int kLayoutTries = 8;
constexpr uint32_t kFewFreeNodes = 4;
constexpr uint32_t kMostBlockSize = 1 << 24;

bool isPowerBetween(uint32_t value, uint32_t least, uint32_t most) {
  return std::has_single_bit(value) && value >= least && value <= most;
}

uint64_t blocksIn(const std::vector<BlockExtent>& extents) {
  uint64_t blocks = 0;
  for (const BlockExtent& extent : extents)
    blocks += extent.count;
  return blocks;
}

TreeKind kindOf(const TreeDescription& described, uint64_t seed) {
  TreeKind kind;
  kind.nodeSize = described.nodeSize;
  kind.fill = described.fill;
  kind.order = described.order;
  kind.junkInFreeNodes = described.junkInFreeNodes;
  kind.seed = seed;
  return kind;
}

}  // namespace

VolumePlan::VolumePlan(const VolumeDescription& description)
    : _description(description), _items(catalogItems(description)) {}

std::string VolumePlan::make() {
  for (std::string failure : {checkDescription(), checkItems()}) {
    if (!failure.empty())
      return failure;
  }
  addSpecialForks();
  addItemForks();
  _catalogRecords = std::make_unique<CatalogRecords>(_description, _items, _forks);
  if (!_catalogRecords->conflict().empty())
    return _catalogRecords->conflict();
  _catalog.writer = std::make_unique<BTreeWriter>(*_catalogRecords, catalogKind());
  planTree(catalogFile, _catalog, _description.catalog, 0);

  for (int i = 0; i < kLayoutTries; ++i) {
    for (BuiltFork& fork : _forks)
      fork.extents.clear();
    planAttributes();
    planExtents(expectedOverflow());
    decideGeometry();
    if (std::string failure = layOut(); !failure.empty())
      return failure;
    if (treesSuffice()) {
      fillInLiterals();
      return {};
    }
  }
  return "no layout leaves room for the overflow records";
}

std::string VolumePlan::checkDescription() const {
  const VolumeDescription& d = _description;
  if (!isPowerBetween(d.blockSize, 512, kMostBlockSize))
    return "the block size must be a power of two from 512 to 16777216";
  if (!isPowerBetween(d.extentsTree.nodeSize, 512, 32768) ||
      !isPowerBetween(d.catalog.nodeSize, 4096, 32768) ||
      !isPowerBetween(d.attributesTree.nodeSize, 4096, 32768))
    return "node sizes must be powers of two from 512 (extents) or 4096 (others) to 32768";
  if (d.size % 512 != 0 || d.trailingBytes % 512 != 0)
    return "the size must be a multiple of 512";
  if (d.size / d.blockSize > UINT32_MAX)
    return "too many blocks: the block size is too small for this size";
  if (d.size == 0 && (d.fillPercent < 1 || d.fillPercent > 100))
    return "the fill must be from 1 to 100 percent";
  return {};
}

std::string VolumePlan::checkItems() const {
  for (const CatalogItem& item : _items) {
    if (item.name->empty() || item.name->size() > kMaxNameUnits)
      return "item " + std::to_string(item.id) + " has no name or one that is too long";
    if (item.file != nullptr && item.file == _description.journalInfoFile &&
        item.file->data.logicalSize != _description.blockSize)
      return "the block size was changed after the journal was added";
  }
  return {};
}

void VolumePlan::addSpecialForks() {
  const uint32_t ids[] = {kAllocationFileID, kExtentsFileID, kCatalogFileID, kAttributesFileID,
                          kStartupFileID};
  for (const uint32_t id : ids) {
    _forks.emplace_back().fileID = id;
    PlannedFork& planned = _planned.emplace_back();
    planned.fileID = id;
    planned.place = ForkPlace::front;
  }
  planSpecial(startupFile, _description.startup.logicalSize, _description.startup.fragments,
              _description.startup.extents, 1);
  if (!_description.overflowOnlyBadBlocks.empty()) {
    const uint64_t blocks = blocksIn(_description.overflowOnlyBadBlocks);
    addFork(kBadBlocksFileID, kDataFork,
            forkAt(_description.overflowOnlyBadBlocks, blocks * _description.blockSize));
  }
}

void VolumePlan::addItemForks() {
  for (CatalogItem& item : _items) {
    const ItemDescription* described = item.folder;
    if (item.file != nullptr) {
      described = item.file;
      item.dataFork = addFork(item.id, kDataFork, item.file->data);
      item.resourceFork = addFork(item.id, kResourceFork, item.file->resource);
    }
    uint8_t ordinal = 0;
    for (const AttributeDescription& attribute : described->attributes) {
      if (!attribute.hasFork)
        continue;
      const uint32_t index = addFork(item.id, ++ordinal, attribute.fork);
      if (index == kNoFork)
        continue;
      _forks[index].isAttribute = true;
      _attributeForks.push_back({item.id, index, &attribute});
    }
  }
}

uint32_t VolumePlan::addFork(uint32_t fileID, uint8_t forkType, const ForkDescription& fork) {
  const uint64_t blocks = dividedUp(fork.logicalSize, _description.blockSize) + fork.spareBlocks;
  if (blocks == 0)
    return kNoFork;
  BuiltFork& built = _forks.emplace_back();
  built.fileID = fileID;
  built.forkType = forkType;
  built.unwritten = fork.unwritten;
  built.logicalSize = fork.logicalSize;
  built.totalBlocks = static_cast<uint32_t>(blocks);
  built.literal = fork.literal;
  PlannedFork& planned = _planned.emplace_back();
  planned.fileID = fileID;
  planned.forkType = forkType;
  planned.place = fork.atFront ? ForkPlace::front : ForkPlace::data;
  planned.blocks = built.totalBlocks;
  planned.fragments = fork.fragments;
  planned.strict = fork.unsplittable;
  planned.extents = fork.extents;
  return static_cast<uint32_t>(_forks.size() - 1);
}

void VolumePlan::planSpecial(Special special, uint64_t logicalSize, uint32_t fragments,
                             const std::vector<BlockExtent>& extents, uint32_t unit) {
  BuiltFork& built = _forks[special];
  built.logicalSize = logicalSize;
  built.totalBlocks = static_cast<uint32_t>(dividedUp(logicalSize, _description.blockSize));
  PlannedFork& planned = _planned[special];
  planned.blocks = built.totalBlocks;
  planned.fragments = fragments;
  planned.extents = extents;
  planned.unit = unit;
  planned.strict = special == extentsFile;
}

void VolumePlan::planTree(Special special, PlannedTree& tree, const TreeDescription& described,
                          uint32_t wantedNodes) {
  const uint32_t used = tree.writer->usedNodes();
  uint32_t wanted = std::max(wantedNodes, described.totalNodes);
  if (wanted == 0)
    wanted = 1 + used + std::max(kFewFreeNodes, used / 8);
  tree.totalNodes = tree.writer->totalNodesFor(wanted, _description.blockSize);
  const uint32_t unit =
      described.nodesMayStraddle ? 1 : std::max(1u, described.nodeSize / _description.blockSize);
  planSpecial(special, uint64_t{tree.totalNodes} * described.nodeSize, described.fragments,
              described.extents, unit);
}

TreeKind VolumePlan::catalogKind() const {
  TreeKind kind = kindOf(_description.catalog, _description.seed * 3);
  kind.maxKeyLength = 516;
  kind.keyCompareType =
      _description.hfsx && _description.binaryNames ? kBinaryCompare : kCaseFolding;
  kind.attributes = kTreeBigKeys | kTreeVariableIndexKeys;
  return kind;
}

TreeKind VolumePlan::extentsKind() const {
  TreeKind kind = kindOf(_description.extentsTree, _description.seed * 5);
  kind.maxKeyLength = OverflowRecords::kKeyLength;
  return kind;
}

TreeKind VolumePlan::attributesKind() const {
  TreeKind kind = kindOf(_description.attributesTree, _description.seed * 7);
  kind.maxKeyLength = AttributeRecords::kMaxKeyLength;
  kind.attributes = kTreeBigKeys | kTreeVariableIndexKeys;
  return kind;
}

void VolumePlan::planAttributes() {
  _attributeRecords = std::make_unique<AttributeRecords>(_items, _attributeForks, _forks);
  if (!_description.hasAttributesFile && _attributeRecords->count() == 0)
    return;
  _attributes.writer = std::make_unique<BTreeWriter>(*_attributeRecords, attributesKind());
  planTree(attributesFile, _attributes, _description.attributesTree, _attributesNodesWanted);
}

void VolumePlan::planExtents(const OverflowRecords& records) {
  _overflow = records;
  _extents.writer = std::make_unique<BTreeWriter>(_overflow, extentsKind());
  planTree(extentsFile, _extents, _description.extentsTree, _extentsNodesWanted);
}

// As many records as the planned fragments will need, with any contents.
OverflowRecords VolumePlan::expectedOverflow() const {
  OverflowRecords records;
  for (size_t i = 0; i < _planned.size(); ++i) {
    const PlannedFork& fork = _planned[i];
    const size_t extents =
        fork.extents.empty() ? std::min(fork.fragments, fork.blocks) : fork.extents.size();
    const size_t elsewhere = fork.fileID == kBadBlocksFileID || _forks[i].isAttribute ? 0 : 8;
    for (size_t at = elsewhere; at < extents; at += kExtentsInRecord)
      records.addRecord(fork.fileID, fork.forkType, 0, {});
  }
  addStrayRecords(records);
  return records;
}

OverflowRecords VolumePlan::actualOverflow() const {
  OverflowRecords records;
  const bool badBlocksElsewhere = !_description.overflowOnlyBadBlocks.empty();
  for (const BuiltFork& fork : _forks) {
    if (fork.isAttribute)
      continue;
    const bool all = fork.fileID == kBadBlocksFileID && badBlocksElsewhere;
    records.addFork(fork.fileID, fork.forkType, fork.extents, all ? 0 : kExtentsInRecord);
  }
  addStrayRecords(records);
  records.sort();
  return records;
}

void VolumePlan::addStrayRecords(OverflowRecords& records) const {
  const auto add = [&](const CatalogItem& item, uint8_t forkType, const ForkDescription& fork,
                       uint32_t index) {
    const uint32_t end = index == kNoFork ? 0 : _forks[index].totalBlocks;
    for (uint32_t i = 0; i < fork.strayRecords; ++i) {
      const uint32_t middle = std::max(2u, _geometry.totalBlocks / 2);
      const BlockExtent stray[] = {{middle - 1, 1}, {middle, 1}};
      records.addRecord(item.id, forkType, end + 2 * i, stray);
    }
  };
  for (const CatalogItem& item : _items) {
    if (item.file == nullptr)
      continue;
    add(item, kDataFork, item.file->data, item.dataFork);
    add(item, kResourceFork, item.file->resource, item.resourceFork);
  }
}

uint64_t VolumePlan::neededSize() const {
  uint64_t owned = 0;
  uint64_t end = 0;
  for (const PlannedFork& fork : _planned) {
    owned += fork.blocks;
    for (const BlockExtent& extent : fork.extents)
      end = std::max(end, uint64_t{extent.start} + extent.count);
  }
  for (const auto* extents : {&_description.keptFree, &_description.markedWithoutOwner}) {
    owned += blocksIn(*extents);
    for (const BlockExtent& extent : *extents)
      end = std::max(end, uint64_t{extent.start} + extent.count);
  }
  // The allocation file and the reserved blocks at both ends, roughly: never too little.
  const uint64_t reserved = 6;
  uint64_t blocks = (owned + reserved) * 100 / _description.fillPercent + 1;
  blocks +=
      dividedUp(blocks, uint64_t{8} * _description.blockSize) * 100 / _description.fillPercent;
  const uint64_t size = std::max(blocks, end + reserved) * _description.blockSize;
  if (!_description.wrapper)
    return size + _description.trailingBytes;
  const uint64_t unit = VolumeGeometry::wrapperUnit(_description.blockSize, size);
  return dividedUp(size, unit) * unit;
}

void VolumePlan::decideGeometry() {
  _planned[allocation].blocks = 0;
  const uint64_t size = _description.size != 0 ? _description.size : neededSize();
  _geometry = VolumeGeometry::of(_description, size);
  const uint64_t spare = uint64_t{_description.spareBitmapBlocks} * _description.blockSize;
  planSpecial(allocation, _geometry.bitmapSize() + spare, _description.allocationFragments,
              _description.allocationExtents, 1);
}

std::string VolumePlan::clearSpace(FreeSpace& space) const {
  const uint32_t front = _geometry.frontBlocks();
  const uint32_t back = _geometry.backBlocks();
  if (_geometry.totalBlocks <= front + back || !space.take({0, front}) ||
      !space.take({_geometry.totalBlocks - back, back}))
    return "the volume is too small";
  for (const auto* extents : {&_description.keptFree, &_description.markedWithoutOwner}) {
    for (const BlockExtent& extent : *extents) {
      if (!space.take(extent))
        return "block " + std::to_string(extent.start) + " cannot be kept";
    }
  }
  return {};
}

std::string VolumePlan::layOut() {
  FreeSpace space({0, _geometry.totalBlocks});
  if (std::string failure = clearSpace(space); !failure.empty())
    return failure;
  const bool zoned = _description.journalFile != nullptr && _geometry.metadataZoneBlocks() > 0;
  const uint32_t zone = zoned ? _geometry.metadataZoneBlocks() : 0;
  ForkLayout layout(std::move(space), _description.layout, _description.seed,
                    zoned ? zone : _geometry.totalBlocks, zone);
  std::vector<PlannedFork> placed = _planned;
  if (std::string failure = layout.place(placed); !failure.empty())
    return failure;
  for (size_t i = 0; i < placed.size(); ++i)
    _forks[i].extents = std::move(placed[i].extents);
  if (_forks[extentsFile].extents.size() > kExtentsInRecord)
    return "the extents file cannot have more than eight extents";
  return {};
}

// Builds the trees from the real extents. When one does not fit its file, the next try gets more.
bool VolumePlan::treesSuffice() {
  const uint32_t extentsNodes = _extents.totalNodes;
  const uint32_t attributesNodes = _attributes.totalNodes;
  _overflow = actualOverflow();
  _extents.writer = std::make_unique<BTreeWriter>(_overflow, extentsKind());
  const auto needed = [&](const PlannedTree& tree, uint32_t have) {
    const uint32_t least = 1 + tree.writer->usedNodes();
    const bool suffices = tree.writer->totalNodesFor(least, _description.blockSize) <= have;
    return suffices ? 0 : least + least / 4 + kFewFreeNodes;
  };
  const uint32_t moreExtents = needed(_extents, extentsNodes);
  _extentsNodesWanted = std::max(_extentsNodesWanted, moreExtents);
  uint32_t moreAttributes = 0;
  if (_attributes.writer) {
    _attributeRecords = std::make_unique<AttributeRecords>(_items, _attributeForks, _forks);
    _attributes.writer = std::make_unique<BTreeWriter>(*_attributeRecords, attributesKind());
    moreAttributes = needed(_attributes, attributesNodes);
    _attributesNodesWanted = std::max(_attributesNodesWanted, moreAttributes);
  }
  return moreExtents == 0 && moreAttributes == 0;
}

}  // namespace support
