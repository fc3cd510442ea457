#include "HFSPlus/HFSPlusExtentMap.hpp"

#include <algorithm>
#include <limits>

#include "LWKit/LWDebug.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "XRDefragReport.hpp"

namespace {

constexpr size_t kExtentTypes = 3;

std::unexpected<XRDefragError> outOfMemory() {
  return std::unexpected(XRDefragError::localized("Out of memory."));
}

std::unexpected<XRDefragError> internalError(
    std::source_location where = std::source_location::current()) {
  return std::unexpected(XRDefragError::internalHere(where));
}

bool alike(const HFSPlusExtentMapEntry& one, const HFSPlusExtentMapEntry& other) {
  return one.cnid == other.cnid && one.info == other.info;
}

}  // namespace

HFSPlusExtentMap::HFSPlusExtentMap(const HFSPlusVolumeAccess& volume, uint32_t startBlock)
    : _volume(volume),
      _startBlock(std::min(startBlock, volume.hostVolumeHeader().totalBlocks)),
      _totalBlocks(volume.hostVolumeHeader().totalBlocks) {
  if (_startBlock < _totalBlocks &&
      _map.insert({_startBlock, 0, {.type = kHFSPlusExtentUnalloced}}) != nullptr) {
    _extentCount = 1;
    _blockCountForType[kHFSPlusExtentUnalloced] = blockCount();
  }
}

uint32_t HFSPlusExtentMap::blockCountForType(HFSPlusExtentType type) const {
  LW_ASSERT(type < kExtentTypes);
  return _blockCountForType[type];
}

uint32_t HFSPlusExtentMap::blockCountForEntry(const HFSPlusExtentMapEntry* entry) const {
  const HFSPlusExtentMapEntry* next = _map.next(entry);
  return (next != nullptr ? next->start : _totalBlocks) - entry->start;
}

std::optional<HFSPlusExtentRun> HFSPlusExtentMap::runOf(const HFSPlusExtentMapEntry* entry) const {
  if (entry == nullptr) {
    return std::nullopt;
  }
  return HFSPlusExtentRun{entry, blockCountForEntry(entry)};
}

std::optional<HFSPlusExtentRun> HFSPlusExtentMap::firstEntry() const {
  return runOf(_map.first());
}

std::optional<HFSPlusExtentRun> HFSPlusExtentMap::nextEntry(
    const HFSPlusExtentMapEntry* after) const {
  return runOf(after != nullptr ? _map.next(after) : _map.first());
}

std::optional<HFSPlusExtentRun> HFSPlusExtentMap::findEntry(uint32_t block) const {
  return block < _totalBlocks ? runOf(_map.lastNotAfter(block)) : std::nullopt;
}

/// The part of a range that lies in the map; none when nothing of it does.
std::optional<HFSPlusExtentMap::Range> HFSPlusExtentMap::clippedRange(uint32_t start,
                                                                      uint32_t count) const {
  // A volume can hold any numbers: the end of a range may lie beyond 32 bits.
  uint64_t low = std::max(start, _startBlock);
  uint64_t high = std::min<uint64_t>(uint64_t{start} + count, _totalBlocks);
  if (low >= high) {
    return std::nullopt;
  }
  return Range{static_cast<uint32_t>(low), static_cast<uint32_t>(high - low)};
}

Result<> HFSPlusExtentMap::insert(uint32_t start, uint32_t count, uint32_t cnid,
                                  HFSPlusExtentInfo info) {
  LW_ASSERT(info.type < kExtentTypes);
  if (count == 0) {
    return {};
  }
  if (_map.first() == nullptr) {
    return internalError();
  }
  if (info.type == kHFSPlusExtentAllocated) {
    constexpr uint32_t most = std::numeric_limits<uint32_t>::max();
    _dataBlockTotal += std::min(count, most - _dataBlockTotal);
  }
  std::optional<Range> range = clippedRange(start, count);
  if (!range) {
    return {};
  }

  Map::Position position = _map.positionAfter(range->start);
  HFSPlusExtentMapEntry* entry = _map.recordBefore(position);
  if (entry == nullptr) {
    return internalError();
  }
  uint32_t end = range->start + range->count;
  uint32_t entryEnd = entry->start + blockCountForEntry(entry);
  if (entry->info.type != kHFSPlusExtentUnalloced || end > entryEnd) {
    return std::unexpected(XRDefragError::localized(
        "Invalid overlapping extent with start block = %1$u, block count = %2$u and CNID %3$u.",
        range->start, range->count, cnid));
  }
  if (end < entryEnd) {
    TRY(splitAt(position, {end, entry->cnid, entry->info}));
  }
  if (entry->start < range->start) {
    TRY(splitAt(position, {range->start, cnid, info}));
  } else {
    entry->cnid = cnid;
    entry->info = info;
  }
  _blockCountForType[kHFSPlusExtentUnalloced] -= range->count;
  _blockCountForType[info.type] += range->count;
  clipToCapacity();
  return {};
}

/// Begins a new run within the one left of a place, which keeps the blocks up to there.
Result<HFSPlusExtentMapEntry*> HFSPlusExtentMap::splitAt(Map::Position& position,
                                                         const HFSPlusExtentMapEntry& run) {
  HFSPlusExtentMapEntry* entry = _map.insertAt(position, run);
  if (entry == nullptr) {
    return outOfMemory();
  }
  ++_extentCount;
  return entry;
}

Result<> HFSPlusExtentMap::deleteBlocks(uint32_t start, uint32_t count) {
  std::optional<Range> range = clippedRange(start, count);
  while (range && range->count > 0) {
    uint32_t done = TRY(freeBeginning(*range));
    range->start += done;
    range->count -= done;
  }
  return {};
}

