// How an HFSPlusVolume writes. The order of a flush, which is what keeps a volume whole:
//
//   1. The special files hand over what changed. Nothing is written if one of them cannot.
//   2. The plan is made: every byte of the flush and its place, as the forks lie now.
//   3. During a rewriting run the header on disk is marked as in flux, if it is not yet; synced.
//   4. Sync: the file data that the new metadata describes is on stable storage. During a rewriting
//      run the plan is written down in the run's log as well; from here it happens, crash or no
//      crash.
//   5. The plan is written, by ascending place. From here it has to be completed: an error leaves
//      it unfinished, and nothing else is written before it has been written as a whole.
//   6. Sync. The held writes are forgotten; the device has them. Only now may the blocks that were
//      freed be written over.

#include <algorithm>
#include <array>
#include <utility>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusAttributes.hpp"
#include "HFSPlus/HFSPlusCatalog.hpp"
#include "HFSPlus/HFSPlusExtents.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWDebug.hpp"

namespace {

XRDefragError writeFailure() {
  return XRDefragError::localized("Write failure.");
}

void logError(const XRDefragError& error) {
  LWDebugLog(LWDebugLevel::Warning, "%@\n", error.description());
}

/// The result, or "Write failure." after what it says has been logged.
Result<> asWriteFailure(const Result<>& result) {
  if (!result) {
    logError(result.error());
    return std::unexpected(writeFailure());
  }
  return {};
}

constexpr std::string_view kReadOutOfRange =
    "Out of range read failed at offset %llu and size %lu.";
constexpr std::string_view kWriteOutOfRange =
    "Out of range write failed at offset %llu and size %lu.";

Result<> checkInVolume(HFSPlusVolumePlace volume, uint64_t size, uint64_t offset,
                       std::string_view message) {
  if (offset > volume.sizeBytes || size > volume.sizeBytes - offset) {
    return std::unexpected(XRDefragError::localized(message, volume.startOffset + offset, size));
  }
  return {};
}

using Transfer = XRDefragVolume::Transfer;

/// The transfers at their places on the device.
std::vector<Transfer> onDevice(std::span<const Transfer> transfers, uint64_t startOffset) {
  std::vector<Transfer> placed(transfers.begin(), transfers.end());
  for (Transfer& transfer : placed) {
    transfer.offset += startOffset;
  }
  return placed;
}

}  // namespace

/// Makes a range ready for being written: no flush is unfinished, the mark is on the header, and no
/// record is lost.
Result<> HFSPlusVolume::_prepareWrite(uint64_t size, uint64_t offset) {
  TRY(checkInVolume({_volumeStartOffset, _volumeSizeBytes}, size, offset, kWriteOutOfRange));
  if (size == 0) {
    return {};
  }
  TRY(_finishFlush());
  TRY(_markInFlux());
  if (_runLog) {
    TRY(_runLog->retireBefore(offset, size));
  }
  _willBumpWriteCount = true;
  return {};
}

Result<> HFSPlusVolume::read(std::span<std::byte> bytes, uint64_t offset) {
  TRY(checkInVolume({_volumeStartOffset, _volumeSizeBytes}, bytes.size(), offset, kReadOutOfRange));
  TRY(XRDefragVolume::read(bytes, _volumeStartOffset + offset));
  if (_recovery) {
    _recovery->overlay(bytes, offset);
  }
  return {};
}

Result<> HFSPlusVolume::write(std::span<const std::byte> bytes, uint64_t offset) {
  TRY(_prepareWrite(bytes.size(), offset));
  return XRDefragVolume::write(bytes, _volumeStartOffset + offset);
}

Result<> HFSPlusVolume::readAll(std::span<const Transfer> transfers, const MayGoOn& mayGoOn) {
  for (const Transfer& transfer : transfers) {
    TRY(checkInVolume({_volumeStartOffset, _volumeSizeBytes}, transfer.bytes.size(),
                      transfer.offset, kReadOutOfRange));
  }
  TRY(XRDefragVolume::readAll(onDevice(transfers, _volumeStartOffset), mayGoOn));
  if (_recovery) {
    for (const Transfer& transfer : transfers) {
      _recovery->overlay(transfer.bytes, transfer.offset);
    }
  }
  return {};
}

Result<> HFSPlusVolume::writeAll(std::span<const Transfer> transfers, const MayGoOn& mayGoOn) {
  for (const Transfer& transfer : transfers) {
    TRY(_prepareWrite(transfer.bytes.size(), transfer.offset));
  }
  return XRDefragVolume::writeAll(onDevice(transfers, _volumeStartOffset), mayGoOn);
}

