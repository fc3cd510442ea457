#include "HFSPlus/HFSPlusFile.hpp"

#include <algorithm>
#include <memory>
#include <new>

#include "HFSPlus/HFSPlusHeldWrites.hpp"

namespace {

constexpr uint32_t kPieceAfterLastCheck = 97;

bool isInside(uint64_t offset, uint64_t size, uint64_t limit) {
  return offset < limit && size <= limit - offset;
}

/// Whole blocks around an unaligned range of a file.
struct BlockRange {
  BlockRange(uint64_t rangeOffset, uint64_t rangeSize, uint64_t blockSize)
      : offset(rangeOffset - rangeOffset % blockSize),
        size((rangeOffset - offset + rangeSize + blockSize - 1) / blockSize * blockSize) {}

  uint64_t offset;
  uint64_t size;
};

}  // namespace

Result<HFSPlusTranslation> HFSPlusFile::translateOffset(uint64_t offset) const {
  static constexpr HFSPlusForkData kNoFork{};
  return _volume.translateOffset(offset, _fileID, kHFSDataForkType,
                                 _hostForkData ? *_hostForkData : kNoFork);
}

Result<> HFSPlusFile::read(std::span<std::byte> bytes, uint64_t offset) const {
  if (!isInside(offset, bytes.size(), logicalSize())) {
    return std::unexpected(XRDefragError::localized(
        "Read of file ID %1$lu at offset %2$llu and size %3$llu was out of range.", _fileID, offset,
        bytes.size()));
  }
  const HFSPlusHeldWrites& held = _volume.heldWrites();
  if (held.copyWhole(_fileID, offset, bytes)) {
    return {};
  }
  const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
  if (offset % blockSize == 0 && bytes.size() % blockSize == 0) {
    TRY(readPieces(bytes, offset));
  } else {
    const BlockRange blocks(offset, bytes.size(), blockSize);
    const std::unique_ptr<std::byte[]> bounce(new (std::nothrow) std::byte[blocks.size]);
    if (!bounce) {
      return std::unexpected(XRDefragError::localized("Out of memory."));
    }
    TRY(readPieces({bounce.get(), blocks.size}, blocks.offset));
    std::copy_n(bounce.get() + (offset - blocks.offset), bytes.size(), bytes.data());
  }
  held.overlay(_fileID, offset, bytes);
  return {};
}

Result<> HFSPlusFile::readPieces(std::span<std::byte> bytes, uint64_t offset) const {
  const uint64_t blockSize = _volume.hostVolumeHeader().blockSize;
  bool sawEnd = false;
  while (!bytes.empty()) {
    if (sawEnd) {
      return std::unexpected(XRDefragError::internal("HFSPlus/HFSPlusFile", kPieceAfterLastCheck));
    }
    const HFSPlusTranslation place = TRY(translateOffset(offset));
    // Only the fork's last piece ends inside a block; the rest of that block comes along.
    const uint64_t excess = place.length % blockSize;
    sawEnd = excess != 0;
    const uint64_t available = place.length + (sawEnd ? blockSize - excess : 0);
    const auto piece = bytes.first(std::min<uint64_t>(available, bytes.size()));
    TRY(_volume.readVolume(piece, place.offset));
    bytes = bytes.subspan(piece.size());
    offset += piece.size();
  }
  return {};
}

Result<> HFSPlusFile::write(std::span<const std::byte> bytes, uint64_t offset) {
  if (!isInside(offset, bytes.size(), logicalSize())) {
    return std::unexpected(XRDefragError::localized(
        "Write of file ID %1$lu at offset %2$llu and size %3$llu was out of range.", _fileID,
        offset, bytes.size()));
  }
  _volume.heldWrites().hold(_fileID, offset, bytes);
  return {};
}
