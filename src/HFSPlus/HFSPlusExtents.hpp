#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "HFSPlus/HFSPlusBTreeFile.hpp"

/// The extents overflow file (file ID 3): the extents of forks beyond the eight that the catalog or
/// the volume header holds, eight to a record, by file, fork and first fork block.
///
/// Leaf records have 76 bytes (key of 12, extents of 64), index records 16 (key, child node), which
/// every node from disk is checked for. Its index keys always equal the first key of their child.
/// Changes reach the held writes with flush(). One insertion is done as a whole or, for want of
/// free nodes, not at all; after any other failure the changes made so far stay, and the caller
/// discards them.
class HFSPlusExtents : public HFSPlusBTreeFile {
 public:
  /// A record of a fork and the fork block at which it begins; extents in host order.
  struct Found {
    uint32_t startBlock;
    HFSPlusExtentRecord extents;
  };

  [[nodiscard]] static Result<std::unique_ptr<HFSPlusExtents>> open(HFSPlusVolumeAccess& volume);

  /// The fork's record with the greatest start block not above `block`, if it has one. Fails with
  /// "Overflow extents file is inconsistent.", as it does on a tree without records.
  [[nodiscard]] Result<std::optional<Found>> copyExtentRecord(uint32_t block, uint32_t fileID,
                                                              uint8_t forkType);

  /// The fork's record that begins at `block` and has a first extent. Fails with "Overflow extent
  /// record missing.".
  [[nodiscard]] Result<HFSPlusExtentRecord> requireExtentRecord(uint32_t block, uint32_t fileID,
                                                                uint8_t forkType);

  /// Inserts a record. Fails with "Overflow extent record collision.", or with "Overflow extents
  /// file is too congested, unable to continue." and without having changed anything.
  [[nodiscard]] Result<> insertExtentRecord(const HFSPlusExtentRecord& host, uint32_t block,
                                            uint32_t fileID, uint8_t forkType);

  /// Overwrites a record. Fails with "Overflow extent record missing.".
  [[nodiscard]] Result<> updateExtentRecord(const HFSPlusExtentRecord& host, uint32_t block,
                                            uint32_t fileID, uint8_t forkType);

  /// Removes a record. Fails with "Overflow extent record missing.".
  [[nodiscard]] Result<> deleteExtentRecord(uint32_t block, uint32_t fileID, uint8_t forkType);

  /// The order of two keys (host order): by file, fork type, start block.
  static std::strong_ordering compare(const HFSPlusExtentKey& a, const HFSPlusExtentKey& b);
  /// Whether two keys are of the same fork.
  static bool match(const HFSPlusExtentKey& a, const HFSPlusExtentKey& b);

  [[nodiscard]] XRDefragError inconsistent() const override;

 protected:
  bool hasSoundRecords(const HFSPlusBTreeNode& node) const override;

 private:
  enum class Insertion { Done, NoRoom };
  /// A record to insert, and its key in host order.
  struct NewRecord;

  explicit HFSPlusExtents(HFSPlusVolumeAccess& volume);

  [[nodiscard]] Result<> _checkInsertion(const HFSPlusExtentKey& searchKey);
  [[nodiscard]] Result<uint32_t> _getNextFreeNodeIndex() const;
  [[nodiscard]] Result<> _createRootNode();
  [[nodiscard]] Result<HFSPlusBTreeNodeHold> _growRoot(HFSPlusBTreeNodeHold root);
  [[nodiscard]] Result<Insertion> _insertRecord(HFSPlusBTreeNode& node, const NewRecord& record,
                                                uint32_t levels);
  [[nodiscard]] Result<Insertion> _insertIntoLeaf(HFSPlusBTreeNode& leaf, const NewRecord& record);
  [[nodiscard]] Result<Insertion> _insertBelow(HFSPlusBTreeNode& node, const NewRecord& record,
                                               uint32_t levels);
  [[nodiscard]] Result<HFSPlusBTreeNodeHold> _splitNode(HFSPlusBTreeNode& node);

  [[nodiscard]] Result<> _deleteRecord(HFSPlusBTreeNode& node, const HFSPlusExtentKey& searchKey,
                                       uint32_t levels);
  [[nodiscard]] Result<> _removeChild(HFSPlusBTreeNode& node, uint32_t position,
                                      HFSPlusBTreeNode& child);
  [[nodiscard]] Result<> _collapseRoot(HFSPlusBTreeNode& root);
  [[nodiscard]] Result<> _unlinkAndFreeNode(HFSPlusBTreeNode& node);

  [[nodiscard]] Result<HFSPlusBTreeNodeHold> _childAtIndex(const HFSPlusBTreeNode& node,
                                                           uint32_t position);
  /// The neighbour that a link names, which must link back; an empty hold for the link 0.
  [[nodiscard]] Result<HFSPlusBTreeNodeHold> _rightNeighbour(const HFSPlusBTreeNode& node);
  [[nodiscard]] Result<HFSPlusBTreeNodeHold> _leftNeighbour(const HFSPlusBTreeNode& node);
};
