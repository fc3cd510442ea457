#pragma once

#include <memory>
#include <string>

#include "HFSPlus/HFSPlusVolume.hpp"
#include "XRDefragError.hpp"

/// Opens a device and the volume on it: the one place that picks the volume format. Fails with the
/// device's error, with "Unsupported volume format." or with the volume's own error.
[[nodiscard]] Result<std::unique_ptr<HFSPlusVolume>> XRDefragOpenVolume(
    const std::string& path, HFSXVolumes hfsxVolumes = HFSXVolumes::Refused);
