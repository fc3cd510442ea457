#pragma once

#include <cstdint>
#include <memory>

#include "HFSPlus/HFSPlusCatalogScan.hpp"
#include "XRDefragTask.hpp"

class HFSPlusVolume;

/// FRAGINFO: one line with the allocation blocks of file data in fragmented forks, those in all
/// forks, and the share of the former in percent. Blocks below the volume's first data block do not
/// count, and a fork is fragmented when two of its extents reach beyond that. Takes no options.
class HFSPlusFragInfoTask : public XRDefragTask, private HFSPlusCatalogScanDelegate {
 public:
  /// The volume must outlive the task; the event's line holds the options.
  HFSPlusFragInfoTask(HFSPlusVolume& volume, std::shared_ptr<LWToolEvent> event);

 protected:
  void runTask() override;

 private:
  /// What of a fork counts.
  struct ForkCount {
    uint32_t blocks = 0;
    uint32_t extents = 0;
  };

  Result<> _scan();
  Result<> scanCatalogFile(const DiskOrder<HFSPlusCatalogFile>& file,
                           const HFSPlusCatalogKeyView& key) override;
  Result<> _countFork(const DiskOrder<HFSPlusForkData>& fork, uint32_t fileID, uint8_t forkType);
  void _countExtent(ForkCount& count, uint32_t startBlock, uint32_t blockCount) const;

  HFSPlusVolume& _hfsPlusVolume;
  uint32_t _startBlock = 0;        // blocks below it do not count
  uint32_t _totalBlocks = 0;       // blocks counted so far
  uint32_t _fragmentedBlocks = 0;  // those of them in fragmented forks
};
