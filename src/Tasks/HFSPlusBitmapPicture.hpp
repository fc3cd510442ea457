#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "XRDefragError.hpp"

class HFSPlusAllocation;
class XRDefragReport;
struct HFSPlusVolumeHeader;

/// The report of a volume's allocation bitmap: its length, the picture in which each group of
/// blocks is one bit, the first free and the last used block.
class HFSPlusBitmapPicture {
 public:
  /// `taskName` begins every line. Groups have `scale` blocks, 1 or more; blocks below
  /// `maskedBlocks` show as in use.
  HFSPlusBitmapPicture(std::string taskName, uint32_t scale, uint32_t maskedBlocks,
                       XRDefragReport& report);

  /// Prints all of it, once. A chunk that cannot be read ends it with that error, after the lines
  /// printed so far.
  [[nodiscard]] Result<> print(const HFSPlusVolumeHeader& header, HFSPlusAllocation& allocation);

 private:
  Result<> appendLines(const HFSPlusVolumeHeader& header, HFSPlusAllocation& allocation);
  size_t noteEnds(std::span<const std::byte> bitmap, uint64_t firstBlock);
  void handOver();

  std::string _taskName;
  uint32_t _scale;
  uint64_t _maskedBlocks;
  XRDefragReport& _report;
  std::string _lines;                       // not yet handed to the report
  uint32_t _firstUnusedBlock = UINT32_MAX;  // as yet none
  uint32_t _lastUsedBlock = 0;
  uint32_t _lastUsedLimit = 0;  // the blocks from here on hold the alternate header
};
