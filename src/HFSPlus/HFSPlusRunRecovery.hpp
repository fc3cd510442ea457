#pragma once

#include <cstdint>
#include <optional>

#include "HFSPlus/HFSPlusBlockRanges.hpp"
#include "HFSPlus/HFSPlusFlushRecord.hpp"
#include "HFSPlus/HFSPlusRunLog.hpp"
#include "HFSPlus/HFSPlusVolumePlace.hpp"
#include "XRDefragVolume.hpp"

/// What an interrupted rewriting run left on a volume, and how to bring its last flush to an end.
///
/// The record is laid over everything that is read, so that the volume opens in the state it is
/// going to have; only when all of it has been found sound is anything written.
///
/// Write order: the record's ranges; sync; the headers, without the mark; sync; the reserved bytes;
/// sync. A crash in between leaves a volume that is recovered the same way.
class HFSPlusRunRecovery {
 public:
  /// Looks for an interrupted run on a volume with this header (host order, as on disk). Nothing
  /// if there is none, or none that can be brought to an end: a header or record that is not the
  /// run's own, or a record that is not whole. Device errors.
  [[nodiscard]] static Result<std::optional<HFSPlusRunRecovery>> find(
      XRDefragVolume& device, HFSPlusVolumePlace place, const HFSPlusVolumeHeader& header);

  /// Whether a header says that a run is under way.
  static bool isInFlux(const HFSPlusVolumeHeader& header);

  /// The header of the recovered volume, in host order, without the mark.
  const HFSPlusVolumeHeader& header() const { return _header; }

  /// Lays the record over bytes read at a byte offset of the volume.
  void overlay(std::span<std::byte> bytes, uint64_t offset) const;

  /// Whether every range of the record is a header's or lies in the blocks given, those of the
  /// special files of the recovered volume.
  bool touchesOnly(const HFSPlusBlockRanges& specialBlocks) const;

  /// Brings the volume to the recovered state for good. Device errors.
  [[nodiscard]] Result<> carryOut(XRDefragVolume& device) const;

 private:
  HFSPlusRunRecovery(HFSPlusVolumePlace place, const HFSPlusFoundLocator& found,
                     const HFSPlusVolumeHeader& onDisk, std::optional<HFSPlusFlushRecord> record);

  uint64_t _alternateOffset() const;
  [[nodiscard]] Result<> _unmarkHeaders(XRDefragVolume& device) const;

  HFSPlusVolumePlace _place;
  HFSPlusFoundLocator _found;
  HFSPlusVolumeHeader _header;
  std::optional<HFSPlusFlushRecord> _record;
};
