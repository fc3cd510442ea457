#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Platform/PlatformDescriptor.hpp"
#include "Platform/PlatformDevice.hpp"

/// A block device or a regular image file.
///
/// How it transfers (measured: reading and writing a 512 MiB image and a loop device over it in
/// pieces of 4 KiB, 64 KiB and 1 MiB): large pieces go directly between buffer and device, which
/// beats the page cache by 1.3 to 1.7 times once the data must be on stable storage, and leaves
/// other people's cache alone; small ones, the volume's metadata, go through the page cache, which
/// beats direct transfers by five to ten times. The kernel keeps both views of a file coherent.
///
/// Transfers may be issued from any thread.
class PlatformRawDevice final : public PlatformDevice {
 public:
  enum class Access {
    /// For reading and writing, and nobody else may have it so; for reading only, and no writer
    /// beside us, where writing is not permitted.
    Exclusive,
    /// For reading only, whoever else uses it.
    Shared,
  };

  /// Opens the device at a path. Errors: EBUSY when somebody else holds it, EACCES when it may not
  /// even be read, EISDIR for a directory, ENXIO for a socket, ENOTTY for what else has no sectors.
  /// Returns at once for a FIFO and has no side effect on a character device.
  [[nodiscard]] static std::expected<std::shared_ptr<PlatformRawDevice>, int> open(
      const std::string& path, Access access);

  std::expected<size_t, int> readAt(std::span<std::byte> bytes, uint64_t offset) override;
  std::expected<size_t, int> writeAt(std::span<const std::byte> bytes, uint64_t offset) override;
  std::expected<void, int> sync() override;
  uint32_t blockSize() const override { return _blockSize; }
  uint64_t blockCount() const override { return _blockCount; }

  /// Whether writing is permitted.
  bool isWritable() const { return _writable; }

 private:
  PlatformRawDevice() = default;

  std::expected<void, int> openFile(const PlatformDescriptor& place, bool blockDevice,
                                    Access access);
  std::expected<void, int> measure(bool blockDevice);
  void openForDirectTransfers();
  bool goesDirectly(const void* address, size_t size, uint64_t offset) const;

  PlatformDescriptor _file;
  PlatformDescriptor _directFile;  // the same file, past the page cache; may be closed
  std::vector<PlatformDescriptor>
      _held;  // other devices with the same bytes, held against their users
  bool _writable = false;
  uint32_t _blockSize = 0;
  uint64_t _blockCount = 0;
  uint32_t _memoryAlignment = 0;  // what direct transfers demand, in bytes
  uint32_t _offsetAlignment = 0;
  std::atomic<bool> _directWorks = false;
};
