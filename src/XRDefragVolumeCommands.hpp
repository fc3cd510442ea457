#pragma once

#include <memory>

#include "HFSPlus/HFSPlusVolume.hpp"
#include "XRDefragCommandLine.hpp"
#include "XRDefragCommandSet.hpp"
#include "XRDefragError.hpp"

/// Opens the device that a command line names and returns the commands for the volume on it. Fails
/// with the device's error, with "Unsupported volume format." or with the volume's own error.
[[nodiscard]] Result<std::unique_ptr<XRDefragCommandSet>> XRDefragOpenVolumeCommands(
    const XRDefragCommandLine& line);

/// The commands for a volume that is open already.
[[nodiscard]] std::unique_ptr<XRDefragCommandSet> XRDefragCommandsForVolume(
    std::unique_ptr<HFSPlusVolume> volume);
