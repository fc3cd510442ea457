#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <span>

/// The one seam between the program and the bytes of a device. Behind it stand the real device and,
/// in tests, devices in memory, devices that fail and devices that remember.
///
/// Transfers are positioned and keep no file position, so several threads may issue them at once.
/// Errors are errno values.
class PlatformDevice {
 public:
  virtual ~PlatformDevice() = default;

  /// Reads up to `bytes.size()` bytes at a byte offset; the count may be short at the device's end.
  virtual std::expected<size_t, int> readAt(std::span<std::byte> bytes, uint64_t offset) = 0;

  /// Writes up to `bytes.size()` bytes at a byte offset; the count may be short.
  virtual std::expected<size_t, int> writeAt(std::span<const std::byte> bytes, uint64_t offset) = 0;

  /// The same for bytes that nobody is going to ask for again soon, such as those of files that are
  /// being moved: they need not push anything out of the system's cache.
  virtual std::expected<size_t, int> readOnceAt(std::span<std::byte> bytes, uint64_t offset) {
    return readAt(bytes, offset);
  }
  virtual std::expected<size_t, int> writeOnceAt(std::span<const std::byte> bytes,
                                                 uint64_t offset) {
    return writeAt(bytes, offset);
  }

  /// How many transfers are best given to the device at once.
  virtual unsigned transfersAtOnce() const { return 1; }

  /// Returns once everything written so far is on stable storage.
  virtual std::expected<void, int> sync() = 0;

  /// Sector size in bytes.
  virtual uint32_t blockSize() const = 0;

  /// Number of sectors.
  virtual uint64_t blockCount() const = 0;
};
