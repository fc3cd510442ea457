#include "HFSPlus/HFSPlusAllocation.hpp"

#include <algorithm>
#include <utility>

#include "HFSPlus/HFSPlusBitmapBits.hpp"
#include "LWKit/LWDebug.hpp"
#include "LWKit/LWStringUtilities.hpp"

namespace {

constexpr uint32_t kSmallestChunkSize = 0x8000;  // bytes
constexpr uint64_t kIdleCacheSize = 0x80000;     // bytes

/// Whether a number of bits fits in a number of bytes.
bool bitsFit(uint64_t bits, uint64_t bytes) {
  return bits / 8 + (bits % 8 != 0) <= bytes;
}

std::unexpected<XRDefragError> chunkOutOfRange(uint32_t index) {
  return std::unexpected(
      XRDefragError::localized("Allocation chunk %1$lu is out of range.", index));
}

}  // namespace

HFSPlusAllocation::HFSPlusAllocation(HFSPlusVolumeAccess& volume)
    : HFSPlusFile(volume, kHFSAllocationFileID),
      _chunkSize(std::max(volume.hostVolumeHeader().blockSize, kSmallestChunkSize)),
      _chunkCacheLimit(std::max<uint64_t>(kIdleCacheSize / _chunkSize, 1)) {}

Result<std::unique_ptr<HFSPlusAllocation>> HFSPlusAllocation::open(HFSPlusVolumeAccess& volume) {
  std::unique_ptr<HFSPlusAllocation> allocation(new HFSPlusAllocation(volume));
  if (!bitsFit(volume.hostVolumeHeader().totalBlocks, allocation->logicalSize())) {
    return std::unexpected(XRDefragError::localized("Allocation file is inconsistent."));
  }
  LWDebugLog(LWDebugLevel::Info, "Allocation size     = %@ (total blocks = %lu)\n",
             LWPrettySize(allocation->logicalSize()), allocation->totalBlocks());
  return allocation;
}

HFSPlusAllocation::~HFSPlusAllocation() {
  LW_ASSERT(_chunkCache.size() == _chunkCacheTOC.size());
}

// Geometry

uint64_t HFSPlusAllocation::chunkCount() const {
  return logicalSize() / _chunkSize + (logicalSize() % _chunkSize != 0);
}

uint32_t HFSPlusAllocation::chunkIndexFromBlockIndex(uint32_t block) const {
  return static_cast<uint32_t>(block / (uint64_t{_chunkSize} * 8));
}

Result<uint32_t> HFSPlusAllocation::chunkSizeFromChunkIndex(uint32_t index) const {
  if (index >= chunkCount()) {
    return chunkOutOfRange(index);
  }
  uint64_t left = logicalSize() - uint64_t{index} * _chunkSize;
  uint64_t blockSize = volume().hostVolumeHeader().blockSize;
  uint64_t rounded = left >= _chunkSize ? left : (left + blockSize - 1) / blockSize * blockSize;
  return static_cast<uint32_t>(std::min<uint64_t>(rounded, _chunkSize));
}

// Chunk transfers

/// Where a chunk's bytes are in the file: all of them but those beyond the logical size, which only
/// round the last chunk up to whole blocks.
Result<HFSPlusAllocation::FileRange> HFSPlusAllocation::fileRangeOfChunk(uint32_t index) const {
  uint32_t size = TRY(chunkSizeFromChunkIndex(index));
  uint64_t offset = uint64_t{index} * _chunkSize;
  return FileRange{offset, static_cast<size_t>(std::min<uint64_t>(size, logicalSize() - offset))};
}

Result<> HFSPlusAllocation::readChunk(uint32_t index, std::span<std::byte> bytes) {
  FileRange range = TRY(fileRangeOfChunk(index));
  LW_ASSERT(bytes.size() >= range.length);
  std::ranges::fill(bytes.subspan(range.length), std::byte{0});
  return read(bytes.first(range.length), range.offset);
}

Result<> HFSPlusAllocation::writeChunk(uint32_t index, std::span<const std::byte> bytes) {
  FileRange range = TRY(fileRangeOfChunk(index));
  LW_ASSERT(bytes.size() >= range.length);
  return write(bytes.first(range.length), range.offset);
}

