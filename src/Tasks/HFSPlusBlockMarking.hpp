#pragma once

#include <cstdint>

#include "XRDefragError.hpp"

class HFSPlusVolume;

/// Marks blocks in the bitmap that are in use but not marked so, before anything is written that
/// could be written on them. Sets what is clear of the blocks, and logs a warning for each run.
/// Fails with "Allocation block %1$lu is out of range." and bitmap errors.
[[nodiscard]] Result<> HFSPlusMarkOwnedBlocks(HFSPlusVolume& volume, uint64_t start,
                                              uint64_t count);
