#pragma once

#include "HFSPlus/HFSPlusVolume.hpp"

// Dumps of one file (a catalog record in host order) to the debug log, at level debug.

/// The file's ID and path. Fails with "Path lookup failed for CNID %1$lu.".
[[nodiscard]] Result<> HFSPlusDumpFilePath(HFSPlusVolume& volume, const HFSPlusCatalogFile& file);

/// The file's ID and path, after the path has been looked up again. Fails with "CNID %1$lu -> %2$@
/// -> CNID %3$lu." if that leads to another file, or "File lookup failed for %1$@.".
[[nodiscard]] Result<> HFSPlusDumpFilePathFull(HFSPlusVolume& volume,
                                               const HFSPlusCatalogFile& file);

/// All extents of the data fork and then of the resource fork, in one line. Fails with "Overflow
/// extent record missing.".
[[nodiscard]] Result<> HFSPlusDumpFileExtents(HFSPlusVolume& volume,
                                              const HFSPlusCatalogFile& file);

/// The extents of a data fork that has overflow records, with the device bytes of each, a line an
/// extent. Fails as above.
[[nodiscard]] Result<> HFSPlusDumpFileExtentsOverflows(HFSPlusVolume& volume,
                                                       const HFSPlusCatalogFile& file);
