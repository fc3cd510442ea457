#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "HFSPlus/HFSPlusCatalogRecord.hpp"
#include "HFSPlus/HFSPlusFormat.hpp"
#include "XRDefragError.hpp"

class HFSPlusVolume;

/// All extents of one fork: as they are on disk, and as they are to become.
///
/// Life: read (the on-disk extents only), edited (after the first move() or deleteAllExtents()),
/// written (update(): what was edited is what is on disk now), edited again. Only update() changes
/// anything outside this object, and what it changes lasts from the volume's next flush on; an
/// update() that fails may leave part of its changes behind, which the caller has to discard.
///
/// Records are numbered in fork order: record 0 has the eight extents of the catalog record or the
/// volume header, records 1 and up are those of the overflow file. The last one may have extents
/// beyond the fork's total blocks; they are not the fork's and are left alone.
class HFSPlusForkExtents {
 public:
  using Descriptors = std::vector<HFSPlusExtentDescriptor>;

  /// Reads a fork's extents. The volume must outlive the object. Fails with one of the messages
  /// about a file ID, internal errors 76 and 540, and the errors of the trees.
  [[nodiscard]] static Result<std::unique_ptr<HFSPlusForkExtents>> open(HFSPlusVolume& volume,
                                                                        uint32_t fileID,
                                                                        uint8_t forkType);

  /// The on-disk extents at or above a volume block, in fork order; one that straddles the block
  /// is cut to begin there.
  Descriptors copyExtentDescriptors(uint32_t startBlock) const;

  /// Lets the blocks at `from` be at `to` from now on. They must lie in one extent of the edited
  /// list; fails with "Invalid extent range with start block = …".
  [[nodiscard]] Result<> move(uint32_t from, uint32_t to, uint32_t count);

  /// Takes all extents away; update() then makes the fork empty.
  void deleteAllExtents();

  /// Writes the edited list: to the catalog record or the header, to as few overflow records as
  /// possible, and to the bitmap. Nothing to do without one.
  [[nodiscard]] Result<> update();

  /// Extents that the edited list would have on disk, neighbours joined.
  size_t editedDescriptorCount() const;

  /// Whether all extents, those before the edits as well, are in the catalog record or the header,
  /// so that update() leaves the overflow file alone.
  bool staysInFirstRecord() const;

  /// Logs both lists.
  void dump() const;

 private:
  HFSPlusForkExtents(HFSPlusVolume& volume, uint32_t fileID, uint8_t forkType);

  // Reading and editing.
  Result<> _checkForkType();
  Result<> _readFork();
  Result<> _readRecords();
  HFSPlusForkData& _fork();
  size_t _indexOfDescriptorContaining(uint32_t block) const;
  Result<HFSPlusExtentRecord> _overflowRecord(uint32_t startBlock);

  // Writing back (HFSPlusForkExtentsUpdate.cpp).
  Result<> _writeRecords(std::span<const HFSPlusExtentRecord> records);
  Result<> _deleteRecordsBehind(size_t index, uint64_t startBlock);
  Result<> _deleteAllRecords();
  Result<> _writeFirstRecord(const HFSPlusExtentRecord& record, bool setZeroLength);
  Result<> _updateForkExtents(const HFSPlusExtentRecord& record, uint32_t startBlock);
  Result<> _insertForkExtents(const HFSPlusExtentRecord& record, uint32_t startBlock);
  Result<> _deleteForkExtents(uint32_t startBlock, bool setZeroLength);
  Result<> _updateAllocation(const Descriptors& descriptors);

  // Messages.
  const std::string& _nameForMessages();
  XRDefragError _extentsNotFound();

  HFSPlusVolume& _volume;
  uint32_t _fileID;
  uint8_t _forkType;
  bool _specialFile;
  HFSPlusCatalogRecord _fileRecord;  // of a special file: made up around its fork
  Descriptors _originalDescriptors;
  std::vector<HFSPlusExtentRecord> _originalRecords;
  std::optional<Descriptors> _modifiedDescriptors;
  size_t _searchStart = 0;  // where the next move probably finds its extent
  std::optional<std::string> _fileName;
};
