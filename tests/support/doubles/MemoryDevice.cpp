#include "support/doubles/MemoryDevice.hpp"

#include <algorithm>

namespace doubles {

MemoryDevice::MemoryDevice(uint64_t sizeBytes, uint32_t blockSize)
    : _blockSize(blockSize), _blockCount(sizeBytes / blockSize) {}

MemoryDevice::MemoryDevice(std::span<const std::byte> image, uint32_t blockSize)
    : MemoryDevice(image.size(), blockSize) {
  static_cast<void>(writeAt(image.first(sizeBytes()), 0));
}

template <typename Visit>
void MemoryDevice::visitPages(uint64_t offset, size_t size, Visit visit) {
  for (size_t done = 0; done < size;) {
    const uint64_t at = offset + done;
    const size_t count = std::min<size_t>(size - done, kPageSize - at % kPageSize);
    visit(at / kPageSize, at % kPageSize, done, count);
    done += count;
  }
}

std::expected<size_t, int> MemoryDevice::readAt(std::span<std::byte> bytes, uint64_t offset) {
  const std::lock_guard guard(_lock);
  if (offset >= sizeBytes()) {
    return size_t{0};
  }
  const size_t size = std::min<uint64_t>(bytes.size(), sizeBytes() - offset);
  visitPages(offset, size, [&](uint64_t page, size_t inPage, size_t inRange, size_t count) {
    const auto found = _pages.find(page);
    if (found == _pages.end()) {
      std::ranges::fill(bytes.subspan(inRange, count), std::byte{0});
    } else {
      std::copy_n(found->second->data() + inPage, count, bytes.data() + inRange);
    }
  });
  return size;
}

std::expected<size_t, int> MemoryDevice::writeAt(std::span<const std::byte> bytes,
                                                 uint64_t offset) {
  const std::lock_guard guard(_lock);
  if (offset >= sizeBytes()) {
    return size_t{0};
  }
  const size_t size = std::min<uint64_t>(bytes.size(), sizeBytes() - offset);
  visitPages(offset, size, [&](uint64_t page, size_t inPage, size_t inRange, size_t count) {
    std::unique_ptr<Page>& slot = _pages[page];
    if (!slot) {
      slot = std::make_unique<Page>();
    }
    std::copy_n(bytes.data() + inRange, count, slot->data() + inPage);
  });
  return size;
}

std::vector<std::byte> MemoryDevice::bytes(uint64_t offset, size_t size) {
  std::vector<std::byte> result(size);
  static_cast<void>(readAt(result, offset));
  return result;
}

}  // namespace doubles
