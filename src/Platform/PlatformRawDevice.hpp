#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Platform/PlatformDescriptor.hpp"
#include "Platform/PlatformDevice.hpp"

/// A block device or a regular image file.
///
/// How it transfers is settled by measurements, which bench/run repeats. Metadata goes through the
/// page cache: the system reads ahead of whoever reads on and on, and a catalog that is scanned
/// again comes from memory. What is transferred once goes directly between buffer and device where
/// it is large, which leaves other people's cache alone and nothing for a sync to wait for. The
/// kernel keeps both views of a file coherent.
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
  std::expected<size_t, int> readOnceAt(std::span<std::byte> bytes, uint64_t offset) override;
  std::expected<size_t, int> writeOnceAt(std::span<const std::byte> bytes,
                                         uint64_t offset) override;
  /// Small transfers wait for the device's answer more than for its bytes, so that several on their
  /// way at once take less time than one after another. Not more than a disk's own queue takes.
  unsigned transfersAtOnce() const override { return 32; }
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
