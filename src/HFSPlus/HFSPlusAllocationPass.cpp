#include "HFSPlus/HFSPlusAllocationPass.hpp"

#include <algorithm>
#include <utility>

namespace {

constexpr uint64_t kBytesAtOnce = uint64_t{1} << 20;

}  // namespace

Result<std::span<const std::byte>> HFSPlusAllocationPass::chunk(uint32_t index) {
  _cachedChunk.release();
  if (!_holds(index) && index >= _oneByOneBefore) {
    _readChunksFrom(index);
  }
  if (_holds(index)) {
    const size_t chunkSize = _allocation.chunkSize();
    return std::span(_buffer.get() + (index - _firstChunk) * chunkSize, chunkSize);
  }
  _cachedChunk = TRY(_allocation.cachedChunkWithChunkIndex(index));
  return std::as_const(*_cachedChunk).data();
}

void HFSPlusAllocationPass::_readChunksFrom(uint32_t index) {
  const uint64_t chunkSize = _allocation.chunkSize();
  const uint32_t count = _uncachedChunksFrom(index);
  _firstChunk = index;
  _chunkCount = 0;
  if (count == 0) {
    return;
  }
  if (!_buffer) {
    _buffer = PlatformAllocatePages(
        std::min(std::max(kBytesAtOnce, chunkSize), _allocation.logicalSize()));
  }
  if (_buffer && _allocation.read({_buffer.get(), count * chunkSize}, index * chunkSize)) {
    _chunkCount = count;
  } else {
    _oneByOneBefore = index + count;
  }
}

/// The number of chunks in a row that are worth reading at once. The last one of the file, which
/// may end anywhere, is not among them unless it is whole.
uint32_t HFSPlusAllocationPass::_uncachedChunksFrom(uint32_t index) const {
  const uint64_t chunkSize = _allocation.chunkSize();
  const uint64_t end = std::min(_allocation.logicalSize() / chunkSize,
                                index + std::max<uint64_t>(kBytesAtOnce / chunkSize, 1));
  uint32_t next = index;
  while (next < end && !_allocation.isCached(next)) {
    ++next;
  }
  return next - index;
}
