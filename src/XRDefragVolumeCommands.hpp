#pragma once

#include <memory>

#include "XRDefragCommandLine.hpp"
#include "XRDefragCommandSet.hpp"
#include "XRDefragError.hpp"

/// Opens the device that a command line names and returns the commands for the volume on it. Fails
/// with the device's error, with "Unsupported volume format." or with the volume's own error.
[[nodiscard]] Result<std::unique_ptr<XRDefragCommandSet>> XRDefragOpenVolumeCommands(
    const XRDefragCommandLine& line);
