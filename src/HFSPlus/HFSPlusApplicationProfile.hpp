#pragma once

#include "HFSPlus/HFSPlusPlacementProfile.hpp"

class HFSPlusCatalog;

/// The forks of everything below "/Applications".
namespace HFSPlusApplicationProfile {

/// Appends the forks that are not empty, depth first: a folder's files in catalog order, then its
/// sub-folders. A volume without the folder adds nothing. Catalog errors.
[[nodiscard]] Result<HFSPlusProfile> addFileForks(HFSPlusCatalog& catalog,
                                                  HFSPlusFileForkSet& fileForks);

}  // namespace HFSPlusApplicationProfile
