#include "HFSPlus/HFSPlusRunLog.hpp"

#include <algorithm>
#include <array>
#include <random>

#include "LWKit/LWChecksum.hpp"
#include "LWKit/LWDebug.hpp"

namespace {

constexpr uint64_t kSectorBytes = 512;

using Sector = std::array<std::byte, kSectorBytes>;

/// The sectors that the format reserves and nobody uses: the last one and the boot blocks. Byte
/// offsets from the volume's start.
std::array<uint64_t, 3> reservedSectors(HFSPlusVolumePlace place) {
  return {place.sizeBytes - kSectorBytes, 0, kSectorBytes};
}

/// Shows every place in a reserved sector that a locator may take, until one is taken.
template <typename IsTaken>
Result<std::optional<uint64_t>> searchReservedBytes(XRDefragVolume& device,
                                                    HFSPlusVolumePlace place, IsTaken isTaken) {
  for (const uint64_t sectorOffset : reservedSectors(place)) {
    Sector sector;
    TRY(device.read(sector, place.startOffset + sectorOffset));
    for (size_t at = 0; at < sector.size(); at += HFSPlusRunLocator::kBytes) {
      const auto candidate =
          std::span(sector).subspan(at).template first<HFSPlusRunLocator::kBytes>();
      if (isTaken(candidate)) {
        return sectorOffset + at;
      }
    }
  }
  return std::nullopt;
}

/// Replaces a locator's bytes in its sector, which is written as a whole, and syncs.
Result<> replaceReservedBytes(XRDefragVolume& device, HFSPlusVolumePlace place, uint64_t offset,
                              std::span<const std::byte, HFSPlusRunLocator::kBytes> bytes) {
  const uint64_t within = offset % kSectorBytes;
  const uint64_t sectorOffset = place.startOffset + offset - within;
  Sector sector;
  TRY(device.read(sector, sectorOffset));
  std::ranges::copy(bytes, sector.begin() + static_cast<ptrdiff_t>(within));
  TRY(device.write(sector, sectorOffset));
  return device.synchronize();
}

uint64_t checksumOf(const HFSPlusVolumeHeader& header) {
  return LWChecksum::of(toDisk(header).bytes);
}

uint64_t randomNumber() {
  std::random_device random;
  return (uint64_t{random()} << 32) | random();
}

}  // namespace

HFSPlusRunLog::HFSPlusRunLog(const XRDefragVolume& device, HFSPlusVolumePlace place)
    : _device(device), _place(place) {}

Result<> HFSPlusRunLog::begin(const HFSPlusVolumeHeader& header,
                              const HFSPlusVolumeHeader& marked) {
  const auto isZero = [](std::span<const std::byte> bytes) {
    return std::ranges::all_of(bytes, [](std::byte byte) { return byte == std::byte{0}; });
  };
  if (!_locatorOffset) {
    // Recovery takes the first one that it finds.
    TRY(HFSPlusEraseStaleLocator(_device, _place));
    _locatorOffset = TRY(searchReservedBytes(_device, _place, isZero));
  }
  if (!_locatorOffset) {
    return std::unexpected(XRDefragError::localized("The amount of free space is insufficient."));
  }
  _locator = {.runID = randomNumber(),
              .headerBefore = checksumOf(marked),
              .headerAfter = checksumOf(marked),
              .attributes = header.attributes,
              .writeCount = header.writeCount};
  _identity = HFSPlusIdentityOfRun(_locator, header);
  _liveRecord.reset();
  _hint = header.totalBlocks;
  TRY(_writeLocator(_locator));
  _active = true;
  return {};
}

std::vector<std::byte> HFSPlusRunLog::recordOf(const HFSPlusFlushPlan& plan) const {
  return HFSPlusFlushRecord::toDisk(plan, _identity, _locator.sequence + 1);
}

