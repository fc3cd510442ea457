#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "HFSPlus/HFSPlusFlushPlan.hpp"
#include "HFSPlus/HFSPlusFlushRecord.hpp"
#include "HFSPlus/HFSPlusRecordPlace.hpp"
#include "HFSPlus/HFSPlusRunLocator.hpp"
#include "HFSPlus/HFSPlusVolumePlace.hpp"
#include "XRDefragVolume.hpp"

/// Makes the flushes of a rewriting run atomic: writes each one down, in free blocks of the volume,
/// before it is carried out, and says in the volume's reserved bytes where.
///
/// Write order:
///   1. begin(): the locator, without a record. Synced before the header is marked as in flux.
///   2. commit(): the record; sync, which the batch's data shares; the locator that names the
///      record; sync. From here the flush happens, whatever else does.
///   3. The flush is carried out in place and synced by the volume.
///   4. retireBefore(): before anything is written over a record that the locator still names, the
///      locator names it no more. Synced.
///   5. end(), after the mark is gone: the reserved bytes are zero again, as they were.
///
/// The record's blocks are free before the flush and after it, and never marked as used.
class HFSPlusRunLog {
 public:
  HFSPlusRunLog(const XRDefragVolume& device, HFSPlusVolumePlace place);

  /// Whether the log has begun and has not ended; not after an error in doing either.
  bool isActive() const { return _active; }

  /// Starts the log of a run on a volume whose header on disk is `header` and is about to become
  /// `marked`. Fails with "The amount of free space is insufficient." when no reserved bytes are
  /// free, and with device errors. May be called again after an error in beginning or ending.
  [[nodiscard]] Result<> begin(const HFSPlusVolumeHeader& header,
                               const HFSPlusVolumeHeader& marked);

  /// Where the record lies that the locator names; its blocks must not be written over as long as
  /// it does. None when it names no record.
  const std::optional<HFSPlusRecordPlace>& liveRecord() const { return _liveRecord; }

  /// Where to look for the next record's place first: an allocation block.
  uint32_t hint() const { return _hint; }

  /// The record of the next flush, as it is written to disk.
  [[nodiscard]] std::vector<std::byte> recordOf(const HFSPlusFlushPlan& plan) const;

  /// Writes a plan's record down at a place that it fits into and makes the plan the flush that
  /// happens. After an error the flush has not been started, and the volume's metadata is as it
  /// was.
  [[nodiscard]] Result<> commit(const HFSPlusFlushPlan& plan, std::span<const std::byte> record,
                                const HFSPlusRecordPlace& place);

  /// To be called before `count` bytes at a byte offset of the volume are written over.
  [[nodiscard]] Result<> retireBefore(uint64_t offset, uint64_t count);

  /// Ends the log, also one that failed to begin: the reserved bytes become zero again. May be
  /// called again after an error.
  [[nodiscard]] Result<> end();

 private:
  [[nodiscard]] Result<> _writeLocator(const HFSPlusRunLocator& locator);
  [[nodiscard]] Result<> _settleLocator();

  XRDefragVolume _device;
  HFSPlusVolumePlace _place;
  std::optional<uint64_t> _locatorOffset;  // bytes from the volume's start, while any are taken
  bool _active = false;
  HFSPlusRunLocator _locator;
  bool _locatorIsUncertain = false;  // after an error: the device has _locator or a later one
  std::optional<HFSPlusRecordPlace> _liveRecord;
  HFSPlusRunIdentity _identity;
  uint32_t _hint = 0;
};

/// A locator and where it lies, in bytes from the volume's start.
struct HFSPlusFoundLocator {
  uint64_t offset;
  HFSPlusRunLocator locator;
};

/// Erases the locator of a run that was interrupted after everything else of it was done. For a
/// volume that carries no mark. Device errors.
[[nodiscard]] Result<> HFSPlusEraseStaleLocator(XRDefragVolume& device, HFSPlusVolumePlace place);

/// Looks for a locator in the volume's reserved bytes. Device errors.
[[nodiscard]] Result<std::optional<HFSPlusFoundLocator>> HFSPlusFindRunLocator(
    XRDefragVolume& device, HFSPlusVolumePlace place);

/// Zeroes the reserved bytes that a locator takes, and syncs. Device errors.
[[nodiscard]] Result<> HFSPlusEraseRunLocator(XRDefragVolume& device, HFSPlusVolumePlace place,
                                              uint64_t locatorOffset);

/// The identity of a run on the volume with this header (as it is before or in the run).
[[nodiscard]] HFSPlusRunIdentity HFSPlusIdentityOfRun(const HFSPlusRunLocator& locator,
                                                      const HFSPlusVolumeHeader& header);
