#include "HFSPlus/HFSPlusVolumePlace.hpp"

#include <array>

#include "HFSPlus/HFSPlusByteOrder.hpp"

namespace {

// The wrapper's master directory block: offsets of what it tells about the volume inside.
constexpr size_t kAllocationBlockSize = 20;   // u32, bytes
constexpr size_t kFirstAllocationBlock = 28;  // u16, in units of 512 bytes
constexpr size_t kEmbeddedSignature = 124;    // u16
constexpr size_t kEmbeddedStartBlock = 126;   // u16, wrapper allocation blocks
constexpr size_t kEmbeddedBlockCount = 128;   // u16
constexpr uint64_t kAllocationBlockUnit = 512;

}  // namespace

Result<HFSPlusVolumePlace> HFSPlusLocateVolume(XRDefragVolume& device) {
  std::array<std::byte, sizeof(HFSPlusVolumeHeader)> block;
  TRY(device.read(block, kHFSPlusVolumeHeaderOffset));
  if (readBigEndian<uint16_t>(block.data()) == kHFSSigWord) {
    const auto embedded = readBigEndian<uint16_t>(block.data() + kEmbeddedSignature);
    if (embedded == kHFSPlusSigWord || embedded == kHFSXSigWord) {
      const uint64_t blockSize = readBigEndian<uint32_t>(block.data() + kAllocationBlockSize);
      const uint64_t first = readBigEndian<uint16_t>(block.data() + kFirstAllocationBlock);
      const uint64_t start = readBigEndian<uint16_t>(block.data() + kEmbeddedStartBlock);
      const uint64_t count = readBigEndian<uint16_t>(block.data() + kEmbeddedBlockCount);
      return HFSPlusVolumePlace{.startOffset = start * blockSize + first * kAllocationBlockUnit,
                                .sizeBytes = count * blockSize};
    }
  }
  return HFSPlusVolumePlace{.startOffset = 0, .sizeBytes = device.deviceSizeBytes()};
}
