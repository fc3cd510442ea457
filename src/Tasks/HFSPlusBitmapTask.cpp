#include "Tasks/HFSPlusBitmapTask.hpp"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusBitmapBits.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWFormat.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "Tasks/HFSPlusBitmapScaler.hpp"
#include "Tasks/HFSPlusClosedGate.hpp"
#include "XRDefragReport.hpp"

HFSPlusBitmapTask::HFSPlusBitmapTask(HFSPlusVolume& volume, std::shared_ptr<LWToolEvent> event)
    : XRDefragTask(volume), _hfsPlusVolume(volume) {
  setArguments(LWTrimmedComponents(event->string()));
  setEvent(std::move(event));
  setName("BITMAP");
}

void HFSPlusBitmapTask::runTask() {
  reportTaskStart();
  if (Result<> result = _bitmap(); !result) {
    reportTaskError(result.error());
  }
  reportTaskDone();
}

Result<> HFSPlusBitmapTask::_bitmap() {
  uint32_t scale = TRY(parseArguments());
  HFSPlusClosedGate closed(_hfsPlusVolume);
  return _parseAllocationWithScale(scale);
}

/// Sets the options and answers the scale.
Result<uint32_t> HFSPlusBitmapTask::parseArguments() {
  uint32_t scale = 0;
  for (size_t index = 1; index < arguments().size(); ++index) {
    const std::string& word = arguments()[index];
    if (word == "-m") {
      _maskMD = true;
    } else if (scale != 0) {
      return std::unexpected(XRDefragError::localized("Unknown option: %1$@", word));
    } else {
      int64_t value = LWScanInteger(word).value_or(0);
      if (value < 1) {
        return std::unexpected(XRDefragError::localized("%1$@ is not a positive integer.", word));
      }
      scale = static_cast<uint32_t>(std::min<int64_t>(value, UINT32_MAX));
    }
  }
  if (scale == 0) {
    return std::unexpected(XRDefragError::localized("Scale argument is required."));
  }
  return scale;
}

Result<> HFSPlusBitmapTask::_parseAllocationWithScale(uint32_t scale) {
  HFSPlusAllocation& allocation = _hfsPlusVolume.allocation();
  XRDefragReport& report = XRDefragReport::shared();
  const HFSPlusVolumeHeader& header = _hfsPlusVolume.hostVolumeHeader();
  uint64_t totalBlocks = header.totalBlocks;
  uint32_t blocksAtEnd = header.blockSize <= 512 ? 2 : 1;
  _lastUsedLimit = header.totalBlocks - std::min(header.totalBlocks, blocksAtEnd);
  uint64_t maskedBlocks = _maskMD ? _hfsPlusVolume.firstDataBlock() : 0;

  uint64_t groups = (totalBlocks + scale - 1) / scale;
  report.print(LWFormat("%s,LENGTH,%llu\n", name(), (groups + 7) / 8));

  std::string line;
  HFSPlusBitmapScaler scaler(scale, [&](std::string_view digits) {
    line.assign(name()).append(",DATA,").append(digits).append("\n");
    report.print(line);
  });
  std::vector<std::byte> masked;
  uint64_t blocksPerChunk = uint64_t{allocation.chunkSize()} * 8;
  for (uint64_t block = 0; block < totalBlocks; block += blocksPerChunk) {
    auto chunk = TRY(allocation.cachedChunkWithBlockIndex(static_cast<uint32_t>(block)));
    std::span<const std::byte> bitmap = chunk->data();
    bitmap = bitmap.first(std::min<size_t>(bitmap.size(), (totalBlocks - block + 7) / 8));
    if (block < maskedBlocks) {
      masked.assign(bitmap.begin(), bitmap.end());
      HFSPlusSetBits(masked, 0, std::min<uint64_t>(maskedBlocks - block, masked.size() * 8));
      bitmap = masked;
    }
    noteEnds(bitmap, block);
    scaler.add(bitmap);
  }
  scaler.finish();

  report.print(LWFormat("%s,FIRSTUNUSEDBLOCK,%u\n", name(), _firstUnusedBlock));
  report.print(LWFormat("%s,LASTUSEDBLOCK,%u\n", name(), _lastUsedBlock));
  return {};
}

/// Looks for the first free and the last used block in the bitmap of the blocks from one on.
void HFSPlusBitmapTask::noteEnds(std::span<const std::byte> bitmap, uint64_t firstBlock) {
  uint64_t bits = bitmap.size() * 8;
  if (_firstUnusedBlock == UINT32_MAX) {
    uint64_t used = HFSPlusSetRun(bitmap, 0, bits);
    if (used < bits) {
      _firstUnusedBlock = static_cast<uint32_t>(firstBlock + used);
    }
  }
  if (firstBlock < _lastUsedLimit) {
    auto last = HFSPlusLastSetBit(bitmap, std::min<uint64_t>(bits, _lastUsedLimit - firstBlock));
    if (last) {
      _lastUsedBlock = static_cast<uint32_t>(firstBlock + *last);
    }
  }
}
