#pragma once

#include "HFSPlus/HFSPlusFileForkSet.hpp"
#include "XRDefragError.hpp"

/// Whether a placement profile could be read from the volume.
enum class HFSPlusProfile {
  Absent,  // the volume has nothing that the profile could follow
  Added,   // its forks are in the set
};
