#include "Tasks/HFSPlusBitmapTask.hpp"

#include <algorithm>
#include <string>
#include <utility>

#include "HFSPlus/HFSPlusVolume.hpp"
#include "LWKit/LWStringUtilities.hpp"
#include "Tasks/HFSPlusBitmapPicture.hpp"
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
  HFSPlusBitmapPicture picture(name(), scale, _maskMD ? _hfsPlusVolume.firstDataBlock() : 0,
                               XRDefragReport::shared());
  return picture.print(_hfsPlusVolume.hostVolumeHeader(), _hfsPlusVolume.allocation());
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
