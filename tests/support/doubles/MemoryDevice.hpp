#pragma once

#include <array>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "Platform/PlatformDevice.hpp"

namespace doubles {

/// A device in memory, of any size: what was never written takes no room and reads as zeros.
/// May be used by several threads at once.
class MemoryDevice final : public PlatformDevice {
 public:
  explicit MemoryDevice(uint64_t sizeBytes, uint32_t blockSize = 512);
  /// A device with the given bytes, the last of which may be cut off to make whole sectors.
  explicit MemoryDevice(std::span<const std::byte> image, uint32_t blockSize = 512);

  std::expected<size_t, int> readAt(std::span<std::byte> bytes, uint64_t offset) override;
  std::expected<size_t, int> writeAt(std::span<const std::byte> bytes, uint64_t offset) override;
  std::expected<void, int> sync() override { return {}; }
  uint32_t blockSize() const override { return _blockSize; }
  uint64_t blockCount() const override { return _blockCount; }

  uint64_t sizeBytes() const { return _blockSize * _blockCount; }
  /// A copy of some of its bytes.
  std::vector<std::byte> bytes(uint64_t offset, size_t size);
  /// A copy of all of them.
  std::vector<std::byte> image() { return bytes(0, sizeBytes()); }

 private:
  static constexpr size_t kPageSize = 65536;
  using Page = std::array<std::byte, kPageSize>;

  /// Calls visit(page, offset in the page, offset in the range, size) for each part of a range.
  template <typename Visit>
  static void visitPages(uint64_t offset, size_t size, Visit visit);

  std::mutex _lock;
  uint32_t _blockSize;
  uint64_t _blockCount;
  std::map<uint64_t, std::unique_ptr<Page>> _pages;
};

}  // namespace doubles
