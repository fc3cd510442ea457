#pragma once

#include <functional>

#include "HFSPlus/HFSPlusFormat.hpp"
#include "XRDefragError.hpp"

class HFSPlusVolume;

/// Who is shown an extent; an error ends the walk and is its error.
using HFSPlusExtentVisitor = std::function<Result<>(const HFSPlusExtentDescriptor& extent)>;

/// Shows the extents of all forks that the catalog does not list: those of extended attributes, and
/// those of a bad-blocks file that is kept in the overflow file alone. They may lie outside the
/// volume. Errors of the trees.
[[nodiscard]] Result<> HFSPlusVisitUnlistedForks(HFSPlusVolume& volume,
                                                 const HFSPlusExtentVisitor& visit);
