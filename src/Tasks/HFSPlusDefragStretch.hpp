#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "HFSPlus/HFSPlusCatalogScan.hpp"
#include "HFSPlus/HFSPlusExtentMap.hpp"
#include "HFSPlus/HFSPlusFileForkSet.hpp"
#include "XRDefragError.hpp"

class HFSPlusVolume;

/// The stretch of the volume that a rewriting run works on: its extent map, built from the
/// volume's metadata and made to agree with the allocation bitmap.
///
/// The map has a capacity, so that a volume with more runs comes stretch by stretch: each reaches
/// from its start to where the map was clipped, which is where the next one starts. A fork may
/// have extents outside the stretch; the map then knows only those inside.
///
/// After build() every block of the stretch that a fork owns is set in the bitmap, every one that
/// is set there without an owner is immutable in the map, and every free one in the map is clear in
/// the bitmap. Blocks beyond the stretch may be written to as soon as every stretch has been built
/// once: whoever owns them has marked them then, and marks move with the forks. Used by the task
/// that has closed the volume's gate.
class HFSPlusDefragStretch final : private HFSPlusCatalogScanDelegate {
 public:
  /// `cancelled` is asked between the steps of building; `capacity` is the map's while it is
  /// built, in entries.
  HFSPlusDefragStretch(HFSPlusVolume& volume, std::function<bool()> cancelled,
                       uint64_t capacity = HFSPlusExtentMap::kDefaultCapacity);

  /// Forks that must never be moved.
  void setImmutableFileForks(HFSPlusFileForkSet forks) { _immutableFileForks = std::move(forks); }
  const HFSPlusFileForkSet& immutableFileForks() const { return _immutableFileForks; }

  /// Builds the map from a block on. Fails with "Overflow extent record missing.", "Allocation
  /// block %1$lu is out of range.", the overlapping-extent message, "Volume is inconsistent." when
  /// the journal has transactions in it, "Catalog file is inconsistent." for a file with an ID that
  /// no file can have, when cancelled, and with the errors of the trees and the bitmap.
  [[nodiscard]] Result<> build(uint32_t startBlock);

  /// The map; empty before the first build().
  HFSPlusExtentMap& map() { return *_extentMap; }
  const HFSPlusExtentMap& map() const { return *_extentMap; }

  /// First block beyond the map as it was built.
  uint32_t nextStartBlock() const { return _extentNextStartBlock; }
  /// Whether no stretch follows.
  bool reachesVolumeEnd() const;

  /// Blocks of the map that are free or may be moved.
  uint32_t movableBlocks() const;

  /// Leaves the extents file where it is from the next build() on.
  void pinExtentsFile() { _extentsFilePinned = true; }

 private:
  Result<> _buildExtentMap();
  Result<> _insertHeaders();
  Result<> _insertJournal();
  Result<> _insertBadBlocks();
  Result<> _insertUnlistedForks();
  Result<> _insertSpecialFiles();
  Result<> _buildSpecialFileExtentMap(uint32_t fileID, HFSPlusExtentType type);
  Result<> _insertFileExtents(const HFSPlusCatalogFile& file, HFSPlusExtentType type);
  Result<> _insertForkExtents(const HFSPlusForkData& fork, uint32_t fileID, uint8_t forkType,
                              HFSPlusExtentType type);
  Result<> _insertExtent(uint64_t start, uint64_t count, uint32_t cnid, HFSPlusExtentInfo info);
  /// Blocks of a file that is missed would be taken for free.
  bool needsEveryFile() const override { return true; }
  /// To be moved, which takes knowing all of their extents.
  bool looksFilesUp() const override { return true; }
  Result<> scanCatalogFile(const DiskOrder<HFSPlusCatalogFile>& file,
                           const HFSPlusCatalogKeyView& key) override;
  Result<uint32_t> _fileIDForPath(const char* path);

  Result<> _crossCheck();
  Result<> _keepSetBlocks(uint32_t start, uint32_t count);

  HFSPlusVolume& _volume;
  std::function<bool()> _cancelled;
  uint64_t _capacity;
  HFSPlusFileForkSet _immutableFileForks;
  bool _extentsFilePinned = false;
  std::unique_ptr<HFSPlusExtentMap> _extentMap;
  uint32_t _extentBlockCount = 0;      // of the map when it was last built
  uint32_t _extentNextStartBlock = 0;  // where the next build begins
};
