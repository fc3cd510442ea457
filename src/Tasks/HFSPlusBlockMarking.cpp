#include "Tasks/HFSPlusBlockMarking.hpp"

#include "HFSPlus/HFSPlusAllocation.hpp"
#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWDebug.hpp"

Result<> HFSPlusMarkOwnedBlocks(HFSPlusVolume& volume, uint64_t start, uint64_t count) {
  const uint32_t totalBlocks = volume.hostVolumeHeader().totalBlocks;
  if (start > totalBlocks || count > totalBlocks - start) {
    return std::unexpected(
        XRDefragError::localized("Allocation block %1$lu is out of range.", start + count));
  }
  HFSPlusAllocation& allocation = volume.allocation();
  auto block = static_cast<uint32_t>(start);
  auto left = static_cast<uint32_t>(count);
  while (left > 0) {
    const uint32_t set = TRY(allocation.isSet(block, left));
    block += set;
    left -= set;
    const uint32_t clear = left > 0 ? TRY(allocation.isClear(block, left)) : 0;
    if (clear > 0) {
      TRY(allocation.set(block, clear));
      LWDebugLog(LWDebugLevel::Warning,
                 "Allocation bitmap block = %08X with count = %u was not set (and should have "
                 "been), marking range allocated.\n",
                 block, clear);
    }
    block += clear;
    left -= clear;
  }
  return {};
}
