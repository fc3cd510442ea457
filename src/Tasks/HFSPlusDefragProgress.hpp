#pragma once

#include <cstdint>
#include <functional>
#include <string>

/// How far a rewriting run is, and the lines that tell of it: one for every piece moved or, for a
/// quiet run, one for every percent.
class HFSPlusDefragProgress {
 public:
  /// Prints lines that begin with "NAME,PROGRESS". `allocatedBlocks` are the volume's blocks in use
  /// when the run begins.
  HFSPlusDefragProgress(const std::string& taskName, uint32_t allocatedBlocks)
      : _progressPrefix(taskName + ",PROGRESS"), _allocatedBlocks(allocatedBlocks) {}

  /// Prints nothing but hands every new percentage to the function.
  void setQuiet(std::function<void(int percent)> report) { _report = std::move(report); }

  /// Sets how many blocks the run expects to move, and starts counting.
  void expect(uint32_t blocks);

  /// Tells of a piece that has been moved; `counted` if it was one of those expected. Lines leave
  /// with the next send().
  void moved(uint32_t from, uint32_t to, uint32_t count, bool counted);

  /// Sends what has been told on its way, and returns when it has left. Once for many pieces: it
  /// takes two threads that wake each other.
  void send();

  /// 0 to 100; 100 when nothing was expected.
  uint32_t percentage() const;

 private:
  std::string _progressPrefix;
  uint32_t _allocatedBlocks;
  std::function<void(int)> _report;
  uint32_t _progressBlocksTotal = 0;
  uint64_t _progressBlocksProcessed = 0;
  uint32_t _progressBlocksPercentage = UINT32_MAX;  // last one reported
};
