#include "XRDefragVolume.hpp"

#include <algorithm>
#include <cerrno>

#include "LWKit/LWDebug.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "Platform/PlatformMounts.hpp"
#include "Platform/PlatformRawDevice.hpp"

namespace {

constexpr size_t kTransferMax = size_t{1} << 20;

XRDefragError openError(const std::string& path, int error) {
  switch (error) {
    case EACCES:
      return XRDefragError::localized("Permission was denied.");
    case EBUSY:
      return XRDefragError::localized("The device is busy.");
    default:
      return XRDefragError::localized("Unable to open %1$@. An error %2$d occurred.", path, error);
  }
}

/// The messages of one direction of transfer.
struct TransferMessages {
  std::string_view outOfRange;
  std::string_view shortCount;
  std::string_view failed;
};

constexpr TransferMessages kReadMessages = {
    .outOfRange = "Out of range read failed at offset %llu and size %lu.",
    .shortCount = "Read failed at offset %llu and size %lu.",
    .failed = "Read failed with an error %d at offset %llu and size %lu.",
};

constexpr TransferMessages kWriteMessages = {
    .outOfRange = "Out of range write failed at offset %llu and size %lu.",
    .shortCount = "Write failed at offset %llu and size %lu.",
    .failed = "Write failed with an error %d at offset %llu and size %lu.",
};

/// Moves all the bytes in pieces, each by one call of `transferPiece(piece, offset)`.
template <typename Byte, typename TransferPiece>
Result<> transfer(std::span<Byte> bytes, uint64_t offset, uint64_t limit,
                  const TransferMessages& messages, TransferPiece transferPiece) {
  if (offset > limit || bytes.size() > limit - offset) {
    return std::unexpected(XRDefragError::localized(messages.outOfRange, offset, bytes.size()));
  }
  while (!bytes.empty()) {
    const std::span<Byte> piece = bytes.first(std::min(bytes.size(), kTransferMax));
    const std::expected<size_t, int> count = transferPiece(piece, offset);
    if (!count) {
      return std::unexpected(
          XRDefragError::localized(messages.failed, count.error(), offset, piece.size()));
    }
    if (*count != piece.size()) {
      return std::unexpected(XRDefragError::localized(messages.shortCount, offset, piece.size()));
    }
    bytes = bytes.subspan(piece.size());
    offset += piece.size();
  }
  return {};
}

}  // namespace

Result<std::unique_ptr<XRDefragVolume>> XRDefragVolume::openDevice(const std::string& path) {
  using Access = PlatformRawDevice::Access;
  const bool mounted = PlatformMounts::isMounted(path);
  auto device = PlatformRawDevice::open(path, mounted ? Access::Shared : Access::Exclusive);
  if (!device) {
    return std::unexpected(openError(path, device.error()));
  }
  const bool writable = (*device)->isWritable();
  auto volume = std::make_unique<XRDefragVolume>(path, std::move(*device), mounted, writable);
  LWDebugLog(LWDebugLevel::Info,
             "Device info         = %@, %@ (block size = %lu, total blocks = %llu)\n", path,
             LWPrettySize(volume->_deviceSizeBytes), volume->_deviceBlockSize,
             volume->_deviceBlockCount);
  return volume;
}

XRDefragVolume::XRDefragVolume(std::string path, std::shared_ptr<PlatformDevice> device,
                               bool mounted, bool writable)
    : _writable(writable),
      _path(std::move(path)),
      _device(std::move(device)),
      _mounted(mounted),
      _deviceBlockSize(_device->blockSize()),
      _deviceBlockCount(_device->blockCount()),
      _deviceSizeBytes(_deviceBlockSize * _deviceBlockCount) {}

XRDefragVolume::XRDefragVolume(const XRDefragVolume& other)
    : _writable(other._writable),
      _path(other._path),
      _device(other._device),
      _mounted(other._mounted),
      _deviceBlockSize(other._deviceBlockSize),
      _deviceBlockCount(other._deviceBlockCount),
      _deviceSizeBytes(other._deviceSizeBytes) {}

Result<> XRDefragVolume::read(std::span<std::byte> bytes, uint64_t offset) {
  return transfer(
      bytes, offset, _deviceSizeBytes, kReadMessages,
      [this](std::span<std::byte> piece, uint64_t at) { return _device->readAt(piece, at); });
}

Result<> XRDefragVolume::write(std::span<const std::byte> bytes, uint64_t offset) {
  LW_ASSERT(_writable);
  return transfer(bytes, offset, _deviceSizeBytes, kWriteMessages,
                  [this](std::span<const std::byte> piece, uint64_t at) {
                    return _device->writeAt(piece, at);
                  });
}

Result<> XRDefragVolume::synchronize() {
  if (const auto synced = _device->sync(); !synced) {
    LWDebugLog(LWDebugLevel::Warning, "Synchronizing %@ failed with an error %d.\n", _path,
               synced.error());
    return std::unexpected(XRDefragError::localized("Write failure."));
  }
  return {};
}

bool XRDefragVolume::mounted() const {
  return PlatformMounts::isMounted(_path);
}
