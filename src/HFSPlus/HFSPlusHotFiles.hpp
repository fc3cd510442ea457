#pragma once

#include <memory>

#include "HFSPlus/HFSPlusBTreeFile.hpp"
#include "HFSPlus/HFSPlusForkDataRegistry.hpp"

class HFSPlusCatalog;
class HFSPlusFileForkSet;

/// The hot files B-tree, "/.hotfiles.btree": an ordinary file in which the volume's own system
/// notes which forks it keeps in the metadata zone. Never edited here.
class HFSPlusHotFiles final : private HFSPlusRegisteredForkData, public HFSPlusBTreeFile {
 public:
  /// Opens the tree; null when the volume keeps none. Catalog and B-tree errors.
  [[nodiscard]] static Result<std::unique_ptr<HFSPlusHotFiles>> open(
      HFSPlusVolumeAccess& volume, HFSPlusForkDataRegistry& registry, HFSPlusCatalog& catalog);

  /// Adds every hot fork that lies, in at most one piece, below `firstDataBlock` (allocation
  /// blocks). Fails with "The hotfiles.btree file is inconsistent." or B-tree errors.
  [[nodiscard]] Result<> mergeFileIDs(HFSPlusFileForkSet& fileForks, uint32_t firstDataBlock);

  XRDefragError inconsistent() const override;

 private:
  HFSPlusHotFiles(HFSPlusVolumeAccess& volume, HFSPlusForkDataRegistry& registry,
                  const HFSPlusCatalogFile& file, HFSPlusCatalog& catalog);

  [[nodiscard]] Result<> _mergeRecord(std::span<const std::byte> record,
                                      HFSPlusFileForkSet& fileForks, uint32_t firstDataBlock);

  HFSPlusCatalog& _catalog;
};