/// Frees the part of a range that lies in one run, and answers how many blocks that were.
Result<uint32_t> HFSPlusExtentMap::freeBeginning(Range range) {
  Map::Position position = _map.positionAfter(range.start);
  HFSPlusExtentMapEntry* entry = _map.recordBefore(position);
  if (entry == nullptr) {
    return internalError();
  }
  uint32_t entryEnd = entry->start + blockCountForEntry(entry);
  uint32_t count = std::min(range.count, entryEnd - range.start);
  if (entry->info.type == kHFSPlusExtentUnalloced) {
    return count;
  }
  if (range.start + count < entryEnd) {
    TRY(splitAt(position, {range.start + count, entry->cnid, entry->info}));
  }
  if (entry->start < range.start) {
    entry = TRY(splitAt(position, {range.start, entry->cnid, entry->info}));
  }
  _blockCountForType[entry->info.type] -= count;
  _blockCountForType[kHFSPlusExtentUnalloced] += count;
  entry->cnid = 0;
  entry->info = {.type = kHFSPlusExtentUnalloced};
  coalesce(entry);
  return count;
}

/// Joins an entry with the neighbours that are alike.
void HFSPlusExtentMap::coalesce(HFSPlusExtentMapEntry* entry) {
  const HFSPlusExtentMapEntry* next = _map.next(entry);
  if (next != nullptr && alike(*entry, *next)) {
    _map.remove(next);
    --_extentCount;
  }
  if (entry->start == _startBlock) {
    return;
  }
  const HFSPlusExtentMapEntry* previous = _map.lastNotAfter(entry->start - 1);
  if (previous != nullptr && alike(*previous, *entry)) {
    _map.remove(entry);
    --_extentCount;
  }
}

Result<> HFSPlusExtentMap::removeEntry(const HFSPlusExtentMapEntry* entry) {
  if (entry == nullptr || entry != _map.first()) {
    return internalError();
  }
  uint32_t count = blockCountForEntry(entry);
  _blockCountForType[entry->info.type] -= count;
  _startBlock += count;
  --_extentCount;
  _map.remove(entry);
  return {};
}

Result<> HFSPlusExtentMap::removeToBlock(uint32_t block) {
  while (HFSPlusExtentMapEntry* entry = _map.first()) {
    if (entry->start >= block) {
      break;
    }
    uint32_t cut = block - entry->start;
    if (cut < blockCountForEntry(entry)) {
      _blockCountForType[entry->info.type] -= cut;
      _startBlock += cut;
      entry->start += cut;
      break;
    }
    TRY(removeEntry(entry));
  }
  return {};
}

void HFSPlusExtentMap::_clipLastExtent() {
  const HFSPlusExtentMapEntry* entry = _map.last();
  _blockCountForType[entry->info.type] -= blockCountForEntry(entry);
  _totalBlocks = entry->start;
  --_extentCount;
  _map.removeLast();
}

void HFSPlusExtentMap::clipToCapacity() {
  while (_extentCapacity != 0 && _extentCount > _extentCapacity) {
    _clipLastExtent();
  }
}

void HFSPlusExtentMap::limitMemoryUsageTo(uint64_t bytes) {
  if (bytes != 0) {
    LW_ASSERT(bytes > kBytesPerEntry);
  }
  _extentCapacity = bytes / kBytesPerEntry;
  clipToCapacity();
}

void HFSPlusExtentMap::validate(bool verbose) const {
  std::array<uint32_t, kExtentTypes> walked{};
  for (auto run = firstEntry(); run; run = nextEntry(run->entry)) {
    walked[run->entry->info.type] += run->count;
  }
  bool agree = walked == _blockCountForType;
  if (agree && !verbose) {
    return;
  }
  LWDebugLog(LWDebugLevel::Debug, "_dataBlockTotal = %08X\n", _dataBlockTotal);
  constexpr std::array<const char*, kExtentTypes> names = {"immutable", "unalloced", "allocated"};
  for (size_t type = 0; type < kExtentTypes; ++type) {
    LWDebugLog(LWDebugLevel::Debug, "%s = %08X vs %08X\n", names[type], _blockCountForType[type],
               walked[type]);
  }
  LW_ASSERT(agree);
}

void HFSPlusExtentMap::dumpEntry(const HFSPlusExtentMapEntry* entry,
                                 const HFSPlusPathLookup& path) const {
  if (!LWDebugEnabled(LWDebugLevel::Debug)) {
    return;
  }
  std::optional<std::string> name;
  if (entry->cnid != 0) {
    name = path(entry->cnid);
  }
  LWDebugLog(LWDebugLevel::Debug, "start = %08X, count = %08X, cnid = %08X, info = %02X %06X%s%@\n",
             entry->start, blockCountForEntry(entry), entry->cnid, uint8_t{entry->info.type},
             entry->info.data() & 0xFFFFFF, name ? "  " : "",
             name ? outputSafeString(*name) : std::string());
}

void HFSPlusExtentMap::dump(const HFSPlusPathLookup& path) const {
  if (!LWDebugEnabled(LWDebugLevel::Debug)) {
    return;
  }
  uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
  LWDebugLog(LWDebugLevel::Debug, "--------\n");
  LWDebugLog(LWDebugLevel::Debug, "extent count: %lu (%@)\n", _extentCount,
             LWPrettySize(_extentCount * kBytesPerEntry));
  LWDebugLog(LWDebugLevel::Debug, "block count: %lu (%@)\n", blockCount(),
             LWPrettySize(blockCount() * blockSize));
  LWDebugLog(LWDebugLevel::Debug, "block range: %08X - %08X\n", _startBlock, _totalBlocks - 1);
  for (auto run = firstEntry(); run; run = nextEntry(run->entry)) {
    dumpEntry(run->entry, path);
  }
}
