#include "HFSPlus/HFSPlusMetadataZone.hpp"

#include <algorithm>
#include <bit>
#include <limits>

namespace {

constexpr uint64_t kMiB = uint64_t{1} << 20;
constexpr uint64_t kGiB = uint64_t{1} << 30;
constexpr uint64_t kVolumeBytesMin = 10 * kGiB;  // smaller volumes have no zone

uint64_t divideRoundingUp(uint64_t value, uint64_t divisor) {
  return value / divisor + (value % divisor != 0 ? 1 : 0);
}

/// Bytes set aside for a B-tree whose size follows the volume's.
uint64_t treeAllowance(uint64_t gibibytes, uint64_t perGibibyte, uint64_t most) {
  constexpr uint64_t kLeast = 2048;
  constexpr uint64_t kEntryBytes = 64;
  const uint64_t entries = std::bit_ceil(std::clamp(gibibytes * perGibibyte, kLeast, most));
  return entries * kEntryBytes + kEntryBytes;
}

uint64_t zoneBytes(uint64_t blockSize, uint64_t totalBlocks) {
  const uint64_t volumeBytes = blockSize * totalBlocks;
  const uint64_t gibibytes = volumeBytes / kGiB;
  const uint64_t perHundredGibibytes = (volumeBytes >> 32) / 25 + 1;
  const uint64_t bitmap = divideRoundingUp(totalBlocks / 8, blockSize) * blockSize;
  const uint64_t catalog = std::min(volumeBytes / 1024 * 10, kGiB);
  const uint64_t hotFiles = std::clamp(volumeBytes / 1024 * 5, 10 * kMiB, 512 * kMiB);
  const uint64_t extents = std::min(perHundredGibibytes * 4 * kMiB, 128 * kMiB);
  const uint64_t journal = std::min(perHundredGibibytes * 8 * kMiB, 512 * kMiB);
  return bitmap + catalog + hotFiles + extents + journal +
         treeAllowance(gibibytes, 256, 2'097'152) + treeAllowance(gibibytes, 32, 262'144);
}

}  // namespace

uint32_t HFSPlusMetadataBlockCount(const HFSPlusVolumeHeader& header) {
  const uint64_t blockSize = header.blockSize;
  const bool journaled = (header.attributes & kHFSVolumeJournaledMask) != 0;
  if (!journaled || blockSize * header.totalBlocks < kVolumeBytesMin) {
    return 0;
  }
  // The zone is made of whole stretches that one block of the bitmap describes.
  const uint64_t stretchBlocks = 8 * blockSize;
  const uint64_t blocks = divideRoundingUp(zoneBytes(blockSize, header.totalBlocks), blockSize);
  const uint64_t count = divideRoundingUp(blocks, stretchBlocks) * stretchBlocks;
  return static_cast<uint32_t>(std::min<uint64_t>(count, std::numeric_limits<uint32_t>::max()));
}

HFSPlusMetadataZone HFSPlusMetadataZoneOf(const HFSPlusVolumeHeader& header) {
  const uint32_t count = HFSPlusMetadataBlockCount(header);
  return count > 1 ? HFSPlusMetadataZone{.startBlock = 1, .endBlock = count - 1}
                   : HFSPlusMetadataZone{};
}
