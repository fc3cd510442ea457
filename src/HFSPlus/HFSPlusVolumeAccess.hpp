#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "HFSPlus/HFSPlusFormat.hpp"
#include "XRDefragError.hpp"

class HFSPlusHeldWrites;

/// A contiguous piece of a fork on the volume.
struct HFSPlusTranslation {
  uint64_t offset;  // bytes from the volume's start
  uint64_t length;  // bytes contiguous from there, never 0
};

/// What a file of the volume sees of it. The volume owns its files and outlives them; through this
/// interface they know it without knowing what else it is.
class HFSPlusVolumeAccess {
 public:
  virtual ~HFSPlusVolumeAccess() = default;

  /// Reads bytes at a byte offset from the volume's start. Device errors.
  [[nodiscard]] virtual Result<> readVolume(std::span<std::byte> bytes, uint64_t offset) = 0;

  /// The volume header in host order.
  virtual const HFSPlusVolumeHeader& hostVolumeHeader() const = 0;

  /// The fork data, in host order, of a special file or of a file registered with
  /// cacheHostForkData(); none for any other file. The volume owns it and changes it in place.
  virtual const HFSPlusForkData* hostForkData(uint32_t fileID) const = 0;

  /// Finds the volume bytes that hold a fork's byte `offset`.
  /// Fails with "Offset %1$llu is out of range for file ID %2$lu." or an overflow tree's error.
  [[nodiscard]] virtual Result<HFSPlusTranslation> translateOffset(
      uint64_t offset, uint32_t fileID, uint8_t forkType, const HFSPlusForkData& forkData) = 0;

  /// The metadata bytes that wait for the next flush of the volume.
  virtual HFSPlusHeldWrites& heldWrites() = 0;

  /// Sector size in bytes.
  virtual uint32_t blockSizeOfDevice() const = 0;

  /// Whether the volume carries the HFSX signature.
  virtual bool isHFSX() const = 0;

  /// Adds a number of blocks (negative: takes them) to the header's free-block count.
  virtual void updateFreeBlocks(int64_t delta) = 0;
};
