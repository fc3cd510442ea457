#include "Tasks/HFSPlusCopyBuffer.hpp"

#include <algorithm>
#include <limits>

namespace {

constexpr uint64_t kDefaultSize = 0x1000000;  // when nobody knows how much memory there is
constexpr uint64_t kMaxSize = 0x4000000;
constexpr uint64_t kMemoryForMaxSize = 0x40000000;
constexpr uint64_t kMemoryPerByte = 16;

}  // namespace

uint64_t HFSPlusCopyBuffer::sizeForMemory(std::optional<uint64_t> physicalMemoryBytes) {
  if (!physicalMemoryBytes) {
    return kDefaultSize;
  }
  return *physicalMemoryBytes >= kMemoryForMaxSize ? kMaxSize
                                                   : *physicalMemoryBytes / kMemoryPerByte;
}

Result<HFSPlusCopyBuffer> HFSPlusCopyBuffer::open(uint64_t bytes, uint32_t blockSize) {
  const uint64_t blockCount = std::clamp<uint64_t>(bytes / blockSize, 1, UINT32_MAX);
  PlatformPages data = PlatformAllocatePages(blockCount * blockSize);
  if (data == nullptr) {
    return std::unexpected(XRDefragError::localized("Out of memory."));
  }
  return HFSPlusCopyBuffer(std::move(data), static_cast<uint32_t>(blockCount), blockSize);
}
