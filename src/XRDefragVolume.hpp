#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>

#include "LWKit/LWThreadGate.hpp"
#include "Platform/PlatformDevice.hpp"
#include "XRDefragError.hpp"

/// The bytes of one device: bounded, chunked, positioned reads and writes by byte offset, and the
/// gate through which tasks take turns on it. Knows nothing of any volume format.
///
/// Transfers may be issued from any thread; whoever needs several of them to belong together closes
/// the gate first.
class XRDefragVolume {
 public:
  /// Opens a block device or an image file: for reading and writing and exclusively, or for
  /// reading only when it is mounted or may not be written.
  [[nodiscard]] static Result<std::unique_ptr<XRDefragVolume>> openDevice(const std::string& path);

  /// A volume on a device that is open already.
  XRDefragVolume(std::string path, std::shared_ptr<PlatformDevice> device, bool mounted,
                 bool writable);

  /// A volume that shares the other one's device, with a gate of its own.
  explicit XRDefragVolume(const XRDefragVolume& other);
  XRDefragVolume& operator=(const XRDefragVolume&) = delete;
  virtual ~XRDefragVolume() = default;

  /// The same without what a subclass adds.
  XRDefragVolume plainDevice() const { return XRDefragVolume(*this); }

  /// Reads bytes at a device byte offset, in pieces of at most 1 MiB.
  [[nodiscard]] virtual Result<> read(std::span<std::byte> bytes, uint64_t offset);

  /// Writes bytes at a device byte offset, in pieces of at most 1 MiB. The volume must be writable.
  [[nodiscard]] virtual Result<> write(std::span<const std::byte> bytes, uint64_t offset);

  /// One of many transfers: the memory it fills or empties, and its place on the device.
  struct Transfer {
    std::span<std::byte> bytes;
    uint64_t offset;  // bytes
  };
  /// Lets others have a turn where that is due; an error when the transfers are to end.
  using MayGoOn = std::function<Result<>()>;

  /// Reads, or writes, all of a list of transfers that do not overlap, in pieces of at most 1 MiB,
  /// of which several may be under way at once. They begin in the list's order. The calling thread
  /// takes part, and asks `mayGoOn` between two pieces of its own; after an error of it, or of a
  /// transfer, no further piece begins. When these return nothing is under way any more.
  [[nodiscard]] virtual Result<> readAll(std::span<const Transfer> transfers,
                                         const MayGoOn& mayGoOn);
  [[nodiscard]] virtual Result<> writeAll(std::span<const Transfer> transfers,
                                          const MayGoOn& mayGoOn);

  /// Returns once everything written so far is on stable storage.
  [[nodiscard]] Result<> synchronize();

  /// Asks the system whether the device is mounted now.
  bool mounted() const;

  bool isMounted() const { return _mounted; }
  bool isWritable() const { return _writable; }
  /// Sector size in bytes.
  uint32_t deviceBlockSize() const { return _deviceBlockSize; }
  /// Bytes of the device in whole sectors; the bound of every transfer.
  uint64_t deviceSizeBytes() const { return _deviceSizeBytes; }
  const std::string& path() const { return _path; }

  void closeGate() { _gate.close(); }
  void openGate() { _gate.open(); }
  void yieldGate() { _gate.yield(); }

 protected:
  bool _writable;

 private:
  LWThreadGate _gate;
  std::string _path;
  std::shared_ptr<PlatformDevice> _device;
  bool _mounted;
  uint32_t _deviceBlockSize;
  uint64_t _deviceBlockCount;
  uint64_t _deviceSizeBytes;
};
