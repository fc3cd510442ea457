#include "HFSPlus/HFSPlusBootCachePlaylist.hpp"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

constexpr uint32_t kMagic = 0xA1B2C3D6;

/// Reads numbers in the byte order of the file.
class Reader {
 public:
  explicit Reader(std::span<const std::byte> bytes) : _bytes(bytes) {}

  /// Chooses the byte order by the first word; false when it is not the magic in either order.
  bool chooseOrder() {
    const auto magic = read<uint32_t>(0);
    _swapped = magic == std::byteswap(kMagic);
    return _swapped || magic == kMagic;
  }

  /// The caller has checked that the number lies inside the bytes.
  template <typename T>
  T read(size_t offset) const {
    T value;
    std::memcpy(&value, _bytes.data() + offset, sizeof value);
    return _swapped ? std::byteswap(value) : value;
  }

 private:
  std::span<const std::byte> _bytes;
  bool _swapped = false;
};

/// The blocks that a byte range touches, cut at the volume's end; nothing if there are none.
std::optional<HFSPlusBootCachePlaylist::Range> blockRange(uint64_t offset, uint64_t length,
                                                          uint32_t blockSize,
                                                          uint32_t totalBlocks) {
  const uint64_t start = offset / blockSize;
  if (start >= totalBlocks) {
    return std::nullopt;
  }
  const uint64_t bytesToEnd = uint64_t{totalBlocks} * blockSize - offset;
  const uint64_t end = offset + std::min(length, bytesToEnd);
  const uint64_t count = (end - start * blockSize + blockSize - 1) / blockSize;
  if (count == 0) {
    return std::nullopt;
  }
  return HFSPlusBootCachePlaylist::Range{static_cast<uint32_t>(start), static_cast<uint32_t>(count),
                                         0};
}

}  // namespace

std::optional<HFSPlusBootCachePlaylist> HFSPlusBootCachePlaylist::parse(
    std::span<const std::byte> bytes, uint32_t blockSize, uint32_t firstDataBlock,
    uint32_t totalBlocks) {
  if (bytes.size() < kHeaderBytes || bytes.size() > kFileBytesMax) {
    return std::nullopt;
  }
  Reader reader(bytes);
  if (!reader.chooseOrder()) {
    return std::nullopt;
  }
  const size_t entryCount = reader.read<uint32_t>(4);
  if (entryCount > (bytes.size() - kHeaderBytes) / kEntryBytes) {
    return std::nullopt;
  }
  std::vector<Range> ranges;
  ranges.reserve(entryCount);
  for (size_t i = 0; i < entryCount; ++i) {
    const size_t entry = kHeaderBytes + i * kEntryBytes;
    auto range = blockRange(reader.read<uint64_t>(entry), reader.read<uint64_t>(entry + 8),
                            blockSize, totalBlocks);
    if (range && range->startBlock >= firstDataBlock) {
      range->batch = reader.read<uint32_t>(entry + 16);
      ranges.push_back(*range);
    }
  }
  return HFSPlusBootCachePlaylist(std::move(ranges));
}

HFSPlusBootCachePlaylist::HFSPlusBootCachePlaylist(std::vector<Range> ranges)
    : _ranges(std::move(ranges)) {
  // Of ranges with one start, the one listed last stands first.
  std::ranges::reverse(_ranges);
  std::ranges::stable_sort(_ranges, {}, &Range::startBlock);
  _highestEnds.reserve(_ranges.size());
  uint64_t highest = 0;
  for (const Range& range : _ranges) {
    highest = std::max(highest, uint64_t{range.startBlock} + range.blockCount);
    _highestEnds.push_back(highest);
  }
}

void HFSPlusBootCachePlaylist::claim(uint32_t block, uint32_t fileID, uint8_t forkType) {
  // The first range that does not end at or before the block.
  const auto end = std::ranges::upper_bound(_highestEnds, block);
  if (end == _highestEnds.end()) {
    return;
  }
  Range& range = _ranges[static_cast<size_t>(end - _highestEnds.begin())];
  if (range.startBlock <= block) {
    range.fileID = fileID;
    range.forkType = forkType;
  }
}

std::vector<HFSPlusBootCachePlaylist::Range> HFSPlusBootCachePlaylist::rangesInPlayOrder() const {
  std::vector<Range> ordered = _ranges;
  std::ranges::stable_sort(ordered, {}, &Range::batch);
  return ordered;
}