// Chunk cache

Result<HFSPlusAllocationChunkHold> HFSPlusAllocation::cachedChunkWithChunkIndex(uint32_t index) {
  auto cell = _chunkCacheTOC.find(index);
  if (cell == _chunkCacheTOC.end()) {
    auto chunk = TRY(HFSPlusAllocationChunk::open(*this, index));
    cell = _chunkCacheTOC.try_emplace(index).first;
    cell->second.chunk = std::move(chunk);
  } else if (cell->second.holds == 0) {
    _chunkCache.erase(cell->second.idle);
  }
  ++cell->second.holds;
  return HFSPlusAllocationChunkHold(*cell->second.chunk);
}

Result<HFSPlusAllocationChunkHold> HFSPlusAllocation::cachedChunkWithBlockIndex(uint32_t block) {
  return cachedChunkWithChunkIndex(chunkIndexFromBlockIndex(block));
}

void HFSPlusAllocation::cachedChunkRelease(HFSPlusAllocationChunk& chunk) {
  auto cell = _chunkCacheTOC.find(chunk.index());
  LW_ASSERT(cell != _chunkCacheTOC.end());
  LW_ASSERT(cell->second.chunk.get() == &chunk);
  LW_ASSERT(cell->second.holds > 0);
  if (--cell->second.holds > 0) {
    return;
  }
  cell->second.idle = _chunkCache.insert(_chunkCache.begin(), &chunk);
  if (_chunkCache.size() > _chunkCacheLimit) {
    _cachedChunkDealloc(_chunkCacheTOC.find(_chunkCache.back()->index()));
  }
}

void HFSPlusAllocation::_cachedChunkDealloc(TOC::iterator cell) {
  LW_ASSERT(cell != _chunkCacheTOC.end());
  if (Result<> written = cell->second.chunk->flush(); !written && !_evictionError) {
    _evictionError = std::move(written).error();
  }
  _chunkCache.erase(cell->second.idle);
  _chunkCacheTOC.erase(cell);
}

Result<> HFSPlusAllocation::flush() {
  Result<> result;
  if (std::optional<XRDefragError> error = std::exchange(_evictionError, std::nullopt)) {
    result = std::unexpected(*std::move(error));
  }
  for (auto& [index, cell] : _chunkCacheTOC) {
    Result<> written = cell.chunk->flush();
    if (!written && result) {
      result = std::move(written);
    }
  }
  if (result) {
    _driftAtFlush = _drift;
  }
  return result;
}

Result<> HFSPlusAllocation::discardChanges() {
  LW_ASSERT(_chunkCache.size() == _chunkCacheTOC.size());
  _chunkCache.clear();
  _chunkCacheTOC.clear();
  _evictionError.reset();
  _freed.clear();
  _drift = _driftAtFlush;
  return {};
}

int64_t HFSPlusAllocation::takeFreeBlockDrift() {
  _driftAtFlush = 0;
  return std::exchange(_drift, 0);
}

// Ranges of bits

Result<> HFSPlusAllocation::checkRange(uint32_t block, uint32_t count) const {
  uint64_t end = uint64_t{block} + count;
  if (!bitsFit(end, logicalSize())) {
    return std::unexpected(
        XRDefragError::localized("Allocation block %1$lu is out of range.", end));
  }
  return {};
}

/// The beginning of a range that lies in one chunk.
Result<HFSPlusAllocation::Span> HFSPlusAllocation::spanOf(uint32_t block, uint32_t count) {
  auto chunk = TRY(cachedChunkWithBlockIndex(block));
  uint64_t offset = block - uint64_t{chunk->index()} * _chunkSize * 8;
  uint64_t left = uint64_t{chunk->size()} * 8 - offset;
  return Span{std::move(chunk), offset, static_cast<uint32_t>(std::min<uint64_t>(count, left))};
}

