#pragma once

#include <memory>
#include <string>

#include "XRDefragCommandSet.hpp"
#include "XRDefragError.hpp"

/// Opens a device and returns the commands for the volume on it. Fails with the device's error,
/// with "Unsupported volume format." or with the volume's own error.
[[nodiscard]] Result<std::unique_ptr<XRDefragCommandSet>> XRDefragOpenVolumeCommands(
    const std::string& device);
