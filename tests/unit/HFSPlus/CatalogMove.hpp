#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusVolume.hpp"
#include "support/VolumeBuilder.hpp"

/// A small volume and a batch on it as the defragmenter does them, for tests of how a volume writes
/// and of how it comes back when the writing was interrupted.
namespace catalogmove {

using Image = std::vector<std::byte>;

inline constexpr uint32_t kBlockSize = 4096;
inline constexpr uint32_t kTotalBlocks = 2048;
inline constexpr uint64_t kAlternateOffset = uint64_t{kBlockSize} * kTotalBlocks - 1024;
inline constexpr uint64_t kLastSectorOffset = kAlternateOffset + 512;
inline constexpr support::BlockExtent kFree = {.start = 1500, .count = 64};
/// A file with a data fork in two pieces.
inline constexpr uint32_t kFileID = 16;

const support::BuiltVolume& builtVolume();
Image image();

/// Whether a header says that a run is under way.
bool isMarked(const HFSPlusVolumeHeader& header);
/// The primary header of a volume's image.
HFSPlusVolumeHeader headerIn(const Image& bytes);

/// What a volume's bytes get wrong, in the checker's words; empty for a spotless one.
std::string faultsOf(const Image& bytes);

/// A batch: moves the catalog file to free blocks, points the header there, changes the bitmap
/// accordingly and rewrites a record of the catalog itself.
Result<> moveCatalog(HFSPlusVolume& volume, uint32_t target);

/// A whole run: one batch, its flush, and the end, which comes whatever the batch met.
Result<> runMovingCatalog(HFSPlusVolume& volume);

}  // namespace catalogmove
