#pragma once

#include "support/VolumeDescription.hpp"

namespace support {

/// The bytes of a hot files tree: a record per fork ordered by heat, and a thread record per fork.
Bytes hotFilesTree(const std::vector<HotFile>& hotFiles);

}  // namespace support
