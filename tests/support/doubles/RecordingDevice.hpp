#pragma once

#include <memory>
#include <vector>

#include "Platform/PlatformDevice.hpp"

namespace doubles {

/// Remembers what was asked of a device, in order, and passes it on.
class RecordingDevice final : public PlatformDevice {
 public:
  enum class Call { Read, Write, Sync };

  struct Record {
    Call call;
    uint64_t offset;               // of a transfer
    size_t size;                   // of a transfer
    std::vector<std::byte> bytes;  // of a write
    bool isOnce = false;           // of a transfer of what is not asked for again soon
  };

  explicit RecordingDevice(std::shared_ptr<PlatformDevice> device) : _device(std::move(device)) {}

  std::expected<size_t, int> readAt(std::span<std::byte> bytes, uint64_t offset) override;
  std::expected<size_t, int> writeAt(std::span<const std::byte> bytes, uint64_t offset) override;
  std::expected<size_t, int> readOnceAt(std::span<std::byte> bytes, uint64_t offset) override;
  std::expected<size_t, int> writeOnceAt(std::span<const std::byte> bytes,
                                         uint64_t offset) override;
  std::expected<void, int> sync() override;
  uint32_t blockSize() const override { return _device->blockSize(); }
  uint64_t blockCount() const override { return _device->blockCount(); }

  const std::vector<Record>& records() const { return _records; }
  /// The writes and syncs alone.
  std::vector<Record> changes() const;
  void clear() { _records.clear(); }

 private:
  void recordTransfer(Call call, std::span<const std::byte> bytes, uint64_t offset, bool isOnce);

  std::shared_ptr<PlatformDevice> _device;
  std::vector<Record> _records;
};

}  // namespace doubles