Result<> HFSPlusAllocation::changeSpans(uint32_t block, uint32_t count, Bit bit, Change& change) {
  TRY(checkRange(block, count));
  while (count > 0) {
    Span span = TRY(spanOf(block, count));
    auto changeBits = bit == Bit::Set ? HFSPlusSetBits : HFSPlusClearBits;
    uint64_t changed = changeBits(span.chunk->mutableData(), span.offset, span.count);
    if (changed > 0) {
      span.chunk->setDirty(true);
    }
    change.blocks += span.count;
    change.bits += static_cast<int64_t>(changed);
    block += span.count;
    count -= span.count;
  }
  return {};
}

Result<> HFSPlusAllocation::change(uint32_t block, uint32_t count, Bit bit) {
  Change change;
  Result<> result = changeSpans(block, count, bit, change);
  int64_t sign = bit == Bit::Set ? -1 : 1;
  // By blocks on purpose; the drift knows better.
  volume().updateFreeBlocks(sign * change.blocks);
  if (bit == Bit::Clear) {
    _freed.add(block, static_cast<uint64_t>(change.blocks));
  }
  _drift += sign * (change.bits - change.blocks);
  return result;
}

Result<uint32_t> HFSPlusAllocation::leadingRun(uint32_t block, uint32_t count, Bit bit) {
  TRY(checkRange(block, count));
  uint32_t examined = 0;
  while (examined < count) {
    Span span = TRY(spanOf(block + examined, count - examined));
    auto runLength = bit == Bit::Set ? HFSPlusSetRun : HFSPlusClearRun;
    uint64_t run = runLength(span.chunk->data(), span.offset, span.count);
    examined += static_cast<uint32_t>(run);
    if (run < span.count) {
      break;
    }
  }
  return examined;
}

Result<> HFSPlusAllocation::set(uint32_t block, uint32_t count) {
  return change(block, count, Bit::Set);
}

Result<> HFSPlusAllocation::clear(uint32_t block, uint32_t count) {
  return change(block, count, Bit::Clear);
}

Result<uint32_t> HFSPlusAllocation::isSet(uint32_t block, uint32_t count) {
  return leadingRun(block, count, Bit::Set);
}

Result<uint32_t> HFSPlusAllocation::isClear(uint32_t block, uint32_t count) {
  return leadingRun(block, count, Bit::Clear);
}

Result<bool> HFSPlusAllocation::takeUnusedRuns(RunLength length, uint32_t hint,
                                               const HFSPlusBlockRanges& avoided,
                                               const TakeRun& take) {
  const uint64_t totalBlocks = volume().hostVolumeHeader().totalBlocks;
  const uint64_t middle = std::min<uint64_t>(hint, totalBlocks);
  return TRY(takeUnusedRunsIn(middle, totalBlocks, length, avoided, take)) ||
         TRY(takeUnusedRunsIn(0, middle, length, avoided, take));
}

Result<bool> HFSPlusAllocation::takeUnusedRunsIn(uint64_t begin, uint64_t end, RunLength length,
                                                 const HFSPlusBlockRanges& avoided,
                                                 const TakeRun& take) {
  while (begin < end) {
    const auto block = static_cast<uint32_t>(begin);
    uint64_t count = TRY(isClear(block, static_cast<uint32_t>(std::min(length.most, end - begin))));
    if (count == 0) {
      begin += TRY(isSet(block, static_cast<uint32_t>(end - begin)));
      continue;
    }
    uint64_t next = begin + count;
    for (const HFSPlusBlockRanges* used : {&std::as_const(_freed), &avoided}) {
      if (const auto overlap = used->firstOverlap(begin, count)) {
        count = std::max(overlap->begin, begin) - begin;
        next = overlap->end;
      }
    }
    if (count >= length.least && take(block, count)) {
      return true;
    }
    begin = next;
  }
  return false;
}

void HFSPlusAllocation::dump(uint32_t block, uint32_t count) {
  LW_ASSERT(checkRange(block, count).has_value());
  while (count > 0) {
    Result<Span> span = spanOf(block, count);
    LW_ASSERT(span.has_value());
    for (uint64_t bit = span->offset; bit < span->offset + span->count; ++bit) {
      bool isSet = HFSPlusSetRun(span->chunk->data(), bit, 1) == 1;
      LWDebugLog(LWDebugLevel::Debug, isSet ? "1" : "0");
    }
    block += span->count;
    count -= span->count;
  }
  LWDebugLog(LWDebugLevel::Debug, "\n");
}
