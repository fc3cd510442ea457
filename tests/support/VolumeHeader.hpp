#pragma once

#include "support/BuiltVolume.hpp"
#include "support/VolumeGeometry.hpp"
#include "support/VolumeImage.hpp"

namespace support {

/// What the volume header says, apart from what description and geometry say already.
struct VolumeHeader {
  uint32_t fileCount = 0;
  uint32_t folderCount = 0;
  uint32_t freeBlocks = 0;
  uint32_t nextAllocation = 0;
  uint32_t nextCatalogID = 0;
  uint32_t journalInfoBlock = 0;
  BuiltFork allocation, extents, catalog, attributes, startup;

  /// Writes the header and its alternate.
  void write(const VolumeDescription& description, const VolumeGeometry& geometry,
             VolumeImage& image) const;
};

/// Writes the wrapper's master directory block, its alternate and its bitmap.
void writeWrapper(const VolumeDescription& description, const VolumeGeometry& geometry,
                  VolumeImage& image);

}  // namespace support
