#pragma once

#include <cstdint>
#include <memory>

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

  HFSPlusVolume& _hfsPlusVolume;
  bool _maskMD = false;  // show the metadata area at the volume's start as in use
};
