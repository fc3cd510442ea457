#pragma once

#include <cstdint>
#include <span>

#include "HFSPlus/HFSPlusVolumeAccess.hpp"

/// A file that is read and written by file offset: the data fork of a special file, or of an
/// ordinary file whose fork data the volume has cached.
///
/// Writing holds the bytes for the volume's next flush; reading sees them at once.
class HFSPlusFile {
 public:
  HFSPlusFile(HFSPlusVolumeAccess& volume, uint32_t fileID)
      : _fileID(fileID), _volume(volume), _hostForkData(volume.hostForkData(fileID)) {}
  HFSPlusFile(const HFSPlusFile&) = delete;
  HFSPlusFile& operator=(const HFSPlusFile&) = delete;
  virtual ~HFSPlusFile() = default;

  uint32_t fileID() const { return _fileID; }
  /// Bytes; 0 for a file without fork data.
  uint64_t logicalSize() const { return _hostForkData ? _hostForkData->logicalSize : 0; }
  /// Allocation blocks; 0 for a file without fork data.
  uint32_t totalBlocks() const { return _hostForkData ? _hostForkData->totalBlocks : 0; }

  /// The volume bytes that hold a file offset. Errors of the volume's translation.
  [[nodiscard]] Result<HFSPlusTranslation> translateOffset(uint64_t offset) const;

  /// Reads file bytes. Fails with "Read of file ID %1$lu at offset %2$llu and size %3$llu was out
  /// of range." beyond the logical size, or with translation and device errors.
  [[nodiscard]] Result<> read(std::span<std::byte> bytes, uint64_t offset) const;

  /// Holds file bytes for the next flush. Fails with "Write of file ID %1$lu at offset %2$llu and
  /// size %3$llu was out of range." beyond the logical size, before anything is held.
  [[nodiscard]] Result<> write(std::span<const std::byte> bytes, uint64_t offset);

 protected:
  HFSPlusVolumeAccess& volume() const { return _volume; }

 private:
  /// Reads whole blocks, piece by contiguous piece.
  Result<> readPieces(std::span<std::byte> bytes, uint64_t offset) const;

  uint32_t _fileID;
  HFSPlusVolumeAccess& _volume;
  const HFSPlusForkData* _hostForkData;
};