Result<> HFSPlusRunLog::commit(const HFSPlusFlushPlan& plan, std::span<const std::byte> record,
                               const HFSPlusRecordPlace& place) {
  LW_ASSERT(isActive());
  for (const HFSPlusExtentDescriptor& run : place.runs()) {
    TRY(retireBefore(uint64_t{run.startBlock} * _identity.blockSize,
                     uint64_t{run.blockCount} * _identity.blockSize));
  }

  HFSPlusRunLocator locator = _locator;
  ++locator.sequence;
  locator.headerBefore = locator.headerAfter;
  for (const HFSPlusFlushPlan::Piece& piece : plan.pieces()) {
    if (piece.offset == kHFSPlusVolumeHeaderOffset) {
      locator.headerAfter = LWChecksum::of(piece.bytes);
    }
  }
  locator.recordBlock = place.runs().front().startBlock;
  locator.runBlocks = place.runs().front().blockCount;
  locator.recordBytes = static_cast<uint32_t>(record.size());
  TRY(place.write(_device, _place, record));
  TRY(_device.synchronize());
  TRY(_writeLocator(locator));

  // The place of the record before this one is the first choice for the one after it.
  _hint = (_liveRecord ? *_liveRecord : place).runs().front().startBlock;
  _liveRecord = place;
  return {};
}

Result<> HFSPlusRunLog::retireBefore(uint64_t offset, uint64_t count) {
  TRY(_settleLocator());
  if (_liveRecord && _liveRecord->touches(offset, count)) {
    HFSPlusRunLocator locator = _locator;
    locator.recordBlock = 0;
    locator.runBlocks = 0;
    locator.recordBytes = 0;
    TRY(_writeLocator(locator));
    _liveRecord.reset();
  }
  return {};
}

Result<> HFSPlusRunLog::end() {
  _active = false;
  if (_locatorOffset) {
    TRY(HFSPlusEraseRunLocator(_device, _place, *_locatorOffset));
    _locatorOffset.reset();
  }
  return {};
}

Result<> HFSPlusRunLog::_writeLocator(const HFSPlusRunLocator& locator) {
  _locatorIsUncertain = true;
  TRY(replaceReservedBytes(_device, _place, *_locatorOffset, locator.toDisk()));
  _locatorIsUncertain = false;
  _locator = locator;
  return {};
}

/// After an error in naming a record the device may name it all the same, whose flush then never
/// happened as far as this process is concerned: what it relies on must not be written over.
Result<> HFSPlusRunLog::_settleLocator() {
  return _locatorIsUncertain ? _writeLocator(_locator) : Result<>();
}

Result<std::optional<HFSPlusFoundLocator>> HFSPlusFindRunLocator(XRDefragVolume& device,
                                                                 HFSPlusVolumePlace place) {
  std::optional<HFSPlusRunLocator> locator;
  const auto isLocator = [&](std::span<const std::byte, HFSPlusRunLocator::kBytes> bytes) {
    locator = HFSPlusRunLocator::fromDisk(bytes);
    return locator.has_value();
  };
  const auto offset = TRY(searchReservedBytes(device, place, isLocator));
  if (!offset) {
    return std::nullopt;
  }
  return HFSPlusFoundLocator{*offset, *locator};
}

Result<> HFSPlusEraseStaleLocator(XRDefragVolume& device, HFSPlusVolumePlace place) {
  while (const auto found = TRY(HFSPlusFindRunLocator(device, place))) {
    TRY(HFSPlusEraseRunLocator(device, place, found->offset));
  }
  return {};
}

Result<> HFSPlusEraseRunLocator(XRDefragVolume& device, HFSPlusVolumePlace place,
                                uint64_t locatorOffset) {
  return replaceReservedBytes(device, place, locatorOffset,
                              std::array<std::byte, HFSPlusRunLocator::kBytes>{});
}

HFSPlusRunIdentity HFSPlusIdentityOfRun(const HFSPlusRunLocator& locator,
                                        const HFSPlusVolumeHeader& header) {
  return {.runID = locator.runID,
          .signature = header.signature,
          .version = header.version,
          .createDate = header.createDate,
          .blockSize = header.blockSize,
          .totalBlocks = header.totalBlocks,
          .writeCount = locator.writeCount};
}
