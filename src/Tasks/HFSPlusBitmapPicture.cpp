#include "Tasks/HFSPlusBitmapPicture.hpp"

#include <algorithm>
#include <string_view>
#include <utility>
#include <vector>

#include "HFSPlus/HFSPlusAllocationPass.hpp"
#include "HFSPlus/HFSPlusBitmapBits.hpp"
#include "LWKit/LWFormat.hpp"
#include "Tasks/HFSPlusBitmapScaler.hpp"
#include "XRDefragReport.hpp"

namespace {

constexpr size_t kHandOverSize = 60000;  // bytes

}  // namespace

HFSPlusBitmapPicture::HFSPlusBitmapPicture(std::string taskName, uint32_t scale,
                                           uint32_t maskedBlocks, XRDefragReport& report)
    : _taskName(std::move(taskName)), _scale(scale), _maskedBlocks(maskedBlocks), _report(report) {}

Result<> HFSPlusBitmapPicture::print(const HFSPlusVolumeHeader& header,
                                     HFSPlusAllocation& allocation) {
  Result<> result = appendLines(header, allocation);
  handOver();
  return result;
}

Result<> HFSPlusBitmapPicture::appendLines(const HFSPlusVolumeHeader& header,
                                           HFSPlusAllocation& allocation) {
  uint64_t totalBlocks = header.totalBlocks;
  uint32_t blocksAtEnd = header.blockSize <= 512 ? 2 : 1;
  _lastUsedLimit = header.totalBlocks - std::min(header.totalBlocks, blocksAtEnd);
  uint64_t groups = (totalBlocks + _scale - 1) / _scale;
  _lines += LWFormat("%s,LENGTH,%llu\n", _taskName, (groups + 7) / 8);
  HFSPlusBitmapScaler scaler(_scale, [&](std::string_view digits) {
    _lines.append(_taskName).append(",DATA,").append(digits).append("\n");
    if (_lines.size() >= kHandOverSize) {
      handOver();
    }
  });
  std::vector<std::byte> masked;
  HFSPlusAllocationPass pass(allocation);
  uint64_t blocksPerChunk = uint64_t{allocation.chunkSize()} * 8;
  for (uint64_t block = 0; block < totalBlocks; block += blocksPerChunk) {
    auto bitmap = TRY(pass.chunk(static_cast<uint32_t>(block / blocksPerChunk)));
    bitmap = bitmap.first(std::min<size_t>(bitmap.size(), (totalBlocks - block + 7) / 8));
    if (block < _maskedBlocks) {
      masked.assign(bitmap.begin(), bitmap.end());
      HFSPlusSetBits(masked, 0, std::min<uint64_t>(_maskedBlocks - block, masked.size() * 8));
      bitmap = masked;
    }
    const size_t usedBytes = noteEnds(bitmap, block);
    scaler.add(bitmap.first(usedBytes));
    scaler.addClear((bitmap.size() - usedBytes) * 8);
  }
  scaler.finish();

  _lines += LWFormat("%s,FIRSTUNUSEDBLOCK,%u\n", _taskName, _firstUnusedBlock);
  _lines += LWFormat("%s,LASTUSEDBLOCK,%u\n", _taskName, _lastUsedBlock);
  return {};
}

/// Lines go to the report many at a time: a pipe takes them in pieces as large as it holds.
void HFSPlusBitmapPicture::handOver() {
  if (!_lines.empty()) {
    _report.print(_lines);
    _lines.clear();
  }
}

/// Looks for the first free and the last used block in the bitmap of the blocks from one on. The
/// bits that fill up the volume's last byte count as blocks. Answers how many bytes there are up to
/// the last one that is not clear, as far as that was looked at.
size_t HFSPlusBitmapPicture::noteEnds(std::span<const std::byte> bitmap, uint64_t firstBlock) {
  uint64_t bits = bitmap.size() * 8;
  if (_firstUnusedBlock == UINT32_MAX) {
    uint64_t used = HFSPlusSetRun(bitmap, 0, bits);
    if (used < bits) {
      _firstUnusedBlock = static_cast<uint32_t>(firstBlock + used);
    }
  }
  if (firstBlock >= _lastUsedLimit) {
    return bitmap.size();
  }
  const uint64_t looked = std::min<uint64_t>(bits, _lastUsedLimit - firstBlock);
  const auto last = HFSPlusLastSetBit(bitmap, looked);
  if (last) {
    _lastUsedBlock = static_cast<uint32_t>(firstBlock + *last);
  }
  if (looked < bits) {
    return bitmap.size();
  }
  return last ? *last / 8 + 1 : 0;
}
