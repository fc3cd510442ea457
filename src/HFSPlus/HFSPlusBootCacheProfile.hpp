#pragma once

#include "HFSPlus/HFSPlusPlacementProfile.hpp"

class HFSPlusVolume;

/// The forks that the volume's system reads while it starts, in the order of its boot playlist,
/// "/private/var/db/BootCache.playlist".
namespace HFSPlusBootCacheProfile {

/// Appends the playlist's forks to the set, by batch and within a batch by place. A missing or
/// malformed playlist adds nothing. Catalog, overflow and device errors.
[[nodiscard]] Result<HFSPlusProfile> addFileForks(HFSPlusVolume& volume,
                                                  HFSPlusFileForkSet& fileForks);

/// Empties the playlist file of a writable volume, since its ranges no longer hold once the forks
/// have moved. Errors are ignored: the file is a mere hint to its system.
void reset(HFSPlusVolume& volume);

}  // namespace HFSPlusBootCacheProfile
