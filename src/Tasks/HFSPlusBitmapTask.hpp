#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "LWKit/LWToolEvent.hpp"
#include "XRDefragError.hpp"
#include "XRDefragTask.hpp"

class HFSPlusVolume;

/// BITMAP [-m] SCALE: a picture of the allocation bitmap in which each group of SCALE blocks is one
/// bit, and the first free and the last used block.
class HFSPlusBitmapTask final : public XRDefragTask {
 public:
  HFSPlusBitmapTask(HFSPlusVolume& volume, std::shared_ptr<LWToolEvent> event);

 private:
  void runTask() override;
  Result<> _bitmap();
  Result<uint32_t> parseArguments();
  Result<> _parseAllocationWithScale(uint32_t scale);
  void noteEnds(std::span<const std::byte> bitmap, uint64_t firstBlock);

  HFSPlusVolume& _hfsPlusVolume;
  bool _maskMD = false;  // show the metadata area at the volume's start as in use
  uint32_t _firstUnusedBlock = UINT32_MAX;  // as yet none
  uint32_t _lastUsedBlock = 0;
  uint32_t _lastUsedLimit = 0;  // what lies here and above holds the alternate header
};
