#pragma once

#include <cstdint>

#include "support/VolumeDescription.hpp"

namespace support {

/// A volume of about 64 MiB to show: a few hundred files in folders, most of them in pieces, with
/// resource forks, some forks with overflow records and free space all over.
VolumeDescription demoVolume(uint64_t seed);

}  // namespace support
