#include "XRDefragVolume.hpp"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <vector>

#include "LWKit/LWDebug.hpp"
#include "LWKit/LWSideBySide.hpp"
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

Result<> checkRange(uint64_t size, uint64_t offset, uint64_t limit,
                    const TransferMessages& messages) {
  if (offset > limit || size > limit - offset) {
    return std::unexpected(XRDefragError::localized(messages.outOfRange, offset, size));
  }
  return {};
}

/// What became of a piece of so many bytes.
Result<> resultOf(const std::expected<size_t, int>& count, size_t size, uint64_t offset,
                  const TransferMessages& messages) {
  if (!count) {
    return std::unexpected(XRDefragError::localized(messages.failed, count.error(), offset, size));
  }
  if (*count != size) {
    return std::unexpected(XRDefragError::localized(messages.shortCount, offset, size));
  }
  return {};
}

/// Moves all the bytes in pieces, each by one call of `transferPiece(piece, offset)`.
template <typename Byte, typename TransferPiece>
Result<> transfer(std::span<Byte> bytes, uint64_t offset, uint64_t limit,
                  const TransferMessages& messages, TransferPiece transferPiece) {
  TRY(checkRange(bytes.size(), offset, limit, messages));
  while (!bytes.empty()) {
    const std::span<Byte> piece = bytes.first(std::min(bytes.size(), kTransferMax));
    TRY(resultOf(transferPiece(piece, offset), piece.size(), offset, messages));
    bytes = bytes.subspan(piece.size());
    offset += piece.size();
  }
  return {};
}

using Transfer = XRDefragVolume::Transfer;

Result<std::vector<Transfer>> piecesOf(std::span<const Transfer> transfers, uint64_t limit,
                                       const TransferMessages& messages) {
  std::vector<Transfer> pieces;
  pieces.reserve(transfers.size());
  for (auto [bytes, offset] : transfers) {
    TRY(checkRange(bytes.size(), offset, limit, messages));
    while (!bytes.empty()) {
      pieces.push_back({bytes.first(std::min(bytes.size(), kTransferMax)), offset});
      offset += pieces.back().bytes.size();
      bytes = bytes.subspan(pieces.back().bytes.size());
    }
  }
  return pieces;
}

/// Moves all pieces, `threads` at a time, each by one call of `transferPiece(piece)`. Of several
/// errors the one of the first piece counts.
template <typename TransferPiece>
Result<> transferAll(std::span<const Transfer> pieces, unsigned threads,
                     const TransferMessages& messages, const XRDefragVolume::MayGoOn& mayGoOn,
                     TransferPiece transferPiece) {
  std::mutex lock;
  size_t failedPiece = pieces.size();
  std::expected<size_t, int> failure;
  Result<> permission;
  const auto move = [&](size_t index) {
    const std::expected<size_t, int> count = transferPiece(pieces[index]);
    if (count && *count == pieces[index].bytes.size()) {
      return true;
    }
    const std::lock_guard locked(lock);
    if (index < failedPiece) {
      failedPiece = index;
      failure = count;
    }
    return false;
  };
  LWRunSideBySide(pieces.size(), threads, move, [&] {
    permission = mayGoOn();
    return permission.has_value();
  });
  if (failedPiece < pieces.size()) {
    const auto& [bytes, offset] = pieces[failedPiece];
    return resultOf(failure, bytes.size(), offset, messages);
  }
  return permission;
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

Result<> XRDefragVolume::readAll(std::span<const Transfer> transfers,
                                 const XRDefragVolume::MayGoOn& mayGoOn) {
  const auto pieces = TRY(piecesOf(transfers, _deviceSizeBytes, kReadMessages));
  return transferAll(
      pieces, _device->transfersAtOnce(), kReadMessages, mayGoOn,
      [this](const Transfer& piece) { return _device->readOnceAt(piece.bytes, piece.offset); });
}

Result<> XRDefragVolume::writeAll(std::span<const Transfer> transfers,
                                  const XRDefragVolume::MayGoOn& mayGoOn) {
  LW_ASSERT(_writable);
  const auto pieces = TRY(piecesOf(transfers, _deviceSizeBytes, kWriteMessages));
  return transferAll(
      pieces, _device->transfersAtOnce(), kWriteMessages, mayGoOn,
      [this](const Transfer& piece) { return _device->writeOnceAt(piece.bytes, piece.offset); });
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
