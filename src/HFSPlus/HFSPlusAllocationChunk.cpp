#include "HFSPlus/HFSPlusAllocationChunk.hpp"

#include <new>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "LWKit/LWDebug.hpp"

Result<std::unique_ptr<HFSPlusAllocationChunk>> HFSPlusAllocationChunk::open(
    HFSPlusAllocation& allocation, uint32_t index) {
  uint32_t size = TRY(allocation.chunkSizeFromChunkIndex(index));
  std::unique_ptr<std::byte[]> data(new (std::nothrow) std::byte[size]);
  if (data == nullptr) {
    return std::unexpected(XRDefragError::localized("Out of memory."));
  }
  TRY(allocation.readChunk(index, {data.get(), size}));
  return std::unique_ptr<HFSPlusAllocationChunk>(
      new HFSPlusAllocationChunk(allocation, index, size, std::move(data)));
}

Result<> HFSPlusAllocationChunk::flush() {
  if (!_dirty) {
    return {};
  }
  _dirty = false;
  Result<> result = _allocation.writeChunk(_index, data());
  if (!result) {
    LWDebugLog(LWDebugLevel::Warning, "%@\n", result.error().description());
  }
  return result;
}

void HFSPlusAllocationChunk::cachedChunkRelease() {
  _allocation.cachedChunkRelease(*this);
}