Result<HFSPlusVolume::FlushOutcome> HFSPlusVolume::flush(const HFSPlusBlockRanges& pendingBlocks) {
  TRY(_finishFlush());
  TRY(_flushSpecialFiles());
  HFSPlusFlushPlan plan = TRY(_planFlush());
  if (plan.empty()) {
    return FlushOutcome::Flushed;
  }
  TRY(_markInFlux());
  if (_runLog) {
    if (plan.byteCount() > HFSPlusFlushRecord::kBytesMax) {
      return FlushOutcome::NoRoomForRecord;
    }
    const std::vector<std::byte> record = _runLog->recordOf(plan);
    const auto place = TRY(_findRecordPlace(record.size(), pendingBlocks));
    if (!place) {
      return FlushOutcome::NoRoomForRecord;
    }
    TRY(_runLog->commit(plan, record, *place));
  } else {
    TRY(synchronize());
  }
  _dirty = false;
  _unfinishedFlush = std::move(plan);
  TRY(_finishFlush());
  _heldWrites.clear();
  return FlushOutcome::Flushed;
}

/// Blocks for a record of so many bytes that are free before and after the flush: in one piece,
/// else in few, else in as many as it takes; rather not those of the record before it, which would
/// have to be retired first.
Result<std::optional<HFSPlusRecordPlace>> HFSPlusVolume::_findRecordPlace(
    uint64_t bytes, const HFSPlusBlockRanges& pendingBlocks) {
  constexpr uint64_t kFewPieces = 16;
  if (bytes > HFSPlusFlushRecord::kBytesMax) {
    return std::nullopt;
  }
  // At first, the volume's last blocks: the run will come by there late.
  const uint64_t inOneRun = HFSPlusRecordPlace(bytes, _hostVolumeHeader.blockSize).blocksInOneRun();
  const uint32_t totalBlocks = _hostVolumeHeader.totalBlocks;
  const auto last = static_cast<uint32_t>(totalBlocks - std::min<uint64_t>(inOneRun, totalBlocks));
  const uint32_t hint = std::min(_runLog->hint(), last);
  HFSPlusBlockRanges pendingAndLive = pendingBlocks;
  if (_runLog->liveRecord()) {
    _runLog->liveRecord()->addTo(pendingAndLive);
  }
  for (const HFSPlusBlockRanges* avoided : {&std::as_const(pendingAndLive), &pendingBlocks}) {
    for (const uint64_t least : {inOneRun, inOneRun / kFewPieces + 1, uint64_t{1}}) {
      HFSPlusRecordPlace place(bytes, _hostVolumeHeader.blockSize);
      const auto take = [&](uint32_t block, uint64_t count) { return place.add(block, count); };
      if (TRY(_allocation->takeUnusedRuns({least, inOneRun}, hint, *avoided, take))) {
        return place;
      }
    }
  }
  return std::nullopt;
}

Result<> HFSPlusVolume::_flushSpecialFiles() {
  bool complete = true;
  const auto note = [&complete](const Result<>& flushed) {
    if (!flushed) {
      logError(flushed.error());
      complete = false;
    }
  };
  note(_allocation->flush());
  if (_attributes) {
    note(_attributes->flush());
  }
  note(_catalog->flush());
  note(_extents->flush());
  if (!complete) {
    return std::unexpected(writeFailure());
  }
  return {};
}

Result<HFSPlusFlushPlan> HFSPlusVolume::_planFlush() {
  HFSPlusFlushPlan plan;
  TRY(asWriteFailure(_planHeldWrites(plan)));
  _settleFreeBlocks();
  _planHeaders(plan);
  plan.sort();
  return plan;
}

Result<> HFSPlusVolume::_planHeldWrites(HFSPlusFlushPlan& plan) {
  for (const auto& [key, held] : _heldWrites.pieces()) {
    const HFSPlusForkData* forkData = hostForkData(key.fileID);
    if (forkData == nullptr) {
      return std::unexpected(XRDefragError::internalHere());
    }
    std::span<const std::byte> bytes = held;
    uint64_t offset = key.offset;
    while (!bytes.empty()) {
      const HFSPlusTranslation place =
          TRY(translateOffset(offset, key.fileID, kHFSDataForkType, *forkData));
      const auto piece = bytes.first(std::min<uint64_t>(place.length, bytes.size()));
      plan.add(place.offset, piece, HFSPlusFlushPlan::Kind::SpecialFile);
      bytes = bytes.subspan(piece.size());
      offset += piece.size();
    }
  }
  return {};
}

/// The bitmap counts a range as changed as a whole even where some of its bits were as they should
/// be; what a rewriting run leaves behind has to add up.
void HFSPlusVolume::_settleFreeBlocks() {
  if (_rewriting) {
    updateFreeBlocks(_allocation->takeFreeBlockDrift());
  }
}

