#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "model/FileRanking.hpp"
#include "model/Histogram.hpp"
#include "model/TileMap.hpp"

namespace view {

/// All that one look at a volume brought, summarised: its size does not depend on the volume's.
struct Picture {
  std::string device;
  int64_t takenAt = 0;  // seconds since 1970, UTC
  /// Bytes of a block. The report lines do not say; it is worked out from the device's size, and
  /// missing where that fits no number of blocks.
  std::optional<uint64_t> blockBytes;

  uint64_t files = 0;
  uint64_t emptyFiles = 0;       // without any block
  uint64_t fragmentedFiles = 0;  // a fork in more than one extent
  uint64_t pieces = 0;           // extents of all files
  uint64_t fileBlocks = 0;       // as xrdefrag counts them fork by fork
  uint64_t fragmentedBlocks = 0;

  uint64_t freeRuns = 0;
  uint64_t largestFreeRun = 0;  // in blocks

  Histogram piecesPerFile;
  Histogram blocksPerFreeRun;
  TileMap map;
  std::vector<FileEntry> mostFragmented;  // the most pieces first
  std::vector<FileEntry> largest;         // the most blocks first

  uint64_t blocks() const { return map.blockCount(); }
};

/// Blocks as bytes where their size is known, else as "1,234 blocks".
std::string prettyBlocks(const Picture& picture, uint64_t blocks);

/// The bytes of a block and the exact number of blocks, from the device's size and the length of
/// the bitmap in bytes. Nothing when they do not fit: a volume may be much smaller than its device.
struct BlockGeometry {
  uint64_t blockBytes;
  uint64_t blocks;
};
std::optional<BlockGeometry> findBlockGeometry(uint64_t deviceBytes, uint64_t bitmapBytes);

/// Size of a device or image in bytes, as far as an ordinary user can tell; 0 when not.
uint64_t deviceBytes(const std::string& path);

}  // namespace view
