#pragma once

#include <cstdint>

#include "XRDefragVolume.hpp"

/// Where an HFS Plus volume lies on its device, in bytes.
struct HFSPlusVolumePlace {
  uint64_t startOffset;
  uint64_t sizeBytes;
};

/// The whole device or, when it holds an HFS wrapper around an HFS Plus or HFSX volume, what the
/// wrapper says about that volume, unchecked. Device errors.
[[nodiscard]] Result<HFSPlusVolumePlace> HFSPlusLocateVolume(XRDefragVolume& device);