void HFSPlusVolume::_planHeaders(HFSPlusFlushPlan& plan) {
  if (_dirty || !plan.empty()) {
    _willBumpWriteCount = true;
  }
  if (_willBumpWriteCount && !_didBumpWriteCount) {
    ++_hostVolumeHeader.writeCount;
    _didBumpWriteCount = true;
  }
  if (_dirty || _hostVolumeHeader.writeCount != _flushedHeader.writeCount) {
    plan.addHeaders(_hostVolumeHeader, toDisk(_onDiskHeader(_hostVolumeHeader)),
                    _dirty ? _alternateOffset() : 0);
  }
}

Result<> HFSPlusVolume::_finishFlush() {
  if (!_unfinishedFlush) {
    return {};
  }
  const HFSPlusFlushPlan& plan = *_unfinishedFlush;
  _alternateWritten = _alternateWritten || plan.writesAlternate();
  if (auto written = _writePlan(plan); !written) {
    _unfinishedFlush->keepCopies();
    return written;
  }
  if (plan.writesHeader()) {
    _flushedHeader = plan.hostHeader();
  }
  _allocation->settleChanges();
  _unfinishedFlush.reset();
  return {};
}

Result<> HFSPlusVolume::_writePlan(const HFSPlusFlushPlan& plan) {
  for (const HFSPlusFlushPlan::Piece& piece : plan.pieces()) {
    const auto written = XRDefragVolume::write(piece.bytes, _volumeStartOffset + piece.offset);
    TRY(piece.kind == HFSPlusFlushPlan::Kind::Header ? written : asWriteFailure(written));
  }
  return synchronize();
}

Result<> HFSPlusVolume::endRewriting() {
  const FlushOutcome outcome = TRY(flush());
  if (outcome == FlushOutcome::NoRoomForRecord) {
    TRY(discardChanges());
  }
  TRY(_unmark());
  _rewriting = false;
  if (outcome == FlushOutcome::NoRoomForRecord) {
    return std::unexpected(XRDefragError::localized("The amount of free space is insufficient."));
  }
  return {};
}

Result<> HFSPlusVolume::discardChanges() {
  // What a flush has begun to write cannot be taken back, only completed.
  TRY(_finishFlush());
  _heldWrites.clear();
  const uint32_t writeCount = _hostVolumeHeader.writeCount;
  _hostVolumeHeader = _flushedHeader;
  _hostVolumeHeader.writeCount = writeCount;
  _dirty = false;
  // All of them, whatever one meets: none may keep what the next flush would write.
  std::array results = {_extents->discardChanges(), _allocation->discardChanges(),
                        _catalog->discardChanges(),
                        _attributes ? _attributes->discardChanges() : Result<>()};
  static_cast<void>(_allocation->takeFreeBlockDrift());
  const auto failed = std::ranges::find_if(results, [](const auto& result) { return !result; });
  _mustReread = failed != results.end();
  return failed == results.end() ? Result<>() : std::move(*failed);
}

Result<> HFSPlusVolume::_markInFlux() {
  if (!_rewriting || _fluxMark == FluxMark::Present) {
    return {};
  }
  if (!_runLog) {
    _runLog = std::make_unique<HFSPlusRunLog>(
        *this, HFSPlusVolumePlace{_volumeStartOffset, _volumeSizeBytes});
  }
  if (!_runLog->isActive()) {
    TRY(_runLog->begin(_flushedHeader, _onDiskHeader(_flushedHeader)));
  }
  _fluxMark = FluxMark::Uncertain;
  TRY(_writeHeader(_onDiskHeader(_flushedHeader), kHFSPlusVolumeHeaderOffset));
  _fluxMark = FluxMark::Present;
  return {};
}

Result<> HFSPlusVolume::_unmark() {
  if (_fluxMark != FluxMark::Absent) {
    // The primary last: as long as it carries the mark, nobody takes the volume for finished.
    if (_alternateWritten) {
      TRY(_writeHeader(_flushedHeader, _alternateOffset()));
    }
    _fluxMark = FluxMark::Uncertain;
    TRY(_writeHeader(_flushedHeader, kHFSPlusVolumeHeaderOffset));
    _alternateWritten = false;
    _fluxMark = FluxMark::Absent;
  }
  if (_runLog) {
    TRY(_runLog->end());
    _runLog.reset();
  }
  return {};
}

HFSPlusVolumeHeader HFSPlusVolume::_onDiskHeader(const HFSPlusVolumeHeader& host) const {
  HFSPlusVolumeHeader header = host;
  if (_rewriting || _fluxMark != FluxMark::Absent) {
    header.attributes &= ~kHFSVolumeUnmountedMask;
    header.attributes |= kHFSVolumeInconsistentMask;
  }
  return header;
}

Result<> HFSPlusVolume::_writeHeader(const HFSPlusVolumeHeader& host, uint64_t offset) {
  TRY(XRDefragVolume::write(toDisk(host).bytes, _volumeStartOffset + offset));
  return synchronize();
}

uint64_t HFSPlusVolume::_alternateOffset() const {
  return _volumeSizeBytes - kHFSPlusAlternateVolumeHeaderDistance;
}
