#include "HFSPlus/HFSPlusRunRecovery.hpp"

#include <algorithm>
#include <cstring>
#include <utility>

#include "LWKit/LWChecksum.hpp"
#include "LWKit/LWDebug.hpp"

namespace {

using HeaderImage = DiskOrder<HFSPlusVolumeHeader>;

/// The record that a locator names; nothing if it is not whole or not this run's.
Result<std::optional<HFSPlusFlushRecord>> readRecord(XRDefragVolume& device,
                                                     HFSPlusVolumePlace place,
                                                     const HFSPlusRunLocator& locator,
                                                     const HFSPlusVolumeHeader& header) {
  if (locator.recordBytes > HFSPlusFlushRecord::kBytesMax) {
    return std::nullopt;
  }
  const auto bytes =
      TRY(HFSPlusRecordPlace::read(device, place, header.blockSize,
                                   {locator.recordBlock, locator.runBlocks}, locator.recordBytes));
  if (!bytes) {
    return std::nullopt;
  }
  return HFSPlusFlushRecord::fromDisk(*bytes, HFSPlusIdentityOfRun(locator, header),
                                      locator.sequence, place.sizeBytes);
}

}  // namespace

bool HFSPlusRunRecovery::isInFlux(const HFSPlusVolumeHeader& header) {
  return (header.attributes & kHFSVolumeUnmountedMask) == 0 &&
         (header.attributes & kHFSVolumeInconsistentMask) != 0;
}

Result<std::optional<HFSPlusRunRecovery>> HFSPlusRunRecovery::find(
    XRDefragVolume& device, HFSPlusVolumePlace place, const HFSPlusVolumeHeader& header) {
  if (!isInFlux(header)) {
    return std::nullopt;
  }
  const auto found = TRY(HFSPlusFindRunLocator(device, place));
  if (!found) {
    return std::nullopt;
  }
  const HFSPlusRunLocator& locator = found->locator;
  const uint64_t checksum = LWChecksum::of(toDisk(header).bytes);
  if (locator.recordBytes == 0) {
    if (checksum != locator.headerAfter) {
      return std::nullopt;
    }
    return HFSPlusRunRecovery(place, *found, header, std::nullopt);
  }
  if (checksum != locator.headerBefore && checksum != locator.headerAfter) {
    return std::nullopt;
  }
  auto record = TRY(readRecord(device, place, locator, header));
  if (!record) {
    return std::nullopt;
  }
  HFSPlusRunRecovery recovery(place, *found, header, std::move(record));
  // No flush makes another volume of this one.
  if (HFSPlusIdentityOfRun(locator, recovery._header) != HFSPlusIdentityOfRun(locator, header)) {
    return std::nullopt;
  }
  return recovery;
}

HFSPlusRunRecovery::HFSPlusRunRecovery(HFSPlusVolumePlace place, const HFSPlusFoundLocator& found,
                                       const HFSPlusVolumeHeader& onDisk,
                                       std::optional<HFSPlusFlushRecord> record)
    : _place(place), _found(found), _header(onDisk), _record(std::move(record)) {
  HeaderImage image = toDisk(onDisk);
  overlay(image.bytes, kHFSPlusVolumeHeaderOffset);
  _header = toHost(image);
  constexpr uint32_t kMark = kHFSVolumeUnmountedMask | kHFSVolumeInconsistentMask;
  _header.attributes = (_header.attributes & ~kMark) | (found.locator.attributes & kMark);
  LWDebugLog(LWDebugLevel::Warning,
             "An interrupted run was found (%u flushes done, %u changes to complete); "
             "recovering the volume.\n",
             found.locator.sequence, _record ? _record->ranges().size() : 0);
}

void HFSPlusRunRecovery::overlay(std::span<std::byte> bytes, uint64_t offset) const {
  if (_record) {
    _record->overlay(bytes, offset);
  }
}

bool HFSPlusRunRecovery::touchesOnly(const HFSPlusBlockRanges& specialBlocks) const {
  if (!_record) {
    return true;
  }
  return std::ranges::all_of(_record->ranges(), [&](const HFSPlusFlushRecord::Range& range) {
    const bool isHeader =
        range.bytes.size() == sizeof(HFSPlusVolumeHeader) &&
        (range.offset == kHFSPlusVolumeHeaderOffset || range.offset == _alternateOffset());
    const uint64_t first = range.offset / _header.blockSize;
    const uint64_t end =
        (range.offset + range.bytes.size() + _header.blockSize - 1) / _header.blockSize;
    return isHeader || specialBlocks.contains(first, end - first);
  });
}

Result<> HFSPlusRunRecovery::carryOut(XRDefragVolume& device) const {
  if (_record) {
    for (const HFSPlusFlushRecord::Range& range : _record->ranges()) {
      TRY(device.write(range.bytes, _place.startOffset + range.offset));
    }
    TRY(device.synchronize());
  }
  // While the primary header carries the mark a locator must stand, or nobody could tell this
  // volume from one that is in need of repair.
  TRY(_unmarkHeaders(device));
  return HFSPlusEraseRunLocator(device, _place, _found.offset);
}

Result<> HFSPlusRunRecovery::_unmarkHeaders(XRDefragVolume& device) const {
  HeaderImage alternate;
  TRY(device.read(alternate.bytes, _place.startOffset + _alternateOffset()));
  if (isInFlux(toHost(alternate))) {
    TRY(device.write(toDisk(_header).bytes, _place.startOffset + _alternateOffset()));
    TRY(device.synchronize());
  }
  TRY(device.write(toDisk(_header).bytes, _place.startOffset + kHFSPlusVolumeHeaderOffset));
  return device.synchronize();
}

uint64_t HFSPlusRunRecovery::_alternateOffset() const {
  return _place.sizeBytes - kHFSPlusAlternateVolumeHeaderDistance;
}
