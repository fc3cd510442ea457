#pragma once

#include <memory>
#include <string>
#include <vector>

#include "support/AttributeRecords.hpp"
#include "support/CatalogRecords.hpp"
#include "support/ForkLayout.hpp"
#include "support/OverflowRecords.hpp"
#include "support/VolumeGeometry.hpp"

namespace support {

/// A tree of the volume on its way to the disk.
struct PlannedTree {
  std::unique_ptr<BTreeWriter> writer;
  uint32_t totalNodes = 0;
};

/// Everything about a volume that must be known before its first byte is written: its size, the
/// place of every fork and the records of every tree.
///
/// The overflow file and the attributes file take room that depends on where the forks lie, and the
/// forks lie where these files leave room. So a layout is tried with trees as large as the plan
/// makes likely, and tried again with larger ones when they turn out too small.
class VolumePlan {
 public:
  /// Keeps a reference to the description.
  explicit VolumePlan(const VolumeDescription& description);

  /// Empty on success, otherwise why the volume cannot be built.
  [[nodiscard]] std::string make();

  // Positions of the special files in forks().
  enum Special : uint32_t { allocation, extentsFile, catalogFile, attributesFile, startupFile };

  const VolumeDescription& description() const { return _description; }
  const VolumeGeometry& geometry() const { return _geometry; }
  const std::vector<CatalogItem>& items() const { return _items; }
  const std::vector<BuiltFork>& forks() const { return _forks; }
  std::vector<BuiltFork>& forks() { return _forks; }
  const PlannedTree& catalog() const { return _catalog; }
  const PlannedTree& extents() const { return _extents; }
  const PlannedTree& attributes() const { return _attributes; }

 private:
  [[nodiscard]] std::string checkDescription() const;
  [[nodiscard]] std::string checkItems() const;
  void addSpecialForks();
  void addItemForks();
  uint32_t addFork(uint32_t fileID, uint8_t forkType, const ForkDescription& fork);
  void planSpecial(Special special, uint64_t logicalSize, uint32_t fragments,
                   const std::vector<BlockExtent>& extents, uint32_t unit);
  void planTree(Special special, PlannedTree& tree, const TreeDescription& described,
                uint32_t wantedNodes);

  TreeKind catalogKind() const;
  TreeKind extentsKind() const;
  TreeKind attributesKind() const;
  void planAttributes();
  void planExtents(const OverflowRecords& records);
  OverflowRecords expectedOverflow() const;
  OverflowRecords actualOverflow() const;
  void addStrayRecords(OverflowRecords& records) const;

  uint64_t neededSize() const;
  void decideGeometry();
  [[nodiscard]] std::string layOut();
  [[nodiscard]] std::string clearSpace(FreeSpace& space) const;
  bool treesSuffice();
  void fillInLiterals();
  void fillInPlaylist();
  void setLiteral(const FileDescription* file, Bytes bytes);

  const VolumeDescription& _description;
  VolumeGeometry _geometry;
  std::vector<CatalogItem> _items;
  std::vector<AttributeFork> _attributeForks;
  std::vector<BuiltFork> _forks;
  std::vector<PlannedFork> _planned;  // the same forks, in the same order
  std::unique_ptr<CatalogRecords> _catalogRecords;
  std::unique_ptr<AttributeRecords> _attributeRecords;
  OverflowRecords _overflow;
  PlannedTree _catalog, _extents, _attributes;
  uint32_t _extentsNodesWanted = 0;
  uint32_t _attributesNodesWanted = 0;
};

}  // namespace support
