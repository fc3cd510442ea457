#include "Tasks/HFSPlusExtentsFilePlan.hpp"

#include "HFSPlus/HFSPlusVolume.hpp"
#include "Tasks/HFSPlusCopyList.hpp"

Result<> HFSPlusExtentsFilePlan::add(const HFSPlusCopyEntry& move) {
  if (move.entry.cnid != kHFSExtentsFileID) {
    return {};
  }
  if (!_fork) {
    _fork = TRY(HFSPlusForkExtents::open(_volume, kHFSExtentsFileID, kHFSDataForkType));
  }
  return _fork->move(move.source(), move.nustart, move.count);
}
