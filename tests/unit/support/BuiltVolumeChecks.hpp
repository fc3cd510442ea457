#pragma once

#include <string>

#include "support/BuiltVolume.hpp"

namespace support {

/// What the independent checker finds wrong with a volume in memory; empty when nothing.
std::string findingsIn(const BuiltVolume& volume);

/// The bytes of a fork, gathered from the places of the image where the truth says they lie.
Bytes bytesInImage(const BuiltVolume& volume, const BuiltFork& fork);

/// The bytes of a fork as the builder meant them.
Bytes bytesMeant(const BuiltVolume& volume, const BuiltFork& fork);

/// One line for every fork whose bytes in the image are not the ones meant, or whose extents as the
/// checker reads them are not those of the truth; empty when all are.
std::string disagreements(const BuiltVolume& volume);

}  // namespace support
