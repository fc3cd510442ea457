#include "XRDefragVolumeFactory.hpp"

Result<std::unique_ptr<HFSPlusVolume>> XRDefragOpenVolume(const std::string& path,
                                                          HFSXVolumes hfsxVolumes) {
  const std::unique_ptr<XRDefragVolume> device = TRY(XRDefragVolume::openDevice(path));
  if (!TRY(HFSPlusVolume::probe(*device))) {
    return std::unexpected(XRDefragError::localized("Unsupported volume format."));
  }
  return HFSPlusVolume::open(*device, hfsxVolumes);
}
