#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusVolume.hpp"

namespace fuzz {

/// How much a rewriting run may use.
struct TaskLimits {
  uint64_t copyBufferBytes = 1 << 20;
  uint64_t mapCapacity = 0x40000;
};

/// Runs a SCAN, FRAGINFO, MAP or BITMAP line to its end on the calling thread; its report.
std::vector<std::string> runReporting(HFSPlusVolume& volume, const std::string& line);

/// The same for a DEFRAG or COMPACT line.
std::vector<std::string> runRewriting(HFSPlusVolume& volume, const std::string& line,
                                      const TaskLimits& limits);

}  // namespace fuzz
